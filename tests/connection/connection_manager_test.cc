#include "talvo/connection/connection_manager.h"

#include <unistd.h>

#include "talvo/transport/tcp/acceptor_tcp.h"
#include "talvo/transport/tcp/connector_tcp.h"
#include "tests/support/network_fixture.h"

namespace {

// The result of the manager for a type, the same for a client and a server; a failure hands out nothing. Only connectors use
// proxy servers.
CmResult Judge(DWORD aType) {
    CCmRefPtrT<ICmConnector> pConnector;
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    const CmResult rv = CTestNetwork::Manager().CreateConnectionClient(aType, pConnector.ParaOut());
    const BOOL bServed = (aType & 0xFFFF) != CM_TRANSPORT_TYPE_PROXY;
    EXPECT_EQ(bServed ? rv : CM_ERROR_NOT_IMPLEMENTED,
              CTestNetwork::Manager().CreateConnectionServer(aType, pAcceptor.ParaOut()));
    EXPECT_TRUE(rv == CM_OK ? pConnector && bServed == !!pAcceptor : !pConnector && !pAcceptor);
    return rv;
}

// Types of the proxies that connected transports answer with.
constexpr DWORD DIRECT = CM_TRANSPORT_TYPE_TCP;
constexpr DWORD FORCED = DIRECT | CCmConnectionManager::CTYPE_FORCE_THREAD_PROXY;

// Connects aType to itself in the main thread and exchanges a message; what option 107 says at the client.
DWORD Exchange(const CTestNetwork& aNetwork, DWORD aType) {
    CTestConnectSink server, client;
    CTestSink serverSink, clientSink;
    CCmInetAddr addr;
    const auto pAcceptor = aNetwork.Listen(server, addr, aType);
    const auto pConnector = aNetwork.MakeConnector(aType);
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pAcceptor->StartListen(&server, addr));
    pConnector->AsycConnect(&client, addr);
    pConnector->AsycConnect(&server, addr);  // refused
    aNetwork.RunUntil([&] { return server.Count() == 1 && client.Count() == 1; });
    EXPECT_EQ(pAcceptor.Get(), server.m_pLastId);
    EXPECT_EQ(pConnector.Get(), client.m_pLastId);
    ICmTransport& ours = *client.m_Transports.at(0);
    ICmTransport& theirs = *server.m_Transports.at(0);
    ours.OpenWithSink(&clientSink);
    theirs.OpenWithSink(&serverSink);
    const std::string strPing(300000, 'p');  // more than a socket takes at a time
    EXPECT_EQ(CM_OK, SendText(ours, strPing));
    aNetwork.RunUntil([&] { return serverSink.m_strReceived == strPing; });
    const auto dwType = Get<DWORD>(ours, CM_OPT_TRANSPORT_TRAN_TYPE);
    EXPECT_EQ(CM_OK, SendText(theirs, "pong"));
    BOOL bEnd = TRUE;
    const BOOL bStream = (aType & ~0x3FFFFu) == 0;
    EXPECT_EQ(CM_OK, bStream ? theirs.SetOption(CM_OPT_TRANSPORT_END_SENDING, &bEnd) : theirs.Disconnect(CM_OK));
    aNetwork.RunUntil([&] { return clientSink.m_nDisconnects == 1; });
    EXPECT_EQ("pong", clientSink.m_strReceived);
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, clientSink.m_Reason);
    return dwType;
}

}  // namespace

TEST(ConnectionManagerTest, TypesAreJudgedInTheCallingThread) {
    CTestNetwork network;
    for (const DWORD dwType : {0x1u, 0x2u, 0x4u, 0x8u, 0xCu, 0x10001u, 0x20001u, 0x30001u, 0x10000001u, 0x10000004u,
                               0x30000002u, 0x8000001u, 0x100002u, 0x70000001u, 0x7200000Cu, 0x8000u, 0x10008000u})
        EXPECT_EQ(CM_OK, Judge(dwType)) << std::hex << dwType;
    for (const DWORD dwType : {0x70000002u, 0x8000002u})
        EXPECT_EQ(CM_ERROR_NOT_IMPLEMENTED, Judge(dwType)) << std::hex << dwType;
    for (const DWORD dwType : {0x0u, 0x3u, 0x8002u, 0x40001u, 0x10000003u})
        EXPECT_EQ(CM_ERROR_INVALID_ARG, Judge(dwType)) << std::hex << dwType;
    for (const DWORD dwType : {0x20000001u, 0x40000001u, 0x60000001u, 0x80000001u})
        EXPECT_EQ(CM_ERROR_FAILURE, Judge(dwType)) << std::hex << dwType;
    // A caller without an event queue.
    std::thread([] {
        EXPECT_EQ(CM_ERROR_NULL_POINTER, Judge(DIRECT));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, Judge(3));  // the type comes first
    }).join();
}

