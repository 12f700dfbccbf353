#include "talvo/connection/connection_manager.h"

#include "tests/support/network_fixture.h"
#include "tests/support/trace_capture.h"

namespace {

CCmThreadManager& Threads() { return *CCmThreadManager::Instance(); }
CCmConnectionManager& Manager() { return *CCmConnectionManager::Instance(); }

// What the manager says of a type, to a client and to a server alike; nothing is handed out on failure.
CmResult Judge(DWORD aType) {
    CCmRefPtrT<ICmConnector> pConnector;
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    ICmConnector*& connector = pConnector.ParaOut();
    ICmAcceptor*& acceptor = pAcceptor.ParaOut();
    const CmResult rv = Manager().CreateConnectionClient(aType, connector);
    EXPECT_EQ(rv == CM_OK, connector != nullptr);
    EXPECT_EQ(rv, Manager().CreateConnectionServer(aType, acceptor));
    EXPECT_EQ(rv == CM_OK, acceptor != nullptr);
    return rv;
}

// Types of the proxies that connected transports answer with.
constexpr DWORD DIRECT = CM_TRANSPORT_TYPE_TCP;
constexpr DWORD FORCED = DIRECT | CCmConnectionManager::CTYPE_FORCE_THREAD_PROXY;

// Connects aType to itself and exchanges a message; what option 107 says at the client. The calling thread is the user's;
// aTurn lets its loop run.
template <class Turn>
DWORD Exchange(DWORD aType, Turn aTurn) {
    CTestConnectSink server, client;
    CTestSink serverSink, clientSink;
    const auto pAcceptor = CTestNetwork::MakeAcceptor(aType);
    const auto pConnector = CTestNetwork::MakeConnector(aType);
    CCmInetAddr addr;
    EXPECT_FALSE(pAcceptor->IsConnector());
    EXPECT_TRUE(pConnector->IsConnector());
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pAcceptor->StartListen(nullptr, CCmInetAddr("127.0.0.1", 0)));
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&server, CCmInetAddr("127.0.0.1", 0)));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pAcceptor->StartListen(&server, CCmInetAddr("127.0.0.1", 0)));
    EXPECT_EQ(CM_OK, pAcceptor->GetListenAddr(addr));
    pConnector->AsycConnect(&client, addr);
    pConnector->AsycConnect(&server, addr);  // refused
    aTurn([&] { return server.Count() == 1 && client.Count() == 1; });
    EXPECT_EQ(pAcceptor.Get(), server.m_pLastId);
    EXPECT_EQ(pConnector.Get(), client.m_pLastId);
    server.m_Transports.at(0)->OpenWithSink(&serverSink);
    client.m_Transports.at(0)->OpenWithSink(&clientSink);
    EXPECT_EQ(CM_OK, SendText(*client.m_Transports[0], "ping"));
    aTurn([&] { return serverSink.m_strReceived == "ping"; });
    EXPECT_EQ(CM_OK, SendText(*server.m_Transports[0], "pong"));
    EXPECT_EQ(CM_OK, server.m_Transports[0]->Disconnect(CM_OK));
    DWORD dwType = 0;
    EXPECT_EQ(CM_OK, client.m_Transports[0]->GetOption(CM_OPT_TRANSPORT_TRAN_TYPE, &dwType));
    aTurn([&] { return clientSink.m_nDisconnects == 1; });
    EXPECT_EQ("pong", clientSink.m_strReceived);
    EXPECT_EQ(CM_OK, pAcceptor->StopListen(CM_OK));
    return dwType;
}

}  // namespace

