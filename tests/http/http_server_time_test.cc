// Slow clients, the end of a server, limits on connections.
#include "tests/http/server_fixture.h"

namespace {

const std::string GET = "GET /a HTTP/1.1\r\nHost: h\r\n\r\n";
const std::string POST = "POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 6000\r\n\r\n";

TEST_F(HttpServerTest, SlowHeadsAndSilence) {
    const auto pSilent = Connect(), pSlow = Connect(), pIdle = Connect(GET);
    for (int i = 0; i < 9; ++i) {
        pSlow->Receive("G");  // does not buy time
        Pass(1);
    }
    EXPECT_EQ("", pSilent->TakeAnswers() + pSlow->TakeAnswers());
    Pass(2);
    EXPECT_EQ("end", pSilent->TakeAnswers());
    EXPECT_EQ("408:408 Request Timeout\n end", pSlow->TakeAnswers());
    EXPECT_EQ("200:/a ", pIdle->TakeAnswers());
    Pass(7);
    EXPECT_EQ(1u, m_pAcceptor->GetConnections());  // those that were ended did not close: they are closed
    pIdle->Receive("\r\n");
    Pass(50);
    EXPECT_EQ("end", pIdle->TakeAnswers());
}

TEST_F(HttpServerTest, SlowBodiesAndReaders) {
    const auto pSteady = Connect(POST), pSlow = Connect(POST), pReader = Connect();
    m_Request = [](ICmChannelHttpServer& a) { a.AnswerText(200, "text/plain", std::string(100000, 'x')); };
    pReader->m_dwRoom = 100;
    pReader->Receive(GET + GET);
    for (int i = 0; i < 2; ++i) {
        Pass(58);
        pSteady->Receive(std::string(1024, 'x'));
        pSlow->Receive("x");
        if (i == 0)
            pReader->MakeRoom(10);
    }
    EXPECT_EQ("", pSteady->TakeAnswers());
    EXPECT_EQ("408:408 Request Timeout\n end", pSlow->TakeAnswers());
    EXPECT_NE(std::string::npos, TakeLog().find("gone:10014 "));
    EXPECT_TRUE(pReader->m_Disconnects.empty());
    Pass(5);
    EXPECT_EQ(1u, pReader->m_Disconnects.size());
}

TEST_F(HttpServerTest, StopsWhenWhatHasBegunIsDone) {
    HoldRequests();
    const auto pIdle = Connect(), pBusy = Connect(GET + GET), pStuck = Connect(GET), pHead = Connect("GET /");
    EXPECT_EQ(CM_OK, m_pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, m_pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_pAcceptor->StartListen(this, Loopback()));
    EXPECT_EQ("endend", pIdle->TakeAnswers() + pHead->TakeAnswers());
    EXPECT_EQ(CM_OK, Answer(0, "last"));
    Turn();
    EXPECT_EQ("200:last end", pBusy->TakeAnswers());
    Pass(29);
    EXPECT_EQ("end end ", TakeLog());
    Pass(2);
    EXPECT_EQ("gone:20003 stopped ", TakeLog());
    EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(this, Loopback()));
}

// A request that has not begun is closed without a wait: a part of a head, an empty line, a body that is not whole or not
// wanted.
TEST_F(HttpServerTest, ADrainFinishesWhatHasBegun) {
    for (DWORD dwOption = CM_OPT_CHANNEL_SERVER_HEAD_SECONDS; dwOption <= CM_OPT_CHANNEL_SERVER_STOP_SECONDS; ++dwOption) {
        DWORD dwSeconds = 0x40000000;
        Set(dwOption, dwSeconds);
        EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pAcceptor->SetOption(dwOption, &++dwSeconds));
    }
    Set(CM_OPT_CHANNEL_SERVER_STOP_SECONDS, DWORD{5});  // not for a drain, whose own limit is later
    CCmRefPtrT<ICmChannelHttpServer> pUnread;
    m_Request = [&](ICmChannelHttpServer& aChannel) {
        const CCmString strURI = aChannel.GetRequest().GetRequestURI();
        if (strURI == "/early")
            aChannel.AnswerText(200, "text/plain", "");
        else if (strURI == "/unread")
            pUnread = &aChannel;
        else
            Hold(aChannel);
    };
    const auto pBusy = Connect(GET + GET), pBody = Connect(POST + "a part"), pFar = Connect();
    const auto pHeld = Connect("POST /unread HTTP/1.1\r\nHost: h\r\nContent-Length: 4\r\n\r\nbody");
    pFar->m_dwUnacknowledged = 1;
    std::vector<CCmRefPtrT<CTestClient>> idle;
    for (const char* pBegun : {"", "GE", "GET / HTTP/1.1\r\nHo", "GET /early HTTP/1.1\r\nHost: h\r\n\r\n\r\n",
                               "POST /early HTTP/1.1\r\nHost: h\r\nContent-Length: 4\r\n\r\nbo"})
        idle.push_back(Connect(pBegun));
    struct CSink : ICmDrainSink {
        void OnDrained(CmResult aReason, const CCmUndrained&) override { m_Reason = aReason; }
        CmResult m_Reason = CM_ERROR_FAILURE;
    } drained;
    CCmTimeValue tvLimit(60);
    EXPECT_EQ(CM_OK, m_Network.Manager().Drain(&tvLimit, &drained));
    Pass(1);
    for (const auto& pClient : idle)
        EXPECT_EQ(std::vector<CmResult>{CM_OK}, pClient->m_Disconnects);
    EXPECT_EQ("end receive gone:20003 ", TakeLog());
    EXPECT_EQ("end", pFar->TakeAnswers());
    EXPECT_EQ(3u, m_pAcceptor->GetConnections());
    pFar->m_dwUnacknowledged = 0;
    Pass(7);
    EXPECT_EQ(2u, m_pAcceptor->GetConnections());
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE,
              CCmRefPtrT<ICmChannelServerAcceptor>(new CCmChannelHttpServerAcceptor(0))->StartListen(this, Loopback()));
    EXPECT_EQ(CM_OK, Answer(0, "last"));
    Turn();
    EXPECT_EQ("200:last end", pBusy->TakeAnswers());
    EXPECT_EQ(CM_ERROR_FAILURE, drained.m_Reason);
    EXPECT_EQ(CM_OK, pUnread->AnswerText(200, "text/plain", "held"));
    Pass(3);
    EXPECT_EQ("200:held end", pHeld->TakeAnswers());
    EXPECT_EQ(CM_OK, drained.m_Reason);
    EXPECT_EQ("stopped ", TakeLog());
}

