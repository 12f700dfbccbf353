#include "talvo/base/byte_stream.h"

#include "tests/support/test.h"

TEST(ByteStream, NumbersAreBigEndianAndComeBack) {
    CCmMessageBlock mb(64);
    CCmByteStreamNetwork out(mb);
    out << BYTE{0x01} << WORD{0x0203} << DWORD{0x04050607} << int16_t{-2};
    out.WriteString("hey", 3);
    EXPECT_EQ(mb.FlattenChained(), CCmString("\1\2\3\4\5\6\7\xff\xfe\0\3hey", 14));

    CCmMessageBlock* pRest = mb.Disjoint(5);  // a number may lie across blocks
    mb.Append(pRest);
    CCmByteStreamNetwork in(mb);
    BYTE b = 0;
    WORD w = 0;
    DWORD dw = 0;
    int16_t s = 0;
    CCmString strText;
    in >> b >> w >> dw >> s;
    EXPECT_EQ(in.ReadString(strText), CM_OK);
    EXPECT_EQ(std::make_tuple(b, w, dw, s, strText), std::make_tuple(1, 0x0203, 0x04050607u, -2, "hey"));
    pRest->DestroyChained();
}

TEST(ByteStream, TheFirstFailureSticksAndEachSkippedCallIsTraced) {
    CCmTraceCapture trace;
    CCmMessageBlock mb(4, "\xff\xffxy", 0, 4);
    CCmByteStreamNetwork in(mb);
    BYTE b = 7;
    CCmString strText = "before";
    EXPECT_EQ(in.ReadString(strText), CM_ERROR_PARTIAL_DATA);  // says that it is longer than the block
    in >> b;
    EXPECT_EQ(std::make_tuple(b, strText), std::make_tuple(7, "before"));
    EXPECT_EQ(trace.Count("CCmByteStreamT::Read, can't read. m_ResultRead=10013 this=0x"), 2u);

    CCmMessageBlock small(3);
    CCmByteStreamNetwork(small) << DWORD{1} << BYTE{2};
    EXPECT_EQ(trace.Count("CCmByteStreamT::Write, can't write. m_ResultWrite=10013 this=0x"), 2u);
}

TEST(ByteStream, ALongStringIsWrittenModulo65536) {
    CCmMessageBlock mb(100000);
    EXPECT_EQ(CCmByteStreamNetwork(mb).WriteString(CCmString(70000, 'x').data(), 70000), CM_OK);
    EXPECT_EQ(mb.GetTopLevelLength(), 2u + 4464u);
    CCmString strBack;
    EXPECT_EQ(CCmByteStreamNetwork(mb).ReadString(strBack), CM_OK);
    EXPECT_EQ(strBack.size(), 4464u);
}
