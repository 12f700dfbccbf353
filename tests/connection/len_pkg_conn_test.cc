#include "talvo/connection/protocol/len_pkg_conn.h"

#include "tests/support/fake_lower.h"
#include "tests/support/network_fixture.h"

namespace {

std::string Framed(const std::string& aText) {
    const size_t n = aText.size();
    return std::string{char(n >> 24), char(n >> 16), char(n >> 8), char(n)} + aText;
}

// A connected one over a fake; the sink puts a bar behind each message.
class LenPkgConnTest : public testing::Test {
protected:
    LenPkgConnTest() { Connect(); }
    void Connect() {
        m_pLower = new CFakeLower;
        m_pConn = new CLenPkgConn;
        m_pConn->OnConnectIndication(CM_OK, m_pLower.Get(), nullptr);
        m_Sink = std::make_unique<CTestSink>();
        m_Sink->m_Receive = [this] { m_Sink->m_strReceived += '|'; };
        EXPECT_EQ(CM_OK, m_pConn->OpenWithSink(m_Sink.get()));
    }
    DWORD Get(DWORD aCommand) const { return ::Get<DWORD>(*m_pConn, aCommand); }
    void Set(DWORD aCommand, DWORD aValue) const { ::Set(*m_pConn, aCommand, aValue); }
    void Cork(BOOL aCork) const { Set(CM_OPT_TRANSPORT_CORK, static_cast<DWORD>(aCork)); }

    CMainThread m_Main;
    std::unique_ptr<CTestSink> m_Sink;
    CCmRefPtrT<CFakeLower> m_pLower;
    CCmRefPtrT<CLenPkgConn> m_pConn;
};

}  // namespace

TEST_F(LenPkgConnTest, RefusedMessagesGoFirst) {
    CCmTransportParameter para;
    EXPECT_EQ(CM_OK, SendText(*m_pConn, "0123456789", &para));
    EXPECT_EQ(10u, para.m_dwHaveSent);
    EXPECT_EQ(CM_OK, SendText(*m_pConn, ""));
    EXPECT_EQ(std::vector<std::string>{std::string("\0\0\0\x0A", 4) + "0123456789"}, m_pLower->m_Sends);
    m_pLower->TakeSent();
    m_pLower->m_dwRoom = 2;
    m_pLower->m_dwUnacknowledged = 100;
    EXPECT_EQ(CM_OK, SendText(*m_pConn, "abcdef"));
    EXPECT_EQ(108u, Get(CM_OPT_TRANSPORT_UNACKNOWLEDGED));
    const std::string strText = "next";
    CCmMessageBlock next = ViewOf(strText);
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, m_pConn->SendData(next));
    EXPECT_EQ(4u, next.GetChainedLength());
    m_pLower->MakeRoom(3);
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, m_pConn->SendData(next));
    m_Sink->m_Send = [&] { EXPECT_EQ(CM_OK, m_pConn->SendData(next)); };
    m_pLower->MakeRoom();
    EXPECT_EQ(2, m_Sink->m_nSends);
    EXPECT_EQ(Framed("abcdef") + Framed("next"), m_pLower->TakeSent());
}

// Chains of many shapes, corked and not, into a transport that takes what it likes.
TEST_F(LenPkgConnTest, EverythingThatWasTakenIsSentInOrder) {
    std::minstd_rand random(99);
    const auto below = [&](DWORD aLimit) { return static_cast<DWORD>(random() % aLimit); };
    std::string strExpected, strSent;
    for (int i = 0; i < 3000; ++i) {
        if (below(4) == 0)
            Cork(below(2));
        if (below(4) == 0)
            m_pLower->MakeRoom(below(3) ? below(20000) : CFakeLower::EVERYTHING);
        const std::string strText = Pattern(1 + (below(3) ? below(100) : below(6000)), i);
        const DWORD dwPiece = below(3) ? 6000 : 1 + static_cast<DWORD>(strText.size()) / (1 + below(100));
        CCmMessageBlock head(DWORD{0});
        for (size_t k = 0; k < strText.size(); k += dwPiece)
            head.Append(CCmMessageBlock(ViewOf(strText.substr(k, dwPiece))).DuplicateTopLevel());
        const CmResult rv = m_pConn->SendData(head);
        strExpected += rv == CM_OK ? Framed(strText) : "";
        ASSERT_EQ(rv == CM_OK ? 0 : strText.size(), head.GetChainedLength());
        head.GetNext()->DestroyChained();
        strSent += m_pLower->TakeSent();
        ASSERT_EQ(strExpected.size() - strSent.size(), Get(CM_OPT_TRANSPORT_UNACKNOWLEDGED));
    }
    Cork(FALSE);
    m_pLower->MakeRoom();
    EXPECT_TRUE(strExpected == strSent + m_pLower->TakeSent());
    EXPECT_LE(*std::max_element(m_pLower->m_Pieces.begin(), m_pLower->m_Pieces.end()), 64u);
    // Many messages, one call.
    m_pLower->m_Pieces.clear();
    Cork(TRUE);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(CM_OK, SendText(*m_pConn, std::string(100, 'a')));
    EXPECT_EQ(0u, m_pLower->m_Pieces.size());
    Cork(FALSE);
    EXPECT_EQ(1u, m_pLower->m_Pieces.size());
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
    Set(CS_OPT_MAX_MESSAGE_LEN, 5);
    EXPECT_EQ(5u, Get(CM_OPT_TRANSPORT_MAX_MESSAGE));
    CCmTraceCapture trace;
    EXPECT_EQ(CM_OK, SendText(*m_pConn, "12345"));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, SendText(*m_pConn, "123456"));
    EXPECT_TRUE(trace.Contains("option 136"));
    for (const auto& [strLength, reason] :
         {std::pair{std::string(4, '\0'), CM_OK}, std::pair{std::string("\0\0\0\6", 4), CM_ERROR_NOT_AVAILABLE},
          std::pair{std::string(4, '\xFF'), CM_ERROR_NOT_AVAILABLE}}) {
        Connect();
        Set(CS_OPT_MAX_MESSAGE_LEN, strLength[0] ? 0xFFFFFFFF : 5);
        m_pLower->Receive(Framed("limit") + strLength + Framed("no"));
        EXPECT_EQ("limit|", m_Sink->m_strReceived);
        EXPECT_EQ(1, m_Sink->m_nDisconnects);
        EXPECT_EQ(reason, m_Sink->m_Reason);
        EXPECT_EQ(std::vector<CmResult>{CM_ERROR_NETWORK_CONNECT_TIMEOUT}, m_pLower->m_Disconnects);
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, SendText(*m_pConn, "x"));
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, m_pConn->OpenWithSink(m_Sink.get()));
        EXPECT_NE(CCmTimeValue(), m_pConn->GetDisconnTimestamp());
    }
    EXPECT_EQ(1u, trace.Count("CLenPkgConn::OnReceive PDU length is zero!!! and the connection will be abort"));
    EXPECT_EQ(3u, trace.Count("CLenPkgConn::OnDisconnect reason ="));
}

TEST_F(LenPkgConnTest, AShorterLimitCountsFromTheNextMessageOn) {
    m_Sink->m_Receive = [&] { Set(CS_OPT_MAX_MESSAGE_LEN, 2); };
    m_pLower->Receive(Framed("one") + Framed("two"));
    EXPECT_EQ("one", m_Sink->m_strReceived);
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, m_Sink->m_Reason);
}