TEST(ConnectionManagerTest, TypesAreJudgedInTheCallingThread) {
    CTestNetwork network;
    CCmTraceCapture trace;
    const std::pair<DWORD, CmResult> table[] = {
        {0x1, CM_OK},
        {0x10001, CM_OK},
        {0x20001, CM_OK},
        {0x30001, CM_OK},
        {0x2, CM_ERROR_NOT_IMPLEMENTED},
        {0x4, CM_ERROR_NOT_IMPLEMENTED},
        {0x8, CM_ERROR_NOT_IMPLEMENTED},
        {0xC, CM_ERROR_NOT_IMPLEMENTED},
        {0x8000, CM_ERROR_NOT_IMPLEMENTED},
        {0x8001, CM_ERROR_NOT_IMPLEMENTED},
        {0x00100001, CM_ERROR_NOT_IMPLEMENTED},
        {0x08000001, CM_ERROR_NOT_IMPLEMENTED},
        {0x10000001, CM_ERROR_NOT_IMPLEMENTED},
        {0x30000001, CM_ERROR_NOT_IMPLEMENTED},
        {0x70000001, CM_ERROR_NOT_IMPLEMENTED},
        {0x0, CM_ERROR_INVALID_ARG},
        {0x3, CM_ERROR_INVALID_ARG},
        {0x8002, CM_ERROR_INVALID_ARG},
        {0x00040001, CM_ERROR_INVALID_ARG},
        {0x10000003, CM_ERROR_INVALID_ARG},
        {0x40000001, CM_ERROR_FAILURE},
        {0x20000001, CM_ERROR_FAILURE},
        {0x60000001, CM_ERROR_FAILURE},
        {0x80000001, CM_ERROR_FAILURE},
    };
    for (const auto& [dwType, rv] : table)
        EXPECT_EQ(rv, Judge(dwType)) << std::hex << dwType;
    EXPECT_TRUE(trace.Contains("CCmConnectionManager::CreateConnectionClient_i, wrong type=3"));
    EXPECT_TRUE(trace.Contains("CCmConnectionManager::CreateConnectionServer, wrong type=3"));
    EXPECT_TRUE(trace.Contains("type not implemented. type=2"));
    EXPECT_TRUE(trace.Contains("CCmConnectionManager::CreateConnectionClient, create CCmConnectorThreadProxy. aType=1"));
    EXPECT_TRUE(trace.Contains("CCmConnectionManager::CreateConnectionServer, create CCmAcceptorThreadProxy. aType=1"));

    auto* pDetection = reinterpret_cast<ICmDetectionConnector*>(1);
    EXPECT_EQ(CM_ERROR_NOT_IMPLEMENTED, Manager().CreateDetectionConnectionClient(pDetection));
    EXPECT_EQ(nullptr, pDetection);
}

TEST(ConnectionManagerTest, CallerWithoutAnEventQueueIsRefused) {
    CTestNetwork network;
    std::thread([] {
        EXPECT_EQ(CM_ERROR_NULL_POINTER, Judge(CCmConnectionManager::CTYPE_TCP));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, Judge(3));  // the type comes first
    }).join();
}

TEST(ConnectionManagerTest, ThreadRule) {
    CTestNetwork network;
    const auto runUntil = [&](auto aCondition) { network.RunUntil(aCondition); };
    EXPECT_EQ(DIRECT, Exchange(DIRECT, runUntil));
    EXPECT_EQ(FORCED, Exchange(FORCED, runUntil));
    EXPECT_EQ(CCmConnectionManager::Instance(), &Manager());
    network.InNetwork([] {
        CCmTraceCapture trace;
        EXPECT_EQ(CM_OK, Judge(DIRECT));
        EXPECT_FALSE(trace.Contains("ThreadProxy"));
        EXPECT_EQ(CM_OK, Judge(FORCED));
        EXPECT_TRUE(trace.Contains("create CCmConnectorThreadProxy"));
        EXPECT_TRUE(trace.Contains("create CCmAcceptorThreadProxy"));
        // A listener of the network thread itself, through a proxy: its calls run at once instead of waiting for ever.
        CTestConnectSink sink;
        const auto pAcceptor = CTestNetwork::MakeAcceptor(FORCED);
        CCmInetAddr addr;
        EXPECT_EQ(CM_OK, pAcceptor->StartListen(&sink, CCmInetAddr("127.0.0.1", 0)));
        EXPECT_EQ(CM_OK, pAcceptor->GetListenAddr(addr));
        EXPECT_EQ(CM_OK, pAcceptor->StopListen(CM_OK));
    });
}

TEST(ConnectionManagerTest, MainThreadAsNetworkThread) {
    CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    EXPECT_EQ(Threads().GetThread(CCmThreadManager::TT_MAIN), Threads().GetThread(CCmThreadManager::TT_NETWORK));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, Threads().SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_OWN));
    const auto runUntil = [&](auto aCondition) { network.RunUntil(aCondition); };
    EXPECT_EQ(DIRECT, Exchange(DIRECT, runUntil));
    EXPECT_EQ(FORCED, Exchange(FORCED, runUntil));
    // Another thread is called back in its own.
    CScopedThread user(CScopedThread::TASK);
    CTestConnectSink sink;
    CCmRefPtrT<ICmConnector> pConnector;
    const CTestListener listener;
    std::atomic<BOOL> bDone{FALSE};
    sink.m_Indicated = [&] {
        EXPECT_EQ(user.Get(), Threads().GetThread(CCmThreadManager::TT_CURRENT));
        bDone = TRUE;
    };
    user->GetLink().Post([&] {
        pConnector = CTestNetwork::MakeConnector();
        pConnector->AsycConnect(&sink, listener.Addr());
    });
    network.RunUntil([&] { return bDone.load(); });
}