// From a thread beside the network thread: the same results, and indications of the kind of the winner's connection.
TEST(ConnectionManagerTest, ARaceThroughAThreadProxy) {
    constexpr DWORD PACKAGE = CCmConnectionManager::CTYPE_PDU_PACKAGE;
    CTestNetwork network;
    CTestConnectSink server, sink;
    CTestSink serverSink, clientSink;
    CCmInetAddr addr;
    const CCmInetAddr addrRefused = CTestListener().Addr();
    const auto pAcceptor = network.Listen(server, addr, DIRECT | PACKAGE);
    server.m_Indicated = [&] { server.m_Transports.back()->OpenWithSink(&serverSink); };
    CCmRefPtrT<ICmDetectionConnector> pRace;
    const auto start = [&] { pRace->StartDetectionConnect(&sink); };
    const auto untilCount = [&](size_t aCount) { network.RunUntil([&] { return sink.Count() == aCount; }); };
    ASSERT_EQ(CM_OK, network.Manager().CreateDetectionConnectionClient(pRace.ParaOut()));
    start();
    untilCount(1);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pRace->AddConnection(0x8001, addr));
    EXPECT_EQ(CM_OK, pRace->AddConnection(DIRECT, addrRefused));
    Set(*cm_get_connect_options(pRace.Get()), CM_OPT_TRANSPORT_RCVBUF, 10000);
    start();
    start();
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pRace->AddConnection(DIRECT, addr));
    untilCount(2);
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_TIMEOUT, sink.m_Reasons[0]);
    EXPECT_NE(CM_OK, sink.m_Reasons[1]);
    EXPECT_EQ(ECONNREFUSED, Get<CCmFailure>(*cm_get_connect_options(pRace.Get()), CM_OPT_CONNECT_FAILURE).GetErrno());
    EXPECT_EQ(CM_OK, pRace->AddConnection(FORCED | PACKAGE, addr));
    sink.m_Indicated = [&] { sink.m_Transports.back()->OpenWithSink(&clientSink); };
    start();
    untilCount(3);
    EXPECT_EQ(pRace.Get(), sink.m_pLastId);
    EXPECT_EQ(FORCED, Get<DWORD>(*sink.m_Transports.back(), CM_OPT_TRANSPORT_TRAN_TYPE));
    for (const char* pText : {"one", "two"})
        EXPECT_EQ(CM_OK, SendText(*sink.m_Transports.back(), pText));
    network.RunUntil([&] { return serverSink.m_nReceives == 2; });  // messages, not bytes
}

// Cancelled, released inside and released while it runs; and without the network thread.
TEST(ConnectionManagerTest, ARaceThroughAThreadProxyEndsWithItsUser) {
    CTestNetwork network;
    CTestConnectSink sink;
    const CTestListener listener;
    CCmRefPtrT<ICmDetectionConnector> pRace;
    const auto make = [&] {
        EXPECT_EQ(CM_OK, network.Manager().CreateDetectionConnectionClient(pRace.ParaOut()));
        EXPECT_EQ(CM_OK, pRace->AddConnection(DIRECT, listener.Addr()));
        pRace->StartDetectionConnect(&sink);
    };
    sink.m_Indicated = [&] { pRace.Reset(); };
    make();
    pRace->CancelConnect();
    const CCmInetAddr addrClosed = CTestListener().Addr();
    pRace->AsycConnect(&sink, addrClosed);  // to that address only
    network.RunUntil([&] { return sink.Count() > 0; });
    EXPECT_NE(CM_OK, sink.m_Reasons[0]);
    make();
    network.InNetwork([] {});
    pRace.Reset();
    network.InNetwork([] {});
    network.RunPosted();
    EXPECT_EQ(1u, sink.Count());
    make();
    pRace->CancelConnect();
    network.EndNetworkThread();
    pRace->StartDetectionConnect(&sink);
    network.RunUntil([&] { return sink.Count() == 2; });
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, sink.m_Reasons.back());
}

// A made-up transport: TCP under another number.
TEST(ConnectionManagerTest, AnOfferedBaseTypeIsAStreamLikeAnyOther) {
    constexpr DWORD MADE_UP = 3;
    CTestNetwork network;
    EXPECT_EQ(CM_OK, cm_offer_base_type(MADE_UP, {CCmConnectorTcp::Make, CCmAcceptorTcp::Make}));
    EXPECT_EQ(DIRECT, Exchange(network, MADE_UP));
    EXPECT_EQ(DIRECT, Exchange(network, MADE_UP | CCmConnectionManager::CTYPE_PDU_LENGTH));
    // An offer hides the library's own makers and gives them back.
    EXPECT_EQ(CM_OK, cm_offer_base_type(CM_TRANSPORT_TYPE_UDP, {nullptr, CCmAcceptorTcp::Make}));
    CCmRefPtrT<ICmConnector> pConnector;
    EXPECT_EQ(CM_ERROR_NOT_IMPLEMENTED, network.Manager().CreateConnectionClient(CM_TRANSPORT_TYPE_UDP, pConnector.ParaOut()));
    for (const DWORD dwType : {MADE_UP, DWORD{CM_TRANSPORT_TYPE_UDP}})
        EXPECT_EQ(CM_OK, cm_offer_base_type(dwType, {}));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, Judge(MADE_UP));
    EXPECT_EQ(CM_OK, Judge(CM_TRANSPORT_TYPE_UDP));
}

