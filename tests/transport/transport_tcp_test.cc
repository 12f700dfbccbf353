#include "talvo/transport/tcp/transport_tcp.h"

#include "talvo/transport/udp/transport_udp.h"
#include "tests/support/network_fixture.h"

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
    void Open() {
        Set(*m_pTransport, CM_OPT_TRANSPORT_SNDBUF, 65535);  // small, so that it is full soon
        ASSERT_EQ(CM_OK, m_pTransport->OpenWithSink(&m_Sink));
    }
    template <class Condition>
    void Until(Condition aCondition) const {
        RunUntil(m_Main.GetReactor(), aCondition);
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
        while (SendText(*m_pTransport, strData, &para) == CM_OK || para.m_dwHaveSent > 0)
            dwSent += para.m_dwHaveSent;
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

// Everything over sockets uses its reactor in the same way.
TEST(HomeReactorTest, NothingIsTouchedAfterTheEndOfTheThread) {
    CTestSink sink;
    CTestConnectSink connects;
    CCmRefPtrT<ICmTransport> pTcp, pUdp;
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    CCmRefPtrT<ICmConnector> pConnector;
    CTestFd peer;
    {
        const CMainThread main;
        auto [fdOurs, fdPeer] = MakeTcpPair();
        const CCmRefPtrT<CCmTransportTcp> pTransport(new CCmTransportTcp(&main.GetReactor()));
        pTransport->GetPeer().SetHandle(dup(fdOurs.Get()));
        pTcp = pTransport.Get();
        peer = std::move(fdPeer);
        EXPECT_EQ(CM_OK, pTcp->OpenWithSink(&sink));
        const CCmRefPtrT<CCmTransportUdp> pDatagrams(new CCmTransportUdp(&main.GetReactor()));
        pDatagrams->GetPeer().Open(CCmInetAddr(OwnLoopback(), 0));
        pUdp = pDatagrams.Get();
        EXPECT_EQ(CM_OK, pUdp->OpenWithSink(&sink));
        CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN);
        CCmConnectionManager::Instance()->CreateConnectionServer(1, pAcceptor.ParaOut());
        CCmConnectionManager::Instance()->CreateConnectionClient(1, pConnector.ParaOut());
        EXPECT_EQ(CM_OK, pAcceptor->StartListen(&connects, CCmInetAddr(OwnLoopback(), 0)));
        CCmConnectionManager::CleanupInstance();
    }
    CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_OWN);
    BOOL bPause = TRUE;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pTcp->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pUdp->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause));
    while (SendText(*pTcp, Pattern(65536)) == CM_OK) {
    }
    EXPECT_EQ(CM_OK, pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pAcceptor->StartListen(&connects, CCmInetAddr(OwnLoopback(), 0)));
    pConnector->AsycConnect(&connects, CCmInetAddr(OwnLoopback(), 9));
    pConnector->CancelConnect();
    EXPECT_EQ(0u, connects.Count());
    EXPECT_EQ(CM_OK, pTcp->Disconnect(CM_OK));
    pTcp.Reset();
    pUdp.Reset();
    pAcceptor.Reset();
    pConnector.Reset();
    EXPECT_EQ("", CCmLiveCounter::Dump());
}

TEST_F(TransportTcpTest, ReceivesExactlyOneBufferAndMore) {
    const std::string strData = Pattern(16384);
    m_fdPeer.Write(strData);
    Open();
    Until([&] { return m_Sink.m_strReceived.size() == 16384; });
    EXPECT_EQ(strData, m_Sink.m_strReceived);
    const int nReceives = m_Sink.m_nReceives;
    Settle();
    EXPECT_EQ(nReceives, m_Sink.Upcalls());
    m_fdPeer.Write("more");
    Until([&] { return m_Sink.m_strReceived == strData + "more"; });
}

TEST_F(TransportTcpTest, ReadsAsMuchAsItIsAskedTo) {
    EXPECT_EQ(16384u, Get<DWORD>(*m_pTransport, CM_OPT_TRANSPORT_READ_SIZE));
    for (DWORD dwWrong : {4095u, (1u << 20) + 1})
        EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pTransport->SetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwWrong));
    const std::string strData = Pattern(50000);
    Open();
    for (const DWORD dwRight : {4096u, 1u << 20, 20000u}) {
        Set(*m_pTransport, CM_OPT_TRANSPORT_READ_SIZE, dwRight);
        const int nBefore = m_Sink.m_nReceives;
        m_Sink.m_strReceived.clear();
        m_fdPeer.Write(strData);
        YieldUntil([&] { return Get<int>(*m_pTransport, CM_OPT_TRANSPORT_FIO_NREAD) == 50000; });
        Until([&] { return m_Sink.m_strReceived == strData; });
        EXPECT_EQ(static_cast<int>((50000 + dwRight - 1) / dwRight), m_Sink.m_nReceives - nBefore);
    }
}

