#include "talvo/transport/tcp/transport_tcp.h"

#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <atomic>

#include "talvo/transport/udp/transport_udp.h"
#include "tests/support/blocks.h"
#include "tests/support/network_fixture.h"

namespace {

std::atomic<bool> s_bInterrupt = false;  // the next receive, as by a signal

}  // namespace

// Stands in for the system's, also inside the library.
extern "C" [[gnu::visibility("default")]] ssize_t recv(int aFd, void* aBuffer, size_t aSize, int aFlags) {
    if (!s_bInterrupt.exchange(false))
        return syscall(SYS_recvfrom, aFd, aBuffer, aSize, aFlags, nullptr, nullptr);
    errno = EINTR;
    return -1;
}

namespace {

// A transport on the main thread's reactor, with a plain socket for a peer.
class TransportTcpTest : public testing::Test {
protected:
    void SetUp() override {
        auto [fdOurs, fdPeer] = MakeTcpPair();
        m_pTransport = new CCmTransportTcp(&m_Main.GetReactor());
        m_pTransport->GetPeer().SetHandle(dup(fdOurs.Get()));
        m_fdPeer = std::move(fdPeer);
        Set(*m_pTransport, CM_OPT_TRANSPORT_SNDBUF, 65535);  // small, so that it is full soon
    }
    void Open() { EXPECT_EQ(CM_OK, m_pTransport->OpenWithSink(&m_Sink)); }
    template <class Condition>
    void Until(Condition aCondition) const {
        RunUntil(m_Main.GetReactor(), aCondition);
    }
    // Enough turns for all reports of the loop.
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
    CCmRefPtrT<CCmTransportTcp> pTcp;
    CCmRefPtrT<CCmTransportUdp> pUdp;
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    CCmRefPtrT<ICmConnector> pConnector;
    auto [fdOurs, fdPeer] = MakeTcpPair();
    CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN);
    {
        const CMainThread main;
        pTcp = new CCmTransportTcp(&main.GetReactor());
        pTcp->GetPeer().SetHandle(dup(fdOurs.Get()));
        pUdp = new CCmTransportUdp(&main.GetReactor());
        pUdp->GetPeer().Open(Loopback());
        for (ICmTransport* pEach : {static_cast<ICmTransport*>(pTcp.Get()), static_cast<ICmTransport*>(pUdp.Get())})
            EXPECT_EQ(CM_OK, pEach->OpenWithSink(&sink));
        pAcceptor = CTestNetwork::MakeAcceptor();
        pConnector = CTestNetwork::MakeConnector();
        EXPECT_EQ(CM_OK, pAcceptor->StartListen(&connects, Loopback()));
        CCmConnectionManager::CleanupInstance();
    }
    CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_OWN);
    BOOL bPause = TRUE;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pTcp->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pUdp->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause));
    while (SendText(*pTcp, Pattern(65536)) == CM_OK) {
    }
    EXPECT_EQ(CM_OK, pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pAcceptor->StartListen(&connects, Loopback()));
    pConnector->AsycConnect(&connects, Loopback(9));
    pConnector->CancelConnect();
    EXPECT_EQ(0u, connects.Count());
    EXPECT_EQ(CM_OK, pTcp->Disconnect(CM_OK));
    pTcp.Reset();
    pUdp.Reset();
    pAcceptor.Reset();
    pConnector.Reset();
    EXPECT_EQ("", CCmLiveCounter::Dump());
}

