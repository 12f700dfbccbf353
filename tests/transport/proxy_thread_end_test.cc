// Proxies whose threads end before them.
#include "tests/support/fake_transport.h"
#include "tests/support/trace_capture.h"

namespace {

// Runs in a thread of the library and waits for it.
void In(const CScopedThread& aThread, std::function<void()> aRun) {
    EXPECT_EQ(CM_OK, aThread->GetLink().Call([&] {
        aRun();
        return CM_OK;
    }));
}

}  // namespace

TEST(ProxyThreadEndTest, NetworkThreadFirst) {
    CTestNetwork network;
    CTestFd peer;
    CTestSink sink;
    auto pProxy = network.ConnectTo(peer);
    ASSERT_TRUE(pProxy);
    pProxy->OpenWithSink(&sink);
    const auto pAcceptor = network.MakeAcceptor();
    CTestConnectSink indications;
    CCmInetAddr addr;
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&indications, CCmInetAddr("127.0.0.1", 0)));
    EXPECT_EQ(CM_OK, pAcceptor->GetListenAddr(addr));
    const auto pConnector = network.MakeConnector();
    network.EndNetworkThread();

    network.RunUntil([&] { return sink.m_nDisconnects == 1; });
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_CLOSE, sink.m_Reason);
    std::string strRead;
    EXPECT_TRUE(ReadToEnd(peer, strRead));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pAcceptor->GetListenAddr(addr));
    EXPECT_EQ(CM_OK, pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pAcceptor->StartListen(&indications, addr));
    DWORD dwValue = 0;
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pProxy->GetOption(CM_OPT_TRANSPORT_TRAN_TYPE, &dwValue));
    EXPECT_EQ(CM_ERROR_NULL_POINTER, SendText(*pProxy, "x"));
    pConnector->AsycConnect(&indications, addr);
    EXPECT_EQ(0u, indications.Count());
    network.RunUntil([&] { return indications.Count() == 1; });
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, indications.m_Reasons.at(0));
}

TEST(ProxyThreadEndTest, ConnectThatTheNetworkThreadNeverReachedIsReported) {
    CTestNetwork network;
    const CTestListener listener;
    const auto pStarted = network.MakeConnector();
    const auto pUnreached = network.MakeConnector();
    CTestConnectSink started, unreached;
    CCmEventThread busy;
    network.NetworkLink().Post([&] { busy.Wait(); });
    pStarted->AsycConnect(&started, listener.Addr());
    for (int i = 0; i < 200; ++i)  // more than one turn of the loop runs
        network.NetworkLink().Post([] {});
    pUnreached->AsycConnect(&unreached, listener.Addr());
    network.Network()->Stop();
    busy.Signal();
    network.EndNetworkThread();
    network.RunUntil([&] { return started.Count() > 0 && unreached.Count() > 0; });
    network.RunPosted();
    EXPECT_EQ(std::vector<CmResult>{CM_ERROR_NOT_AVAILABLE}, started.m_Reasons);
    EXPECT_EQ(std::vector<CmResult>{CM_ERROR_NOT_AVAILABLE}, unreached.m_Reasons);
}

// The network thread is too busy to end in time: it is given up and unregistered, and comes back later.
TEST(ProxyThreadEndTest, NetworkThreadComesBackAfterItWasGivenUp) {
    CTestNetwork network;
    CTestConnectSink sink;
    const CTestListener listener;
    auto pConnector = network.MakeConnector();
    CCmEventThread busy;
    {
        CFakeConnection lingering(network);
        lingering.SetRoom(0);
        EXPECT_EQ(CM_OK, SendText(*lingering.m_pProxy, "unsent"));
        lingering.m_pProxy->Disconnect(CM_OK);
        lingering.Sync();
        network.NetworkLink().Post([&] { busy.Wait(); });
        pConnector->AsycConnect(&sink, listener.Addr());
        CCmConnectionManager::CleanupInstance();
        EXPECT_EQ(nullptr, network.Network());
        busy.Signal();
        network.RunUntil([&] { return sink.Count() == 1 && lingering.m_pFake->m_nDisconnects == 1; });
        YieldUntil([] { return CCmLiveCounter::Dump().find("CCmReactorBase 1\n") != std::string::npos; });
    }
    EXPECT_NE(CM_OK, sink.m_Reasons.at(0));
    EXPECT_EQ(nullptr, network.Network()) << "the manager has come back to life";
}

