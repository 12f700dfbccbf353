// Slow clients, the end of a server, limits on connections.
#include "tests/http/server_fixture.h"

namespace {

const std::string GET = "GET /a HTTP/1.1\r\nHost: h\r\n\r\n";
const std::string POST = "POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 6000\r\n\r\n";

TEST_F(HttpServerTest, SlowHeadsAndSilence) {
    const auto pSilent = Connect(), pSlow = Connect(), pIdle = Connect();
    pIdle->Receive(GET);
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
    const auto pSteady = Connect(), pSlow = Connect(), pReader = Connect();
    pSteady->Receive(POST);
    pSlow->Receive(POST);
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
    EXPECT_EQ(CM_ERROR_TIMEOUT, m_Requests[1]->m_Reason);
    EXPECT_TRUE(pReader->m_Disconnects.empty());
    Pass(5);
    EXPECT_EQ(1u, pReader->m_Disconnects.size());
}

TEST_F(HttpServerTest, StopsWhenWhatHasBegunIsDone) {
    m_Request = [this](ICmChannelHttpServer& a) { Keep(a).m_End = [] {}; };
    const auto pIdle = Connect(), pBusy = Connect(), pStuck = Connect(), pHead = Connect();
    pBusy->Receive(GET + GET);
    pStuck->Receive(GET);
    pHead->Receive("GET /");
    EXPECT_EQ(CM_OK, m_pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, m_pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_pAcceptor->StartListen(this, CCmInetAddr(OwnLoopback(), 0)));
    EXPECT_EQ("endend", pIdle->TakeAnswers() + pHead->TakeAnswers());
    EXPECT_EQ(CM_OK, m_Requests[0]->m_pChannel->AnswerText(200, "text/plain", "last"));
    Turn();
    EXPECT_EQ("200:last end", pBusy->TakeAnswers());
    EXPECT_EQ(2u, m_Requests.size());
    Pass(29);
    EXPECT_EQ(0, m_Requests[1]->m_nDisconnects + m_nStopped);
    Pass(2);
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_CLOSE, m_Requests[1]->m_Reason);
    EXPECT_EQ(1, m_nStopped);
    EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(this, CCmInetAddr(OwnLoopback(), 0)));
}

// What has not begun is closed without a wait: a part of a head, an empty line, a body that is not whole or not wanted.
TEST_F(HttpServerTest, ADrainFinishesWhatHasBegun) {
    Set(CM_OPT_CHANNEL_SERVER_STOP_SECONDS, DWORD{5});  // not for a drain, whose own limit is later
    CCmRefPtrT<ICmChannelHttpServer> pUnread;
    m_Request = [&](ICmChannelHttpServer& aChannel) {
        const CCmString strURI = aChannel.GetRequest().GetRequestURI();
        if (strURI == "/early")
            aChannel.AnswerText(200, "text/plain", "");
        else if (strURI == "/unread")
            pUnread = &aChannel;
        else
            Keep(aChannel).m_End = [] {};
    };
    const auto pBusy = Connect(), pBody = Connect(), pHeld = Connect(), pFar = Connect();
    pBusy->Receive(GET + GET);
    pBody->Receive(POST + "a part");
    pHeld->Receive("POST /unread HTTP/1.1\r\nHost: h\r\nContent-Length: 4\r\n\r\nbody");
    pFar->m_dwUnacknowledged = 1;
    std::vector<CCmRefPtrT<CTestClient>> idle;
    for (const char* pBegun : {"", "GE", "GET / HTTP/1.1\r\nHo", "GET /early HTTP/1.1\r\nHost: h\r\n\r\n\r\n",
                               "POST /early HTTP/1.1\r\nHost: h\r\nContent-Length: 4\r\n\r\nbo"}) {
        idle.push_back(Connect());
        idle.back()->Receive(pBegun);
    }
    struct CSink : ICmDrainSink {
        void OnDrained(CmResult aReason, const CCmUndrained&) override { m_Reason = aReason; }
        CmResult m_Reason = CM_ERROR_FAILURE;
    } drained;
    CCmTimeValue tvLimit(60);
    EXPECT_EQ(CM_OK, m_Network.Manager().Drain(&tvLimit, &drained));
    Pass(1);
    for (const auto& pClient : idle)
        EXPECT_EQ(std::vector<CmResult>{CM_OK}, pClient->m_Disconnects);
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_CLOSE, m_Requests.at(1)->m_Reason);
    EXPECT_EQ("end", pFar->TakeAnswers());
    EXPECT_EQ(3u, m_pAcceptor->GetConnections());
    pFar->m_dwUnacknowledged = 0;
    Pass(7);
    EXPECT_EQ(2u, m_pAcceptor->GetConnections());
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, CCmRefPtrT<ICmChannelServerAcceptor>(new CCmChannelHttpServerAcceptor(0))
                                          ->StartListen(this, CCmInetAddr(OwnLoopback(), 0)));
    EXPECT_EQ(CM_OK, m_Requests.at(0)->m_pChannel->AnswerText(200, "text/plain", "last"));
    Turn();
    EXPECT_EQ("200:last end", pBusy->TakeAnswers());
    EXPECT_EQ(CM_ERROR_FAILURE, drained.m_Reason);
    EXPECT_EQ(CM_OK, pUnread->AnswerText(200, "text/plain", "held"));
    Pass(3);
    EXPECT_EQ("200:held end", pHeld->TakeAnswers());
    EXPECT_EQ(CM_OK, drained.m_Reason);
    EXPECT_EQ(1, m_nStopped);
}

