#include "talvo/base/byte_stream.h"

#include "tests/support/test.h"

TEST(ByteStream, ALongStringIsWrittenModulo65536) {
    CCmMessageBlock mb(100000);
    EXPECT_EQ(CCmByteStreamNetwork(mb).WriteString(CCmString(70000, 'x').data(), 70000), CM_OK);
    EXPECT_EQ(mb.GetTopLevelLength(), 2u + 4464u);
    CCmString strBack;
    EXPECT_EQ(CCmByteStreamNetwork(mb).ReadString(strBack), CM_OK);
    EXPECT_EQ(strBack.size(), 4464u);
}
