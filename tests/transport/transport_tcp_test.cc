#include "talvo/transport/transport_tcp.h"

#include <netinet/ip.h>
#include <netinet/tcp.h>

#include "tests/support/network_fixture.h"
#include "tests/support/trace_capture.h"

namespace {

// A transport on the main thread's reactor, with a plain socket for a peer.
class TransportTcpTest : public testing::Test {
protected:
    void SetUp() override {
        auto [fdOurs, fdPeer] = MakeTcpPair();
        m_pTransport = new CCmTransportTcp(&m_Main.GetReactor());
        m_pTransport->GetPeer().SetHandle(dup(fdOurs.Get()));
        m_fdPeer = std::move(fdPeer);
    }
    void Open() { ASSERT_EQ(CM_OK, m_pTransport->OpenWithSink(&m_Sink)); }
    template <class Condition>
    BOOL Until(Condition aCondition) {
        return RunUntil(m_Main.GetReactor(), aCondition);
    }
    // Enough turns for whatever the loop still has to say.
    void Settle() {
        for (int i = 0; i < 5; ++i)
            m_Main.RunOnce();
    }
    // Sends until the socket has no room.
    DWORD Fill() {
        CCmTransportParameter para;
        const std::string strData(60000, 'f');
        DWORD dwSent = 0;
        CmResult rv = CM_OK;
        while (rv == CM_OK || para.m_dwHaveSent > 0) {
            rv = SendText(*m_pTransport, strData, &para);
            dwSent += para.m_dwHaveSent;
        }
        EXPECT_EQ(CM_ERROR_PARTIAL_DATA, rv);
        return dwSent;
    }
    // Reads at the peer so many bytes, letting the loop run.
    std::string PeerReads(size_t aCount) {
        std::string strData;
        Until([&] {
            strData += m_fdPeer.Read();
            return strData.size() >= aCount;
        });
        return strData;
    }

    CMainThread m_Main;
    CTestSink m_Sink;
    CCmRefPtrT<CCmTransportTcp> m_pTransport;
    CTestFd m_fdPeer;
};

}  // namespace

TEST_F(TransportTcpTest, ReceivesExactlyOneBufferAndMore) {
    class CSizeSink : public CTestSink {
    public:
        void OnReceive(CCmMessageBlock& aData, ICmTransport* aId, CCmTransportParameter* aPara) override {
            EXPECT_EQ(0u, aData.GetTopLevelSpace()) << "the block covers more than what was received";
            CTestSink::OnReceive(aData, aId, aPara);
        }
    } sink;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pTransport->OpenWithSink(nullptr));
    const std::string strData = Pattern(16384);
    m_fdPeer.Write(strData);
    ASSERT_EQ(CM_OK, m_pTransport->OpenWithSink(&sink));
    Until([&] { return sink.m_strReceived.size() == 16384; });
    EXPECT_EQ(strData, sink.m_strReceived);
    const int nReceives = sink.m_nReceives;
    Settle();
    EXPECT_EQ(nReceives, sink.m_nReceives);
    EXPECT_EQ(0, sink.m_nDisconnects);
    m_fdPeer.Write("more");
    Until([&] { return sink.m_strReceived.size() == 16388; });
    EXPECT_EQ(16388u, m_pTransport->GetCounters().m_ullBytesReceived);
}

TEST_F(TransportTcpTest, FullSocketGivesOneOnSend) {
    Open();
    const DWORD dwFilled = Fill();
    const uint64_t ullSends = m_pTransport->GetCounters().m_ullSends;
    CCmTransportParameter para;
    para.m_dwHaveSent = 77;
    const std::string strData = Pattern(5000);
    const auto pData = MakeData(strData);
    CCmMessageBlock block(pData.Get());
    block.AdvanceTopLevelWritePtr(5000);
    for (int i = 0; i < 3; ++i) {  // refused three times, told once
        EXPECT_EQ(CM_ERROR_PARTIAL_DATA, m_pTransport->SendData(block, &para));
        EXPECT_EQ(0u, para.m_dwHaveSent);
        EXPECT_EQ(5000u, block.GetChainedLength());
    }
    EXPECT_EQ(ullSends + 3, m_pTransport->GetCounters().m_ullSends);
    Settle();
    EXPECT_EQ(0, m_Sink.m_nSends);
    PeerReads(dwFilled);
    Until([&] { return m_Sink.m_nSends > 0; });
    Settle();
    EXPECT_EQ(1, m_Sink.m_nSends);
    EXPECT_EQ(CM_OK, m_pTransport->SendData(block, &para));
    EXPECT_EQ(5000u, para.m_dwHaveSent);
    EXPECT_EQ(strData, PeerReads(5000));
    EXPECT_EQ(CM_OK, SendText(*m_pTransport, "", &para));
    EXPECT_EQ(0u, para.m_dwHaveSent);
}

