#include "tests/support/network_fixture.h"
#include "tests/support/tls_peer.h"

TEST(TlsConnectTest, AClientReportsWhyThereIsNoConnection) {
    const CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    constexpr DWORD TYPE = 0x0802000C;  // length-prefixed messages over TLS, behind a proxy
    CTestConnectSink server, sink;
    CCmInetAddr addr, path;
    path.SetPath("@nowhere");
    const auto pAcceptor = network.MakeAcceptor(TYPE);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pAcceptor->StartListen(&server, Loopback())) << "no certificate";
    Set(*cm_get_connect_options(pAcceptor.Get()), CM_OPT_CONNECT_SSL_CONTEXT, CTestCertificates::Get().MakeServer());
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&server, Loopback()));
    pAcceptor->GetListenAddr(addr);
    const auto pConnector = network.MakeConnector(TYPE);
    ICmConnectOptions& options = *cm_get_connect_options(pConnector.Get());
    Set(options, CM_OPT_CONNECT_SSL_CONTEXT, CTestCertificates::Get().MakeClient());
    const CCmString strOfAddress = addr.GetType() == AF_UNIX ? "localhost" : "";  // a path gives no name
    const std::tuple<CCmInetAddr, CCmString, CmResult, const char*> CASES[] = {
        {addr, "other.test", CM_ERROR_NETWORK_TLS_CERTIFICATE, "hostname mismatch"},
        {addr, "localhost.", CM_OK, ""},
        {addr, strOfAddress, CM_OK, ""},
        {path, "", CM_ERROR_INVALID_ARG, "there is no name for the server's certificate"}};
    for (const auto& [addrPeer, strName, reason, pText] : CASES) {
        const size_t stBefore = sink.Count();
        Set(options, CM_OPT_CONNECT_SERVER_NAME, strName);
        pConnector->AsycConnect(&sink, addrPeer);
        network.RunUntil([&] { return sink.Count() > stBefore; });
        EXPECT_EQ(reason, sink.m_Reasons.back()) << strName;
        EXPECT_STREQ(pText, Get<CCmFailure>(options, CM_OPT_CONNECT_FAILURE).GetText());
    }
}

// The read that ends the server's handshake brings the beginning of the data, and the end is there before the next one.
TEST(TlsConnectTest, AClientThatSendsAndClosesAtOnceLosesNothing) {
    const CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    const std::string strRecord = Pattern(10000);
    CTestConnectSink server, client;
    std::optional<CTestSink> receiver, sender;
    client.m_Indicated = [&] {
        sender.emplace(*client.m_Transports.back());
        for (int i = 0; i < 4; ++i)
            EXPECT_EQ(CM_OK, SendText(*client.m_Transports.back(), strRecord));
    };
    CCmInetAddr addr;
    const auto pAcceptor = network.MakeAcceptor(CM_TRANSPORT_TYPE_TLS);
    const auto pConnector = network.MakeConnector(CM_TRANSPORT_TYPE_TLS);
    ICmConnectOptions& options = *cm_get_connect_options(pConnector.Get());
    Set(*cm_get_connect_options(pAcceptor.Get()), CM_OPT_CONNECT_SSL_CONTEXT, CTestCertificates::Get().MakeServer());
    Set(options, CM_OPT_CONNECT_SSL_CONTEXT, CTestCertificates::Get().MakeClient());
    Set(options, CM_OPT_CONNECT_SERVER_NAME, CCmString("localhost"));
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&server, Loopback()));
    pAcceptor->GetListenAddr(addr);
    pConnector->AsycConnect(&client, addr);
    network.RunUntil([&] { return server.Count() == 1; });
    client.m_Transports.back()->Disconnect(CM_OK);
    receiver.emplace(*server.m_Transports.back());
    network.RunUntil([&] { return receiver->m_nDisconnects == 1; });
    EXPECT_EQ(4 * strRecord.size(), receiver->m_strReceived.size());
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, receiver->m_Reason);
}

// The peer closes, and a send of this side is answered with a reset. The receiver has paused meanwhile.
TEST(TlsConnectTest, AResetLosesNoDataOfAPausedReceiver) {
    const CTestNetwork network;
    const std::string strData = Pattern(40000);
    for (const int nVersion : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        for (const auto& [bEnds, bUnread] : {std::pair{TRUE, TRUE}, {TRUE, FALSE}, {FALSE, TRUE}}) {
            const CTestListener listener;
            const auto pConnector = network.MakeConnector(CM_TRANSPORT_TYPE_TLS);
            ICmConnectOptions& options = *cm_get_connect_options(pConnector.Get());
            Set(options, CM_OPT_CONNECT_SSL_CONTEXT, CTestCertificates::Get().MakeClient());
            Set(options, CM_OPT_CONNECT_SERVER_NAME, CCmString("localhost"));
            CTestConnectSink connected;
            pConnector->AsycConnect(&connected, listener.Addr());
            CTlsPeer peer(listener.Accept(), TRUE, nVersion);
            network.RunUntil([&] { return (peer.Receive(), peer.Send(), connected.Count() == 1); });
            ICmTransport& transport = *connected.m_Transports.at(0);
            CTestSink sink(transport);
            Set(transport, CM_OPT_TRANSPORT_PAUSE_READING, TRUE);
            network.InNetwork([] {});
            if (bUnread)
                SendText(transport, "unread");
            network.InNetwork([] {});
            peer.Seal(strData);
            if (bEnds)
                SSL_shutdown(peer.Get());
            network.RunUntil([&] { return (peer.Send(), peer.m_strSealed.empty()); });
            peer.Socket().Close();
            SendText(transport, "refused");
            YieldUntil([&] { return !!Get<CCmFailure>(transport, CM_OPT_TRANSPORT_LAST_FAILURE); });
            Set(transport, CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
            network.RunUntil([&] { return sink.m_nDisconnects == 1; });
            EXPECT_TRUE(strData == sink.m_strReceived) << sink.m_strReceived.size();
            EXPECT_EQ(bEnds ? CM_ERROR_NETWORK_SOCKET_ERROR : CM_ERROR_NETWORK_TLS_CUT, sink.m_Reason);
        }
    }
}
