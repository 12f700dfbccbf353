#include "talvo/connection/protocol/cs_pdu.h"

#include "tests/support/blocks.h"
#include "tests/support/test.h"

namespace {

// In blocks of 0 to 3 bytes. The rest is freed, and returned, after the decoding.
std::string Decode(CCsPduBase& aPdu, const std::string& aBytes) {
    static std::mt19937 s_Random(7);
    const CCmChainPtr pChain = MakeChain(aBytes, [] { return s_Random() % 4; });
    aPdu.Decode(*pChain);
    return pChain->FlattenChained();
}

std::string Encode(const CCsPduBase& aPdu) {
    CCmMessageBlock mb(CCsPduBase::MAX_FIX_LENGTH);
    aPdu.Encode(mb);
    return mb.FlattenChained();
}

TEST(CsPdu, BytesOnTheWire) {
    CCsPduConnReqResp req(0x01020304, 0x0A0B, CS_PDU_TYPE_CONN_REQ, 15), resp(0xFFFEFDFC, 1, CS_PDU_TYPE_CONN_RESP, 0), anyConn;
    CCsPduDisconn disconn(20004), anyDisconn;
    CCsPduKeepAlive keepAlive(0x80000001), anyKeepAlive;
    CCsPduData withACK(TRUE, 1, 3, CS_PDU_TYPE_DATA_NORMAL, MakeBlock("abc")), anyWithACK(TRUE);
    CCsPduData start(TRUE, 1, 3, CS_PDU_TYPE_DATA_START, MakeBlock("abc"));
    CCsPduData data(FALSE, 1, 3, CS_PDU_TYPE_DATA_NORMAL, MakeBlock("abc")), empty(FALSE), anyData(FALSE);
    using namespace std::string_literals;
    const struct {
        CCsPduBase& m_Pdu;
        CCsPduBase& m_Decoder;
        std::string m_strBytes;
    } rows[] = {{req, anyConn, "\1\1\2\3\4\xA\xB\xF"s},
                {resp, anyConn, "\2\xFF\xFE\xFD\xFC\0\1\0"s},
                {disconn, anyDisconn, "\3\x4E\x24"s},
                {keepAlive, anyKeepAlive, "\4\x80\0\0\1"s},
                {withACK, anyWithACK, "\6\0\0\0\1\0\0\0\3abc"s},
                {start, anyWithACK, "\5\0\0\0\1\0\0\0\3abc"s},
                {data, anyData, "\6\0\0\0\3abc"s},
                {empty, anyData, "\6\0\0\0\0"s}};
    for (const auto& row : rows) {
        EXPECT_EQ(Encode(row.m_Pdu), row.m_strBytes);
        for (const std::string strNext : {"", "\4next", "\3"}) {
            EXPECT_EQ(Decode(row.m_Decoder, row.m_strBytes + strNext), strNext);
            EXPECT_EQ(Encode(row.m_Decoder), row.m_strBytes);
        }
        for (DWORD n = 0; n < row.m_Pdu.GetFixLength(); ++n) {
            CCmTraceCapture trace;
            EXPECT_EQ(Decode(row.m_Decoder, row.m_strBytes.substr(0, n)), "");
            EXPECT_TRUE(trace.Contains("CCmByteStreamT::Read, can't read. m_ResultRead=")) << row.m_strBytes << n;
        }
    }
    EXPECT_EQ(Decode(data, "\6\xFF\xFF\xFF\xFF"s + "ab"), "");
    EXPECT_EQ(data.GetDataLen(), 0xFFFFFFFF);
    EXPECT_EQ(data.GetData()->FlattenChained(), "ab");
}

}  // namespace