TEST_F(TransportTcpTest, ChainBeyondSixtyFourPiecesGetsItsOnSend) {
    Open();
    Settle();  // the first write readiness is past: no other comes by itself
    const std::string strData = Pattern(150);
    std::vector<std::unique_ptr<CCmMessageBlock>> blocks;
    for (const char& c : strData) {
        blocks.push_back(std::make_unique<CCmMessageBlock>(1, &c, CCmMessageBlock::DONT_DELETE, 1));
        if (blocks.size() > 1)
            blocks.front()->Append(blocks.back().get());
    }
    CCmTransportParameter para;
    std::vector<DWORD> sent;
    m_Sink.m_Send = [&] {
        m_pTransport->SendData(*blocks.front(), &para);
        sent.push_back(para.m_dwHaveSent);
    };
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, m_pTransport->SendData(*blocks.front(), &para));
    EXPECT_EQ(64u, para.m_dwHaveSent);
    EXPECT_EQ(strData, PeerReads(150));
    Settle();
    EXPECT_EQ((std::vector<DWORD>{64, 22}), sent);
}

TEST_F(TransportTcpTest, OpeningAgainChangesTheSinkAndDisconnectEndsUpcalls) {
    Open();
    CTestSink second;
    EXPECT_EQ(CM_OK, m_pTransport->OpenWithSink(&second));
    EXPECT_EQ(&second, m_pTransport->GetSink());
    m_fdPeer.Write("for the second");
    Until([&] { return second.m_strReceived == "for the second"; });
    Fill();
    EXPECT_EQ(CM_OK, m_pTransport->Disconnect(CM_OK));
    EXPECT_EQ(nullptr, m_pTransport->GetSink());
    EXPECT_EQ(CM_INVALID_HANDLE, m_pTransport->GetHandle());
    send(m_fdPeer.Get(), "late", 4, MSG_NOSIGNAL);
    Settle();
    EXPECT_EQ(0, m_Sink.Upcalls());
    EXPECT_EQ(1, second.Upcalls());
    CCmTransportParameter para;
    CCmTraceCapture trace;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*m_pTransport, "x", &para));
    EXPECT_EQ(1u, trace.Count("CCmTransportTcp::SendData, socket is invalid."));
    EXPECT_EQ(CM_OK, m_pTransport->Disconnect(CM_OK));
}

TEST_F(TransportTcpTest, PeerCloseIsReportedOnceBehindItsData) {
    const std::string strData = Pattern(50000);
    m_fdPeer.Write(strData);
    m_fdPeer.Close();
    m_Sink.m_Disconnect = [&] { EXPECT_EQ(strData, m_Sink.m_strReceived); };
    Open();
    Until([&] { return m_Sink.m_nDisconnects > 0; });
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, m_Sink.m_Reason);
    EXPECT_EQ(nullptr, m_pTransport->GetSink());
    EXPECT_EQ(CM_INVALID_HANDLE, m_pTransport->GetHandle());
    Settle();
    EXPECT_EQ(1, m_Sink.m_nDisconnects);
}

TEST_F(TransportTcpTest, ReleaseInsideEachUpcall) {
    const auto release = [this] { m_pTransport.Reset(); };
    const HANDLE fd = m_pTransport->GetHandle();
    m_Sink.m_Receive = release;
    Open();
    m_fdPeer.Write(Pattern(40000));  // more than one buffer: the loop would go on reading
    Until([&] { return m_Sink.m_nReceives > 0; });
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "the socket is open after the last release";
    Settle();
    EXPECT_EQ(1, m_Sink.Upcalls());

    SetUp();
    m_Sink.m_Receive = nullptr;
    m_Sink.m_Send = release;
    Open();
    const DWORD dwFilled = Fill();
    PeerReads(dwFilled);
    Until([&] { return m_Sink.m_nSends > 0; });
    EXPECT_FALSE(m_pTransport);

    SetUp();
    m_Sink.m_Disconnect = release;
    Open();
    m_fdPeer.Close();
    Until([&] { return m_Sink.m_nDisconnects > 0; });
    EXPECT_FALSE(m_pTransport);
    Settle();
    EXPECT_EQ(std::string::npos, CCmLiveCounter::Dump().find("CCmTransportTcp"));
}

TEST_F(TransportTcpTest, LastReleaseUnregistersAtOnce) {
    Open();
    const HANDLE fd = m_pTransport->GetHandle();
    m_pTransport.Reset();
    CTestHandler next(fd);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    auto [fdA, fdB] = MakeTcpPair();
    ASSERT_EQ(fd, dup2(fdA.Get(), fd));
    EXPECT_EQ(CM_OK, m_Main.GetReactor().RegisterHandler(&next, ACmEventHandler::READ_MASK)) << "the number was still taken";
    next.m_Input = [] { return -2; };
    fdB.Write("x");
    Until([&] { return next.m_nInputs > 0; });
    EXPECT_EQ(0, m_Sink.Upcalls());
    m_Main.GetReactor().RemoveHandler(&next, ACmEventHandler::ALL_EVENTS_MASK);
    close(fd);
}