// The object for a type in the network thread, and the lines of client and server about it.
TEST(ConnectionManagerTest, ProtocolTypes) {
    const struct {
        DWORD m_dwType, m_dwCanonical;
        std::string m_strClient, m_strServer;
    } types[] = {
        {0x78100001, 0x74000000, "CTYPE_PDU_RELIABLE, BaseType = TCP", "CTYPE_PDU_RELIABLE"},
        {0x72000001, 0x74000000, "CTYPE_PDU_RELIABLE, BaseType = TCP", "CTYPE_PDU_RELIABLE"},
        {0x38100002, 0x100000, "CTYPE_SEND_NO_PARTIAL_DATA, BaseType = UDP", "CTYPE_SEND_NO_PARTIAL_DATA, BaseType = UDP"},
        {0x18000001, 0x10000000, "CTYPE_PDU_PACKAGE, bNeedKeepAlive = 0, BaseType = TCP",
         "CTYPE_PDU_PACKAGE, bNeedKeepAlive = 0"},
        {0x30000002, 0x10000000, "CTYPE_PDU_PACKAGE, bNeedKeepAlive = 1, BaseType = UDP",
         "CTYPE_PDU_PACKAGE, bNeedKeepAlive = 1"},
        {0x28000001, 0x8000000, "CTYPE_PDU_LENGTH, BaseType = TCP", "CTYPE_PDU_LENGTH, BaseType = TCP"},
    };
    CTestNetwork network;
    network.InNetwork([&] {
        for (auto [dwType, dwCanonical, strClient, strServer] : types) {
            const std::string strWhere = "CCmConnectionManager::CreateCsConnection";
            CCmTraceCapture trace;
            CCmRefPtrT<ICmConnector> pConnector;
            CCmRefPtrT<ICmAcceptor> pAcceptor;
            DWORD dwClient = dwType, dwServer = dwType;
            EXPECT_EQ(CM_OK, CCmConnectionManager::CreateCsConnectionClient(dwClient, pConnector.ParaOut()));
            EXPECT_EQ(CM_OK, CCmConnectionManager::CreateCsConnectionServer(dwServer, pAcceptor.ParaOut()));
            EXPECT_EQ(dwCanonical, dwClient);
            EXPECT_EQ(dwClient, dwServer);
            EXPECT_EQ((std::vector{strWhere + "Client(), " + strClient, strWhere + "Server(), " + strServer}), trace.Lines());
            EXPECT_EQ(CM_OK, Judge(dwType));
        }
    });
}

// Events that the network thread has posted to a proxy that was stopped, restarted or released are dropped, and their
// transports are closed.
TEST(ConnectionManagerTest, ProxiesForgetWhatWasPosted) {
    CTestNetwork network;
    CTestConnectSink accepted, sink;
    const CTestListener listener;
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    auto pConnector = network.MakeConnector();
    std::vector<CTestFd> clients;
    const auto accept = [&] {
        CCmInetAddr addr;
        pAcceptor = network.Listen(accepted, addr);
        clients.push_back(ConnectPlain(addr));
    };
    const auto connect = [&] { pConnector->AsycConnect(&sink, listener.Addr()); };
    const auto untilPosted = [&](const auto& aStart) {
        const DWORD dwPending = network.Main().GetPendingEventsCount();
        aStart();
        YieldUntil([&] { return network.Main().GetPendingEventsCount() > dwPending; });
    };
    untilPosted(accept);
    EXPECT_EQ(CM_OK, pAcceptor->StopListen(CM_OK));
    // An indication of the time before is not taken for one of now.
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, pAcceptor->StartListen(&accepted, CCmInetAddr("192.0.2.1", 0)));
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&accepted, Loopback()));
    network.RunPosted();
    untilPosted(accept);
    pAcceptor.Reset();
    network.RunPosted();
    EXPECT_EQ(0u, accepted.Count());
    untilPosted(accept);
    accepted.m_Indicated = [&] { pAcceptor.Reset(); };
    network.RunPosted();
    EXPECT_EQ(1u, accepted.Count());

    untilPosted(connect);
    pConnector->CancelConnect();
    connect();
    network.RunUntil([&] { return sink.Count() > 0; });
    EXPECT_EQ(std::vector<CmResult>{CM_OK}, sink.m_Reasons);
    // Again, and again from inside; then released inside, and released while an indication is posted.
    sink.m_Indicated = [&] { sink.Count() == 2 ? connect() : pConnector.Reset(); };
    untilPosted(connect);
    network.RunUntil([&] { return sink.Count() == 3; });
    pConnector = network.MakeConnector();
    untilPosted(connect);
    pConnector.Reset();
    network.RunPosted();
    EXPECT_EQ(3u, sink.Count());
    sink.m_Transports.clear();
    for (int i = 0; i < 5; ++i) {
        const CTestFd peer = listener.Accept();
        std::string strData;
        network.RunUntil([&] { return ReadToEnd(peer, strData); });
    }
}