TEST(ProxyThreadEndTest, UserThreadFirst) {
    CTestNetwork network;
    CCmRefPtrT<ICmTransport> pProxy;
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    CCmRefPtrT<ICmConnector> pConnector;
    CTestConnectSink indications;
    CTestSink sink;
    CTestFd peer;
    CCmInetAddr addr;
    const CTestListener listener;
    {
        CScopedThread user(CScopedThread::TASK);
        std::atomic<BOOL> bConnected{FALSE};
        indications.m_Indicated = [&] {
            pProxy = indications.m_Transports.at(0);
            indications.m_Transports.clear();
            pProxy->OpenWithSink(&sink);
            bConnected = TRUE;
        };
        In(user, [&] {
            pConnector = network.MakeConnector();
            pAcceptor = network.MakeAcceptor();
            pAcceptor->StartListen(&indications, CCmInetAddr("127.0.0.1", 0));
            pAcceptor->GetListenAddr(addr);
            pConnector->AsycConnect(&indications, listener.Addr());
        });
        YieldUntil([&] { return bConnected.load(); });
        peer = listener.Accept();
    }
    // Whoever connects now finds nobody; what arrives for the dead thread closes its connection.
    const CTestFd late = ConnectPlain(addr);
    peer.Write("for a thread that has gone");
    peer.Write("and more");
    std::string strLate, strPeer;
    YieldUntil([&] { return ReadToEnd(late, strLate); });
    const auto isClosed = [&] {
        send(peer.Get(), "x", 1, MSG_NOSIGNAL);
        return send(peer.Get(), "x", 1, MSG_NOSIGNAL) == -1 && errno != EAGAIN;
    };
    YieldUntil(isClosed);
    EXPECT_EQ(0, sink.Upcalls());
    EXPECT_EQ(1u, indications.Count());
    EXPECT_EQ(CM_ERROR_NULL_POINTER, SendText(*pProxy, "x"));
}

// An upcall that was posted, and dropped with the user's thread, is not taken for one that is under way.
TEST(ProxyThreadEndTest, DroppedUpcallDoesNotHideTheEndOfTheUserThread) {
    CTestNetwork network;
    std::atomic<int> nAlive{0};
    CCmRefPtrT<CFakeTransport> pFake(new CFakeTransport(nAlive));
    CCmRefPtrT<ICmTransport> pProxy;
    CTestSink sink;
    CCmEventThread busy, received;
    std::atomic<BOOL> bLast{FALSE};
    {
        CScopedThread user(CScopedThread::EVENT_QUEUE_ONLY);
        network.InNetwork(
            [&] { pProxy = new CCmTransportThreadProxy(pFake.Get(), user->GetLink(), network.NetworkLink(), 1); });
        EXPECT_EQ(CM_OK, pProxy->OpenWithSink(&sink));
        user->GetLink().Post([&] { busy.Wait(); });
        YieldUntil([&] { return user->GetEventQueue()->GetPendingEventsCount() == 0; });
        user->Stop();
        user->GetLink().Post([&] {
            bLast = TRUE;
            received.Wait();
        });
        busy.Signal();
        YieldUntil([&] { return bLast.load(); });  // the batch with the stop runs: what is posted now is never run
        network.InNetwork([&] { pFake->Receive("first"); });
        EXPECT_EQ(1u, user->GetEventQueue()->GetPendingEventsCount());
        received.Signal();
    }
    EXPECT_EQ(0, pFake->m_nDisconnects);
    network.InNetwork([&] { pFake->Receive("second"); });
    EXPECT_EQ(1, pFake->m_nDisconnects);
    EXPECT_EQ(0, sink.Upcalls());
    pProxy.Reset();
    pFake.Reset();
    YieldUntil([&] { return nAlive == 0; });
}

TEST(ProxyThreadEndTest, ThirdThreadReleasesAndBothThreadsGone) {
    CTestNetwork network;
    CTestFd peer, secondPeer;
    CTestSink sink;
    auto pProxy = network.ConnectTo(peer);
    auto pKept = network.ConnectTo(secondPeer);
    auto pAcceptor = network.MakeAcceptor();
    auto pConnector = network.MakeConnector();
    CTestConnectSink indications;
    CCmInetAddr addr;
    pAcceptor->StartListen(&indications, CCmInetAddr("127.0.0.1", 0));
    pAcceptor->GetListenAddr(addr);
    pProxy->OpenWithSink(&sink);
    std::thread([&] {
        pProxy.Reset();
        pAcceptor.Reset();
    }).join();
    std::string strRead;
    network.RunUntil([&] { return ReadToEnd(peer, strRead); });
    EXPECT_EQ(0, sink.Upcalls());

    CTestConnectSink early;  // may be indicated before its thread ends
    CCmRefPtrT<ICmConnector> pConnectorOfUser;
    {
        CScopedThread user(CScopedThread::EVENT_QUEUE_ONLY);
        In(user, [&] {
            pConnectorOfUser = network.MakeConnector();
            pConnectorOfUser->AsycConnect(&early, CCmInetAddr("host.test", 1));
        });
    }
    network.EndNetworkThread();
    pConnectorOfUser->AsycConnect(&indications, addr);
    pConnectorOfUser->CancelConnect();
    pConnectorOfUser->AsycConnect(&indications, addr);
    EXPECT_EQ(CM_ERROR_NULL_POINTER, SendText(*pKept, "x"));
    EXPECT_EQ(CM_ERROR_NULL_POINTER, pKept->OpenWithSink(&sink));
    EXPECT_EQ(CM_OK, pKept->Disconnect(CM_OK));
    network.RunPosted();
    EXPECT_EQ(0u, indications.Count());
}