// The objects outlive it, and nothing is told any more.
TEST_F(HttpServerTest, TheEndOfTheThreadClosesEverything) {
    m_Request = [this](ICmChannelHttpServer& a) { Keep(a).m_End = [] {}; };
    const auto pClient = Connect();
    pClient->Receive(GET);
    m_Network.MainLink().Close();
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, m_Requests.at(0)->m_pChannel->AnswerText(200, "text/plain", "late"));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, m_pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(0u, m_pAcceptor->GetConnections());
    EXPECT_EQ(1u, pClient->m_Disconnects.size());
    EXPECT_EQ(0, m_Requests[0]->m_nDisconnects + m_nStopped);
}

// Also between two looks at the clock: an application sends times of change that are not later than it.
TEST_F(HttpServerTest, TheDateIsThatOfTheAnswer) {
    const auto pClient = Connect();
    for (const int nSecond : {37, 38}) {
        m_Clock.SetWallUsec((784111740 + nSecond) * int64_t{1000000});
        pClient->Receive(GET);
        const std::string strDate = "Date: Sun, 06 Nov 1994 08:49:" + std::to_string(nSecond) + " GMT\r\n";
        EXPECT_NE(std::string::npos, pClient->TakeSent().find(strDate));
    }
}

TEST_F(HttpServerTest, NoMoreConnectionsThanAllowed) {
    Set(CM_OPT_CHANNEL_SERVER_MAX_CONNECTIONS, DWORD{1});
    const auto pFirst = Connect(), pSecond = Connect();
    EXPECT_EQ(nullptr, pSecond->m_pSink);
    pFirst->Vanish();
    EXPECT_NE(nullptr, Connect()->m_pSink);
}

class CLongAnswers : public ICmChannelServerAcceptorSink {
    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        aChannel->AnswerText(200, "text/plain", std::string(3000000, 'x'));
    }
};

// What a client gets over a socket that sends aMore as fast as the server reads, and then perhaps ends its side.
std::string AskOverSocket(CCmThreadManager::ENetworkThreadMode aMode, std::string aMore, BOOL aEnd) {
    const CTestNetwork network(aMode);
    CLongAnswers server;
    CCmRefPtrT<CCmChannelHttpServerAcceptor> pAcceptor(new CCmChannelHttpServerAcceptor(0));
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&server, CCmInetAddr(OwnLoopback(), 0)));
    CCmInetAddr addr;
    EXPECT_EQ(CM_OK, pAcceptor->GetListenAddr(addr));
    const CTestFd fd = ConnectPlain(addr);
    std::string strAnswers;
    network.RunUntil([&] {
        const ssize_t lSent = send(fd.Get(), aMore.data(), aMore.size(), MSG_NOSIGNAL);
        aMore.erase(0, lSent > 0 ? static_cast<size_t>(lSent) : 0);
        if (aEnd && aMore.empty())
            shutdown(fd.Get(), SHUT_WR);
        return ReadToEnd(fd, strAnswers);
    });
    pAcceptor.Reset();
    network.RunPosted();
    return strAnswers;
}