TEST_F(TransportTcpTest, ReadsAsMuchAsItIsAskedTo) {
    EXPECT_EQ(16384u, Get<DWORD>(*m_pTransport, CM_OPT_TRANSPORT_READ_SIZE));
    for (DWORD dwWrong : {4095u, (1u << 20) + 1})
        EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pTransport->SetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwWrong));
    Open();
    for (const DWORD dwRight : {16384u, 4096u, 1u << 20, 20000u}) {
        Set(*m_pTransport, CM_OPT_TRANSPORT_READ_SIZE, dwRight);
        for (const int nSize : {16384, 50000}) {  // the first fills one or four buffers exactly
            const std::string strData = Pattern(static_cast<size_t>(nSize));
            m_Sink.m_Received.clear();
            m_Sink.m_strReceived.clear();
            m_fdPeer.Write(strData);
            YieldUntil([&] { return Get<int>(*m_pTransport, CM_OPT_TRANSPORT_FIO_NREAD) == nSize; });
            s_bInterrupt = true;
            Until([&] { return m_Sink.m_strReceived == strData; });
            Settle();
            EXPECT_EQ((strData.size() + dwRight - 1) / dwRight, m_Sink.m_Received.size());
        }
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
    EXPECT_EQ("", m_Sink.Take());
    PeerReads(dwFilled);
    Until([&] { return m_Sink.m_nSends > 0; });
    Settle();
    EXPECT_EQ(CM_OK, m_pTransport->SendData(block, &para));
    EXPECT_EQ(strData, PeerReads(5000));
    m_fdPeer.Write("x");  // its report says again that there is room
    Until([&] { return m_Sink.m_nReceives > 0; });
    EXPECT_EQ("send, receive x", m_Sink.Take());
}

// With bytes of the peer unread: a socket closed now would answer the next ones with a reset. A second sink replaces the first.
TEST_F(TransportTcpTest, AnOrderlyEndDeliversWhatWasTakenAndEndsUpcalls) {
    for (const BOOL bReleases : {FALSE, TRUE}) {
        SetUp();
        Open();
        CTestSink second(*m_pTransport);
        m_fdPeer.Write("for the second");
        Until([&] { return second.m_strReceived == "for the second"; });
        const DWORD dwFilled = Fill();
        m_fdPeer.Write("unread");
        if (bReleases) {
            m_pTransport.Reset();
        } else {
            EXPECT_EQ(CM_OK, m_pTransport->Disconnect(CM_OK));
            EXPECT_EQ(CM_OK, m_pTransport->Disconnect(CM_OK));
            EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*m_pTransport, "x"));
            EXPECT_EQ(nullptr, m_pTransport->GetSink());
        }
        EXPECT_EQ(dwFilled, PeerReads(dwFilled).size());
        std::string strRest;
        Until([&] { return ReadToEnd(m_fdPeer, strRest); });
        EXPECT_EQ(0, m_Sink.Upcalls());
        EXPECT_EQ(1, second.Upcalls());
    }
}

TEST_F(TransportTcpTest, ChainBeyondSixtyFourPiecesGetsItsOnSend) {
    Open();
    Settle();  // the first write readiness is past: no other comes by itself
    const std::string strData = Pattern(150);
    const CCmChainPtr pChain = MakeChain(strData, [] { return 1; });
    std::vector<DWORD> sent;
    m_Sink.m_Send = [&] {
        CCmTransportParameter para;
        m_pTransport->SendData(*pChain, &para);
        sent.push_back(para.m_dwHaveSent);
    };
    m_Sink.m_Send();
    EXPECT_EQ(strData, PeerReads(150));
    Settle();
    EXPECT_EQ((std::vector<DWORD>{64, 64, 22}), sent);
}

TEST_F(TransportTcpTest, ReleaseInsideEachUpcall) {
    for (const auto upcall : {&CTestSink::m_Receive, &CTestSink::m_Send, &CTestSink::m_Disconnect}) {
        SetUp();
        CTestSink sink;
        sink.*upcall = [this] { m_pTransport.Reset(); };
        const HANDLE fd = m_pTransport->GetHandle();
        EXPECT_EQ(CM_OK, m_pTransport->OpenWithSink(&sink));
        if (upcall == &CTestSink::m_Receive)
            m_fdPeer.Write(Pattern(40000));  // more than one buffer: the loop would go on reading
        else if (upcall == &CTestSink::m_Send)
            PeerReads(Fill());
        else
            m_fdPeer.Close();
        Until([&] { return !m_pTransport && fcntl(fd, F_GETFD) == -1; });
        Settle();
        EXPECT_EQ(1, sink.Upcalls());
    }
    EXPECT_EQ(std::string::npos, CCmLiveCounter::Dump().find("CCmTransportTcp"));
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
    m_fdPeer.Close();  // with unread bytes at our side
    Settle();
    EXPECT_EQ(1, m_Sink.Upcalls());
    pause(FALSE);
    Until([&] { return m_Sink.m_nDisconnects > 0; });
    EXPECT_EQ("receive " + strData + ", disconnect 20001", m_Sink.Take());
}
