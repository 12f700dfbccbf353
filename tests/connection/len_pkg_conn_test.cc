#include "talvo/connection/protocol/len_pkg_conn.h"

#include "tests/connection/conn_end.h"

namespace {

std::string Framed(const std::string& aText) { return Bytes(static_cast<DWORD>(aText.size())) + aText; }

class LenPkgConnTest : public ConnTest {
protected:
    LenPkgConnTest() { m_End.Connect(); }

    CConnEnd<CLenPkgConn> m_End;
    CFakeLower& m_Lower = *m_End.m_pLower;
};

}  // namespace

// Chains of many shapes, corked and not, into a transport that takes what it likes.
TEST_F(LenPkgConnTest, EverythingThatWasTakenIsSentInOrder) {
    std::minstd_rand random(99);
    const auto below = [&](DWORD aLimit) { return static_cast<DWORD>(random() % aLimit); };
    std::string strExpected, strSent;
    m_Lower.m_dwUnacknowledged = 7;
    for (int i = 0; i < 3000; ++i) {
        if (below(4) == 0)
            m_End.Set(CM_OPT_TRANSPORT_CORK, below(2));
        if (below(4) == 0)
            m_Lower.MakeRoom(below(3) ? below(20000) : CFakeLower::EVERYTHING);
        const std::string strText = Pattern(1 + (below(3) ? below(100) : below(6000)), i);
        const DWORD dwPiece = below(3) ? 6000 : 1 + static_cast<DWORD>(strText.size()) / (1 + below(100));
        CCmMessageBlock head(DWORD{0});
        for (size_t k = 0; k < strText.size(); k += dwPiece)
            head.Append(CCmMessageBlock(ViewOf(strText.substr(k, dwPiece))).DuplicateTopLevel());
        CCmTransportParameter para;
        const CmResult rv = m_End.m_pConn->SendData(head, &para);
        strExpected += rv == CM_OK ? Framed(strText) : "";
        ASSERT_EQ(rv == CM_OK ? 0 : strText.size(), head.GetChainedLength());
        ASSERT_EQ(rv == CM_OK ? strText.size() : 0, para.m_dwHaveSent);
        head.GetNext()->DestroyChained();
        strSent += m_Lower.TakeSent();
        ASSERT_EQ(strExpected.size() - strSent.size() + 7, m_End.Get(CM_OPT_TRANSPORT_UNACKNOWLEDGED));
    }
    m_Lower.m_dwUnacknowledged = 0;
    m_End.Set(CM_OPT_TRANSPORT_CORK, FALSE);
    m_Lower.MakeRoom();
    EXPECT_TRUE(strExpected == strSent + m_Lower.TakeSent());
    EXPECT_LE(*std::max_element(m_Lower.m_Pieces.begin(), m_Lower.m_Pieces.end()), 64u);
    // Many messages, one call.
    m_Lower.m_Pieces.clear();
    m_End.Set(CM_OPT_TRANSPORT_CORK, TRUE);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(CM_OK, m_End.Send(std::string(100, 'a')));
    EXPECT_EQ(0u, m_Lower.m_Pieces.size());
    m_End.Set(CM_OPT_TRANSPORT_CORK, FALSE);
    EXPECT_EQ(1u, m_Lower.m_Pieces.size());
}

TEST(FrameQueueTest, DatagramsStayApart) {
    CFakeLower lower(CM_TRANSPORT_TYPE_UDP);
    talvo::CFrameQueue queue;
    queue.SetDatagrams(TRUE);
    const std::string strLong(2000, 'L');
    const auto send = [&](const char* aHeader, const std::string& aText) {
        CCmMessageBlock payload = ViewOf(aText);
        const CmResult rv = queue.Send(lower, aHeader, 1, payload);
        EXPECT_EQ(0u, payload.GetChainedLength());
        return rv;
    };
    lower.m_dwRoom = 0;
    for (const char* szHeader : {"1", "2", "3"})
        EXPECT_EQ(CM_ERROR_PARTIAL_DATA, send(szHeader, *szHeader == '2' ? strLong : "short"));
    lower.m_dwRoom = 100;
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, queue.Flush(lower));
    lower.m_dwRoom = CFakeLower::EVERYTHING;
    EXPECT_EQ(CM_OK, send("4", ""));
    EXPECT_EQ((std::vector<std::string>{"1short", "2" + strLong, "3short", "4"}), lower.m_Sends);
    lower.m_Inside = [](const std::string&) { return CM_ERROR_INVALID_ARG; };
    EXPECT_EQ(CM_ERROR_INVALID_ARG, send("5", "never"));
    EXPECT_EQ(CM_OK, queue.Add("6", 1, ViewOf(strLong)));
    EXPECT_EQ(CM_OK, queue.Flush(lower));
    EXPECT_TRUE(queue.IsEmpty());
}

TEST_F(LenPkgConnTest, ImpossibleLengthsEndIt) {
    CCmTraceCapture trace;
    EXPECT_EQ(CM_OK, m_End.Set(CS_OPT_MAX_MESSAGE_LEN, 5));
    EXPECT_EQ(5u, m_End.Get(CM_OPT_TRANSPORT_MAX_MESSAGE));
    EXPECT_EQ(CM_OK, m_End.Send("12345"));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_End.Send("123456"));
    EXPECT_TRUE(trace.Contains("option 136"));
    for (const auto& [dwLength, szEnd] :
         {std::pair{0u, "disconnect 0"}, {6u, "disconnect 10009"}, {0xFFFFFFFF, "disconnect 10009"}}) {
        CConnEnd<CLenPkgConn> end;
        end.Connect();
        end.Set(CS_OPT_MAX_MESSAGE_LEN, dwLength > 6 ? 0xFFFFFFFF : 5);
        end.Receive(Framed("limit") + Bytes(dwLength) + Framed("no"));
        EXPECT_EQ((Lines{"receive limit", szEnd}), end.m_Lines);
        EXPECT_EQ(std::vector<CmResult>{CM_ERROR_NETWORK_CONNECT_TIMEOUT}, end.m_pLower->m_Disconnects);
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, end.Send("x"));
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, end.m_pConn->OpenWithSink(&end));
        EXPECT_NE(CCmTimeValue(), end.m_pConn->GetDisconnTimestamp());
    }
    EXPECT_EQ(1u, trace.Count("CLenPkgConn::OnReceive PDU length is zero!!! and the connection will be abort"));
    EXPECT_EQ(3u, trace.Count("CLenPkgConn::OnDisconnect reason ="));
    // A shorter limit counts from the next message on.
    m_End.m_Inside = [&](const std::string&) { m_End.Set(CS_OPT_MAX_MESSAGE_LEN, 2); };
    m_End.Receive(Framed("one") + Framed("two"));
    EXPECT_EQ((Lines{"receive one", "disconnect 10009"}), m_End.m_Lines);
}
