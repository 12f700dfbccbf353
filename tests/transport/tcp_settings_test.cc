#include "talvo/base/config.h"
#include "tests/support/network_fixture.h"

namespace {

struct CSizes {
    int m_nSend = 0;
    int m_nReceive = 0;
    DWORD m_dwRead = 0;
};

CSizes SizesOf(ICmTransport& aTransport) {
    return {Get<int>(aTransport, CM_OPT_TRANSPORT_SNDBUF), Get<int>(aTransport, CM_OPT_TRANSPORT_RCVBUF),
            Get<DWORD>(aTransport, CM_OPT_TRANSPORT_READ_SIZE)};
}

// What both ends of a connection that is opened now have.
std::pair<CSizes, CSizes> Connect(
    const CTestNetwork& aNetwork, DWORD aType = CCmConnectionManager::CTYPE_TCP,
    const std::function<void(ICmAcceptorConnectorId*)>& aSetOptions = [](auto*) {}) {
    CTestConnectSink accepted, connected;
    CCmInetAddr addr = Loopback();
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    EXPECT_EQ(CM_OK, aNetwork.Manager().CreateConnectionServer(aType, pAcceptor.ParaOut()));
    aSetOptions(pAcceptor.Get());
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&accepted, addr));
    EXPECT_EQ(CM_OK, pAcceptor->GetListenAddr(addr));
    const auto pConnector = aNetwork.MakeConnector(aType);
    aSetOptions(pConnector.Get());
    pConnector->AsycConnect(&connected, addr);
    aNetwork.RunUntil([&] { return accepted.Count() == 1 && connected.Count() == 1; });
    CTestSink sinks[2];
    EXPECT_EQ(CM_OK, accepted.m_Transports[0]->OpenWithSink(&sinks[0]));
    EXPECT_EQ(CM_OK, connected.m_Transports[0]->OpenWithSink(&sinks[1]));
    return {SizesOf(*accepted.m_Transports[0]), SizesOf(*connected.m_Transports[0])};
}

}  // namespace

TEST(TcpSettingsTest, OnlyTheConfigurationFixesTheBuffers) {
    const CCmTempDir dir;
    const CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    const auto configure = [&](const std::string& aText) {
        EXPECT_EQ(CM_OK, load_config_file(dir.Write("talvo.cfg", aText).c_str()));
    };
    const CTestFd plain = MakeTcpSocket();
    int nReceive = 0;
    socklen_t length = sizeof nReceive;
    EXPECT_EQ(0, getsockopt(plain.Get(), SOL_SOCKET, SO_RCVBUF, &nReceive, &length));
    EXPECT_GE(Connect(network).second.m_nReceive, nReceive) << "no longer the system's";
    EXPECT_EQ(16384u, Connect(network).first.m_dwRead);

    configure("[Transport]\nSendBuffer=20000\nReceiveBuffer=30000\nReadSize=8192\n");
    const auto [accepted, connected] = Connect(network);
    for (const CSizes& sizes : {accepted, connected}) {
        EXPECT_EQ(40000, sizes.m_nSend);
        EXPECT_EQ(60000, sizes.m_nReceive);
        EXPECT_EQ(8192u, sizes.m_dwRead);
    }
    configure("[Transport]\nReadSize=4095\n");
    EXPECT_EQ(16384u, Connect(network).first.m_dwRead);
    load_config_file("");
}

TEST(TcpSettingsTest, OptionsOfConnectorsAndAcceptorsReachTheSocketsThatTheyOpen) {
    const CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    int nSend = 20000, nReceive = 30000, nKept = 0;
    DWORD dwRead = 131072;  // proxies and protocol connections raise one below 65,536
    const auto set = [&](ICmAcceptorConnectorId* aId) {
        ICmConnectOptions* pOptions = cm_get_connect_options(aId);
        EXPECT_EQ(CM_OK, pOptions->SetOption(CM_OPT_TRANSPORT_SNDBUF, &nSend));
        EXPECT_EQ(CM_OK, pOptions->SetOption(CM_OPT_TRANSPORT_RCVBUF, &nReceive));
        EXPECT_EQ(CM_OK, pOptions->SetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwRead));
        DWORD dwBad = 4095;
        int nBad = -1;
        EXPECT_EQ(CM_ERROR_INVALID_ARG, pOptions->SetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwBad));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, pOptions->SetOption(CM_OPT_TRANSPORT_RCVBUF, &nBad));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, pOptions->SetOption(CM_OPT_TRANSPORT_TOS, &dwBad));
        EXPECT_EQ(CM_OK, pOptions->GetOption(CM_OPT_TRANSPORT_RCVBUF, &nKept));
        EXPECT_EQ(30000, nKept);
    };
    using Type = CCmConnectionManager;
    for (const DWORD dwType :
         {DWORD{Type::CTYPE_TCP}, Type::CTYPE_TCP | Type::CTYPE_PDU_LENGTH, Type::CTYPE_TCP | Type::CTYPE_FORCE_THREAD_PROXY}) {
        const auto [accepted, connected] = Connect(network, dwType, set);
        for (const CSizes& sizes : {accepted, connected}) {
            EXPECT_EQ(40000, sizes.m_nSend);
            EXPECT_EQ(60000, sizes.m_nReceive);
            EXPECT_EQ(dwRead, sizes.m_dwRead);
        }
    }
    for (const DWORD dwType : {DWORD{Type::CTYPE_UDP}, Type::CTYPE_UDP | Type::CTYPE_FORCE_THREAD_PROXY}) {
        const auto pConnector = network.MakeConnector(dwType);
        ICmConnectOptions* pOptions = cm_get_connect_options(pConnector.Get());
        EXPECT_EQ(CM_OK, pOptions->SetOption(CM_OPT_TRANSPORT_RCVBUF, &nReceive));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, pOptions->SetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwRead));
    }
}