TEST_F(TransportTcpTest, PausedReadingLosesNothing) {
    Open();
    BOOL bPause = TRUE;
    const std::string strData = Pattern(60000);
    // Pauses in the middle of a burst, behind the first whole buffer.
    m_Sink.m_Receive = [&] { m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause); };
    m_fdPeer.Write(strData);
    Until([&] { return m_Sink.m_nReceives > 0; });
    Settle();
    EXPECT_EQ(1, m_Sink.m_nReceives);
    m_fdPeer.Close();  // with unread bytes at our side
    Settle();
    EXPECT_EQ(1, m_Sink.Upcalls());
    BOOL bPaused = FALSE;
    EXPECT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPaused));
    EXPECT_TRUE(bPaused);
    m_Sink.m_Receive = nullptr;
    BOOL bGoOn = FALSE;
    EXPECT_EQ(CM_OK, m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bGoOn));
    Until([&] { return m_Sink.m_nDisconnects > 0; });
    EXPECT_EQ(strData, m_Sink.m_strReceived);
}

TEST_F(TransportTcpTest, Options) {
    Open();
    CCmTraceCapture trace;
    DWORD dwValue = 99;
    BOOL bAlive = FALSE;
    CCmInetAddr local, peer, expected;
    EXPECT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_FIO_NREAD, &dwValue));
    EXPECT_EQ(0u, dwValue);
    EXPECT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_SOCK_ALIVE, &bAlive));
    EXPECT_TRUE(bAlive);
    m_fdPeer.Write("12345");
    YieldUntil([&] { return m_pTransport->GetOption(CM_OPT_TRANSPORT_FIO_NREAD, &dwValue) == CM_OK && dwValue == 5; });
    EXPECT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_SOCK_ALIVE, &bAlive));
    EXPECT_TRUE(bAlive);
    EXPECT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_TRAN_TYPE, &dwValue));
    EXPECT_EQ(1u, dwValue);
    EXPECT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_LOCAL_ADDR, &local));
    EXPECT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &peer));
    m_pTransport->GetPeer().GetRemoteAddr(expected);
    EXPECT_TRUE(peer == expected);
    EXPECT_EQ("127.0.0.1", local.GetIpDisplayName());

    const auto systemSays = [this](int aLevel, int aName) {
        int nValue = -1;
        int nLength = sizeof nValue;
        m_pTransport->GetPeer().GetOption(aLevel, aName, &nValue, &nLength);
        return nValue;
    };
    EXPECT_NE(0, systemSays(IPPROTO_TCP, TCP_NODELAY));
    for (const DWORD dwTime : {60u, 0u}) {
        DWORD dwKeepAlive = dwTime;
        EXPECT_EQ(CM_OK, m_pTransport->SetOption(CM_OPT_TRANSPORT_KEEPALIVE, &dwKeepAlive));
        EXPECT_EQ(dwTime > 0, systemSays(SOL_SOCKET, SO_KEEPALIVE));
    }
    DWORD dwTos = IPTOS_LOWDELAY;
    EXPECT_EQ(CM_OK, m_pTransport->SetOption(CM_OPT_TRANSPORT_TOS, &dwTos));
    EXPECT_EQ(IPTOS_LOWDELAY, systemSays(IPPROTO_IP, IP_TOS));
    for (const DWORD dwOption : {CM_OPT_TRANSPORT_SNDBUF, CM_OPT_TRANSPORT_RCVBUF}) {
        int nSize = 20000;
        EXPECT_EQ(CM_OK, m_pTransport->SetOption(dwOption, &nSize));
        EXPECT_EQ(CM_OK, m_pTransport->GetOption(dwOption, &nSize));
        EXPECT_EQ(40000, nSize);
    }
    for (const DWORD dwUnknown : {0u, 102u, 111u, 112u, 114u, 142u}) {
        EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pTransport->GetOption(dwUnknown, &dwValue));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pTransport->SetOption(dwUnknown, &dwValue));
    }
    EXPECT_EQ(1u, trace.Count("CCmTransportTcp::GetOption, unknow aCommand=102 aArg="));
    EXPECT_EQ(1u, trace.Count("CCmTransportTcp::SetOption, unknow aCommand=102 aArg="));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pTransport->SetOption(CM_OPT_TRANSPORT_SNDBUF, nullptr));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pTransport->GetOption(CM_OPT_TRANSPORT_SNDBUF, nullptr));
}

TEST_F(TransportTcpTest, DetachedSocketStaysOpenAndSilent) {
    Open();
    HANDLE fd = CM_INVALID_HANDLE;
    ASSERT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_FD, &fd));
    EXPECT_EQ(m_pTransport->GetHandle(), fd);
    HANDLE fdSame = fd;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pTransport->SetOption(CM_OPT_TRANSPORT_FD, &fdSame));
    HANDLE fdNone = CM_INVALID_HANDLE;
    EXPECT_EQ(CM_OK, m_pTransport->SetOption(CM_OPT_TRANSPORT_FD, &fdNone));
    BOOL bAlive = TRUE;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, m_pTransport->GetOption(CM_OPT_TRANSPORT_SOCK_ALIVE, &bAlive));
    EXPECT_FALSE(bAlive);
    m_fdPeer.Write("x");
    Settle();
    m_pTransport.Reset();
    Settle();
    EXPECT_EQ(0, m_Sink.Upcalls());
    const CTestFd owned(fd);
    owned.Write("y");
    EXPECT_EQ("y", PeerReads(1));
}