TEST(ConnectionManagerTest, AcceptorProxyForgetsWhatWasPosted) {
    CTestNetwork network;
    CTestConnectSink sink;
    auto pAcceptor = network.MakeAcceptor();
    CCmInetAddr addr;
    const auto startAndPost = [&] {
        ASSERT_EQ(CM_OK, pAcceptor->StartListen(&sink, CCmInetAddr("127.0.0.1", 0)));
        ASSERT_EQ(CM_OK, pAcceptor->GetListenAddr(addr));
        const DWORD dwPending = network.Main().GetPendingEventsCount();
        const CTestFd client = ConnectPlain(addr);
        YieldUntil([&] { return network.Main().GetPendingEventsCount() > dwPending; });
    };
    startAndPost();
    EXPECT_EQ(CM_OK, pAcceptor->StopListen(CM_OK));
    startAndPost();  // an indication of the time before is not taken for one of now
    network.RunPosted();
    EXPECT_EQ(1u, sink.Count());
    EXPECT_EQ(CM_OK, pAcceptor->StopListen(CM_OK));
    startAndPost();
    pAcceptor.Reset();
    network.RunPosted();
    EXPECT_EQ(1u, sink.Count());

    // Released inside the indication.
    pAcceptor = network.MakeAcceptor();
    startAndPost();
    sink.m_Indicated = [&] { pAcceptor.Reset(); };
    network.RunPosted();
    EXPECT_EQ(2u, sink.Count());
    // A proxy that fails to listen may try again.
    pAcceptor = network.MakeAcceptor();
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, pAcceptor->StartListen(&sink, CCmInetAddr("192.0.2.1", 0)));
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&sink, CCmInetAddr("127.0.0.1", 0)));
}

TEST(ConnectionManagerTest, ConnectorProxyIndicatesOnceAndForgetsWhatWasPosted) {
    CTestNetwork network;
    CCmTraceCapture trace;
    CTestConnectSink sink;
    const CTestListener listener;
    auto pConnector = network.MakeConnector();
    const auto startAndPost = [&] {
        const DWORD dwPending = network.Main().GetPendingEventsCount();
        pConnector->AsycConnect(&sink, listener.Addr());
        YieldUntil([&] { return network.Main().GetPendingEventsCount() > dwPending; });
    };
    pConnector->AsycConnect(nullptr, listener.Addr());
    startAndPost();
    pConnector->AsycConnect(&sink, listener.Addr());
    EXPECT_EQ(2u, trace.Count("CCmConnectorThreadProxy::AsycConnect, refused."));
    pConnector->CancelConnect();
    startAndPost();
    network.RunPosted();
    EXPECT_EQ(std::vector<CmResult>{CM_OK}, sink.m_Reasons);
    // Again, and again from inside; then released inside.
    sink.m_Indicated = [&] {
        if (sink.Count() == 2)
            pConnector->AsycConnect(&sink, CCmInetAddr("host.test", 1));
        else
            pConnector.Reset();
    };
    pConnector->AsycConnect(&sink, listener.Addr());
    network.RunUntil([&] { return sink.Count() == 3; });
    EXPECT_EQ(CM_ERROR_NETWORK_DNS_FAILURE, sink.m_Reasons.back());
    pConnector = network.MakeConnector();
    startAndPost();
    pConnector.Reset();
    network.RunPosted();
    EXPECT_EQ(3u, sink.Count());
    // What nobody kept, and what was dropped on the way, is closed.
    sink.m_Transports.clear();
    int nClosed = 0;
    for (CTestFd peer = listener.Accept(); peer.Get() != -1; peer = listener.Accept()) {
        std::string strData;
        network.RunUntil([&] { return ReadToEnd(peer, strData); });
        ++nClosed;
    }
    EXPECT_EQ(4, nClosed);
}