// From the network thread and from another one: a client that goes on sending behind its last answer gets that answer whole.
TEST(HttpServerSocketTest, TheLastAnswerIsNotLost) {
    for (const auto mode : {CCmThreadManager::NETWORK_THREAD_MAIN, CCmThreadManager::NETWORK_THREAD_OWN}) {
        const std::string strAnswers = AskOverSocket(mode, GET + "BAD\r\n\r\n" + std::string(1000000, 'm'), FALSE);
        EXPECT_NE(std::string::npos, strAnswers.find("HTTP/1.1 400 Bad Request", 3000000));
        EXPECT_TRUE(strAnswers.ends_with("400 Bad Request\n"));
    }
}

// Keeps a request without receiving it.
class CKeeper : public ICmChannelServerAcceptorSink {
public:
    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override { m_pKept = aChannel; }
    void OnRequestLost(CmResult, ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        m_AddrLost = Get<CCmInetAddr>(*aChannel, CM_OPT_TRANSPORT_PEER_ADDR);
    }
    CCmRefPtrT<ICmChannelHttpServer> m_pKept;
    CCmInetAddr m_AddrLost;
};

// Through a proxy, whose reading the server has paused.
TEST(HttpServerSocketTest, ABodyThatIsNotReceivedHidesNoReset) {
    const CTestNetwork network;
    CKeeper server;
    CCmRefPtrT<CCmChannelHttpServerAcceptor> pAcceptor(new CCmChannelHttpServerAcceptor(0));
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&server, CCmInetAddr(OwnLoopback(), 0)));
    CCmInetAddr addr;
    EXPECT_EQ(CM_OK, pAcceptor->GetListenAddr(addr));
    CTestFd fd = ConnectPlain(addr);
    std::string strLeft = "POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 1000000\r\n\r\n" + std::string(200000, 'b');
    BOOL bPaused = FALSE;
    network.RunUntil([&]() -> BOOL {
        const ssize_t lSent = send(fd.Get(), strLeft.data(), strLeft.size(), MSG_NOSIGNAL);
        strLeft.erase(0, lSent > 0 ? static_cast<size_t>(lSent) : 0);
        if (!server.m_pKept)
            return FALSE;
        auto* pInner = Get<ICmTransport*>(*server.m_pKept, CM_OPT_TRANSPORT_INNER_TRANSPORT);
        network.InNetwork([&] { bPaused = Get<BOOL>(*pInner, CM_OPT_TRANSPORT_PAUSE_READING); });
        return bPaused;
    });
    const auto addrClient = Get<CCmInetAddr>(*server.m_pKept, CM_OPT_TRANSPORT_PEER_ADDR);
    const linger reset{1, 0};
    EXPECT_EQ(0, setsockopt(fd.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset));
    fd.Close();
    network.RunUntil([&] { return server.m_AddrLost == addrClient; });
    EXPECT_EQ(addr, Get<CCmInetAddr>(*server.m_pKept, CM_OPT_TRANSPORT_LOCAL_ADDR));
    server.m_pKept.Reset();
    pAcceptor.Reset();
    network.RunPosted();
}

TEST(HttpServerSocketTest, AClientMayEndItsSideAndWait) {
    for (const auto mode : {CCmThreadManager::NETWORK_THREAD_MAIN, CCmThreadManager::NETWORK_THREAD_OWN})
        EXPECT_LT(6000000u, AskOverSocket(mode, GET + GET, TRUE).size());
}

}  // namespace