TEST_F(TransportTcpTest, FullSocketGivesOneOnSend) {
    Open();
    const DWORD dwFilled = Fill();
    CCmTransportParameter para;
    const std::string strData = Pattern(5000);
    CCmMessageBlock block = ViewOf(strData);
    for (int i = 0; i < 3; ++i) {  // refused three times, told once
        para.m_dwHaveSent = 77;
        EXPECT_EQ(CM_ERROR_PARTIAL_DATA, m_pTransport->SendData(block, &para));
        EXPECT_EQ(0u, para.m_dwHaveSent);
        EXPECT_EQ(5000u, block.GetChainedLength());
    }
    Settle();
    EXPECT_EQ(0, m_Sink.m_nSends);
    PeerReads(dwFilled);
    Until([&] { return m_Sink.m_nSends > 0; });
    Settle();
    EXPECT_EQ(1, m_Sink.m_nSends);
    EXPECT_EQ(CM_OK, m_pTransport->SendData(block, &para));
    EXPECT_EQ(strData, PeerReads(5000));
    m_fdPeer.Write("x");  // its report says again that there is room
    Until([&] { return m_Sink.m_nReceives > 0; });
    EXPECT_EQ(1, m_Sink.m_nSends);
}

// With bytes of the peer unread: a socket closed now would answer the next ones with a reset.
TEST_F(TransportTcpTest, AnOrderlyEndDeliversWhatWasTaken) {
    Open();
    const DWORD dwFilled = Fill();
    m_fdPeer.Write("unread");
    EXPECT_EQ(CM_OK, m_pTransport->Disconnect(CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*m_pTransport, "x"));
    EXPECT_EQ(nullptr, m_pTransport->GetSink());
    EXPECT_EQ(dwFilled, PeerReads(dwFilled).size());
    char c = 0;
    Until([&] { return recv(m_fdPeer.Get(), &c, 1, 0) == 0; });
    EXPECT_EQ(0, m_Sink.Upcalls());
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
    m_fdPeer.Write("for the second");
    Until([&] { return second.m_strReceived == "for the second"; });
    Fill();
    EXPECT_EQ(CM_OK, m_pTransport->Disconnect(CM_OK));
    EXPECT_EQ(nullptr, m_pTransport->GetSink());
    send(m_fdPeer.Get(), "late", 4, MSG_NOSIGNAL);
    Settle();
    EXPECT_EQ(0, m_Sink.Upcalls());
    EXPECT_EQ(1, second.Upcalls());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*m_pTransport, "x"));
    EXPECT_EQ(CM_OK, m_pTransport->Disconnect(CM_OK));
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
    m_Sink.m_Send = release;
    Open();
    PeerReads(Fill());
    Until([&] { return m_Sink.m_nSends > 0; });
    SetUp();
    m_Sink.m_Disconnect = release;
    Open();
    m_fdPeer.Close();
    Until([&] { return m_Sink.m_nDisconnects > 0; });
    Settle();
    EXPECT_EQ(std::string::npos, CCmLiveCounter::Dump().find("CCmTransportTcp"));
}

TEST_F(TransportTcpTest, LastReleaseUnregistersAtOnce) {
    Open();
    const HANDLE fd = m_pTransport->GetHandle();
    m_pTransport.Reset();
    CTestHandler next(fd);
    auto [fdA, fdB] = MakeTcpPair();
    const CTestFd again(fdA.Get() == fd ? -1 : dup2(fdA.Get(), fd));
    EXPECT_EQ(CM_OK, m_Main.GetReactor().RegisterHandler(&next, ACmEventHandler::READ_MASK)) << "the number was still taken";
    next.m_Input = [] { return -2; };
    fdB.Write("x");
    Until([&] { return next.m_nInputs > 0; });
    EXPECT_EQ(0, m_Sink.Upcalls());
    m_Main.GetReactor().RemoveHandler(&next, ACmEventHandler::ALL_EVENTS_MASK);
}

TEST_F(TransportTcpTest, PausedReadingLosesNothing) {
    const auto pause = [&](BOOL aPause) { Set(*m_pTransport, CM_OPT_TRANSPORT_PAUSE_READING, aPause); };
    const std::string strData = Pattern(60000);
    // Pauses in the middle of a burst, behind the first whole buffer.
    m_Sink.m_Receive = [&] { pause(m_Sink.m_nReceives == 1); };
    pause(TRUE);
    Open();
    m_fdPeer.Write(strData);
    Settle();
    EXPECT_EQ(0, m_Sink.Upcalls());
    pause(FALSE);
    Until([&] { return m_Sink.m_nReceives > 0; });
    Settle();
    m_fdPeer.Close();  // with unread bytes at our side
    Settle();
    EXPECT_EQ(1, m_Sink.Upcalls());
    pause(FALSE);
    Until([&] { return m_Sink.m_nDisconnects > 0; });
    Settle();
    EXPECT_EQ(strData, m_Sink.m_strReceived);
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, m_Sink.m_Reason);
}

TEST_F(TransportTcpTest, DetachedSocketStaysOpenAndSilent) {
    Open();
    const CTestFd owned(m_pTransport->GetHandle());
    Set(*m_pTransport, CM_OPT_TRANSPORT_FD, CM_INVALID_HANDLE);
    m_fdPeer.Write("x");
    Settle();
    m_pTransport.Reset();
    Settle();
    EXPECT_EQ(0, m_Sink.Upcalls());
    owned.Write("y");
    EXPECT_EQ("y", PeerReads(1));
}