// The objects outlive it, and nothing is told any more.
TEST_F(HttpServerTest, TheEndOfTheThreadClosesEverything) {
    HoldRequests();
    const auto pClient = Connect(GET);
    m_Network.MainLink().Close();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, Answer(0, "late"));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, m_pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(0u, m_pAcceptor->GetConnections());
    EXPECT_EQ(1u, pClient->m_Disconnects.size());
    EXPECT_EQ("end ", TakeLog());
}

TEST_F(HttpServerTest, NoMoreConnectionsThanAllowed) {
    Set(CM_OPT_CHANNEL_SERVER_MAX_CONNECTIONS, DWORD{1});
    const auto pFirst = Connect(), pSecond = Connect();
    EXPECT_EQ(nullptr, pSecond->m_pSink);
    pFirst->Vanish();
    EXPECT_NE(nullptr, Connect()->m_pSink);
}

// Over sockets: a short body is answered at length; a long one is kept without receiving it.
class CSocketServer : public ICmChannelServerAcceptorSink {
public:
    CSocketServer() {
        EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(this, Loopback()));
        EXPECT_EQ(CM_OK, m_pAcceptor->GetListenAddr(m_Addr));
    }
    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        if (aChannel->GetRequest().GetMethod() == CCmHttpAtomList::Post)
            m_pKept = aChannel;
        else
            aChannel->AnswerText(200, "text/plain", std::string(3000000, 'x'));
    }
    void OnRequestLost(CmResult, ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        m_AddrLost = Get<CCmInetAddr>(*aChannel, CM_OPT_TRANSPORT_PEER_ADDR);
    }
    const CCmRefPtrT<CCmChannelHttpServerAcceptor> m_pAcceptor{new CCmChannelHttpServerAcceptor(0)};
    CCmRefPtrT<ICmChannelHttpServer> m_pKept;
    CCmInetAddr m_Addr, m_AddrLost;
};

void SendSome(const CTestFd& aFd, std::string& aLeft) {
    const ssize_t lSent = send(aFd.Get(), aLeft.data(), aLeft.size(), MSG_NOSIGNAL);
    aLeft.erase(0, lSent > 0 ? static_cast<size_t>(lSent) : 0);
}

// From the network thread and from another one: a client that goes on sending behind its last answer gets that answer whole,
// and so does one that ends its side.
TEST(HttpServerSocketTest, TheLastAnswerIsNotLost) {
    for (const auto mode : {CCmThreadManager::NETWORK_THREAD_MAIN, CCmThreadManager::NETWORK_THREAD_OWN}) {
        for (const BOOL bEnd : {FALSE, TRUE}) {
            const CTestNetwork network(mode);
            std::string strAnswers, strMore = GET + (bEnd ? GET : "BAD\r\n\r\n" + std::string(1000000, 'm'));
            {
                const CSocketServer server;
                const CTestFd fd = ConnectPlain(server.m_Addr);
                network.RunUntil([&] {
                    SendSome(fd, strMore);
                    if (bEnd && strMore.empty())
                        shutdown(fd.Get(), SHUT_WR);
                    return ReadToEnd(fd, strAnswers);
                });
            }
            network.RunPosted();
            EXPECT_LT(bEnd ? 6000000u : 3000000u, strAnswers.size());
            EXPECT_EQ(!bEnd, strAnswers.ends_with("400 Bad Request\n"));
        }
    }
}

// Through a proxy, whose reading the server has paused.
TEST(HttpServerSocketTest, ABodyThatIsNotReceivedHidesNoReset) {
    const CTestNetwork network;
    {
        CSocketServer server;
        CTestFd fd = ConnectPlain(server.m_Addr);
        std::string strLeft = "POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 1000000\r\n\r\n" + std::string(200000, 'b');
        network.RunUntil([&] {
            SendSome(fd, strLeft);
            BOOL bPaused = FALSE;
            if (server.m_pKept) {
                auto* pInner = Get<ICmTransport*>(*server.m_pKept, CM_OPT_TRANSPORT_INNER_TRANSPORT);
                network.InNetwork([&] { bPaused = Get<BOOL>(*pInner, CM_OPT_TRANSPORT_PAUSE_READING); });
            }
            return bPaused;
        });
        const auto addrClient = Get<CCmInetAddr>(*server.m_pKept, CM_OPT_TRANSPORT_PEER_ADDR);
        const linger reset{1, 0};
        EXPECT_EQ(0, setsockopt(fd.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset));
        fd.Close();
        network.RunUntil([&] { return server.m_AddrLost == addrClient; });
        EXPECT_EQ(server.m_Addr, Get<CCmInetAddr>(*server.m_pKept, CM_OPT_TRANSPORT_LOCAL_ADDR));
    }
    network.RunPosted();
}

}  // namespace
