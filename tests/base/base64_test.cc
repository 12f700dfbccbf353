#include "talvo/base/base64.h"

#include "tests/support/test.h"

TEST(Base64, EveryByteSurvives) {
    CCmString strText;
    EXPECT_EQ(cm_base64_encode("\0\xff\xfe\x7f", 4, strText), CM_OK);
    EXPECT_EQ(strText, "AP/+fw==");
    CCmString strData;
    for (int n = 0; n < 1000; ++n) {
        CCmString strBack;
        ASSERT_EQ(cm_base64_encode(strData.data(), strData.size(), strText), CM_OK);
        ASSERT_EQ(cm_base64_decode(strText, strBack), CM_OK);
        ASSERT_EQ(strBack, strData);
        strData += static_cast<char>(n * 7);
    }
}

TEST(Base64, BadInputIsRefusedAndChangesNothing) {
    CCmString strOut = "before";
    for (const char* pText :
         {"Zg=", "Z", "Z===", "====", "Zg==Zg==", "Z=g=", "Zh==", "Zm9=", "Zm 9", "Zm9-", "Zm9\xff", "Zg==\n"})
        EXPECT_EQ(cm_base64_decode(pText, strOut), CM_ERROR_INVALID_ARG) << pText;
    EXPECT_EQ(cm_base64_encode("", SIZE_MAX, strOut), CM_ERROR_INVALID_ARG);
    EXPECT_EQ(cm_base64_encode(nullptr, 1, strOut), CM_ERROR_INVALID_ARG);
    EXPECT_EQ(strOut, "before");
}
