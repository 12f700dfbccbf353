#include <netinet/tcp.h>

#include "talvo/base/config.h"
#include "talvo/transport/base_types.h"
#include "tests/support/network_fixture.h"

namespace {

using Sizes = std::vector<int>;  // of the send buffer, the receive buffer and a read

Sizes SizesOf(ICmTransport& aTransport) {
    return {Get<int>(aTransport, CM_OPT_TRANSPORT_SNDBUF), Get<int>(aTransport, CM_OPT_TRANSPORT_RCVBUF),
            static_cast<int>(Get<DWORD>(aTransport, CM_OPT_TRANSPORT_READ_SIZE))};
}

// Of the accepted and the connected end of a connection that is opened now.
std::vector<Sizes> Connect(
    const CTestNetwork& aNetwork, DWORD aType = CCmConnectionManager::CTYPE_TCP,
    const std::function<void(ICmAcceptorConnectorId*)>& aSetOptions = [](auto*) {}) {
    CTestConnectSink accepted, connected;
    CCmInetAddr addr = Loopback();
    const auto pAcceptor = aNetwork.MakeAcceptor(aType);
    aSetOptions(pAcceptor.Get());
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&accepted, addr));
    EXPECT_EQ(CM_OK, pAcceptor->GetListenAddr(addr));
    const auto pConnector = aNetwork.MakeConnector(aType);
    aSetOptions(pConnector.Get());
    pConnector->AsycConnect(&connected, addr);
    aNetwork.RunUntil([&] { return accepted.Count() == 1 && connected.Count() == 1; });
    int nUndelayed = 0;
    socklen_t length = sizeof nUndelayed;
    const HANDLE fd = Get<HANDLE>(*accepted.m_Transports[0], CM_OPT_TRANSPORT_FD);
    const int nRv = getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nUndelayed, &length);
    EXPECT_TRUE(nRv != 0 || nUndelayed == 1) << "the listener's; a path has none";
    const CTestSink sinks[2] = {CTestSink(*accepted.m_Transports[0]), CTestSink(*connected.m_Transports[0])};
    return {SizesOf(*accepted.m_Transports[0]), SizesOf(*connected.m_Transports[0])};
}

// Refuses every attempt, and the server name "bad".
struct CNamed final : ACmConnectorInternal {
    int Connect(const CCmInetAddr&, CCmInetAddr*) override { return -1; }
    void Close() override {}
    CmResult SetOption(DWORD aCommand, void* aArg) override {
        EXPECT_EQ(CM_OPT_CONNECT_SERVER_NAME, aCommand);
        s_Names.push_back(*static_cast<CCmString*>(aArg));
        return s_Names.back() == "bad" ? CM_ERROR_NOT_FOUND : CM_OK;
    }

    static inline std::vector<CCmString> s_Names;
};

}  // namespace

TEST(TcpSettingsTest, OnlyTheConfigurationFixesTheBuffers) {
    const CCmTempDir dir;
    const CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    const auto configure = [&](const std::string& aText) {
        EXPECT_EQ(CM_OK, load_config_file(dir.Write("talvo.cfg", "[Transport]\n" + aText).c_str()));
    };
    const CTestFd plain = MakeTcpSocket(Loopback().GetType());
    int nReceive = 0;
    socklen_t length = sizeof nReceive;
    EXPECT_EQ(0, getsockopt(plain.Get(), SOL_SOCKET, SO_RCVBUF, &nReceive, &length));
    const auto sizes = Connect(network);
    EXPECT_GE(sizes[1][1], nReceive) << "no longer the system's";
    EXPECT_EQ(16384, sizes[0][2]);
    configure("SendBuffer=20000\nReceiveBuffer=30000\nReadSize=8192\n");
    EXPECT_EQ(std::vector<Sizes>(2, {40000, 60000, 8192}), Connect(network));
    configure("ReadSize=4095\n");
    EXPECT_EQ(16384, Connect(network)[0][2]);
    load_config_file("");
}

TEST(TcpSettingsTest, OptionsOfConnectorsAndAcceptorsReachTheSocketsThatTheyOpen) {
    const CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    constexpr DWORD TCP = CCmConnectionManager::CTYPE_TCP, UDP = CCmConnectionManager::CTYPE_UDP;
    constexpr DWORD PROXY = CCmConnectionManager::CTYPE_FORCE_THREAD_PROXY;
    const auto set = [&](ICmAcceptorConnectorId* aId) {
        ICmConnectOptions& options = *cm_get_connect_options(aId);
        Set(options, CM_OPT_TRANSPORT_SNDBUF, 20000);
        Set(options, CM_OPT_TRANSPORT_RCVBUF, 30000);
        Set(options, CM_OPT_TRANSPORT_READ_SIZE, 131072);  // proxies and protocol connections raise one below 65,536
        int nBad = -1;
        for (const DWORD dwOption : {CM_OPT_TRANSPORT_READ_SIZE, CM_OPT_TRANSPORT_RCVBUF, CM_OPT_TRANSPORT_TOS})
            EXPECT_EQ(CM_ERROR_INVALID_ARG, options.SetOption(dwOption, &nBad));
        CCmString strName = "name";
        EXPECT_EQ(CM_ERROR_INVALID_ARG, options.SetOption(CM_OPT_CONNECT_SERVER_NAME, &strName)) << "not encrypted";
        EXPECT_EQ(30000, Get<int>(options, CM_OPT_TRANSPORT_RCVBUF));
    };
    for (const DWORD dwType : {TCP, TCP | CCmConnectionManager::CTYPE_PDU_LENGTH, TCP | PROXY})
        EXPECT_EQ(std::vector<Sizes>(2, {40000, 60000, 131072}), Connect(network, dwType, set));
    for (const DWORD dwType : {UDP, UDP | PROXY}) {
        const auto pConnector = network.MakeConnector(dwType);
        ICmConnectOptions& options = *cm_get_connect_options(pConnector.Get());
        Set(options, CM_OPT_TRANSPORT_RCVBUF, 30000);
        int nRead = 131072;
        EXPECT_EQ(CM_ERROR_INVALID_ARG, options.SetOption(CM_OPT_TRANSPORT_READ_SIZE, &nRead));
    }
}

TEST(TcpSettingsTest, AProxyPassesEachValueOnceAndFailsARequestWithTheRefusalOfIt) {
    constexpr DWORD TYPE = 0x302;
    const CTestNetwork network;
    const auto maker = [](const CCmConnectorSettings&) -> std::unique_ptr<ACmConnectorInternal> {
        return std::make_unique<CNamed>();
    };
    EXPECT_EQ(CM_OK, cm_offer_base_type(TYPE, {maker, nullptr}));
    const auto pConnector = network.MakeConnector(TYPE);
    ICmConnectOptions& options = *cm_get_connect_options(pConnector.Get());
    CTestConnectSink sink;
    std::vector<CmResult> reasons;
    for (const char* pName : {"one", "", "bad", "bad", "two"}) {
        if (*pName)
            Set(options, CM_OPT_CONNECT_SERVER_NAME, CCmString(pName));
        pConnector->AsycConnect(&sink, Loopback());
        reasons.push_back(pName == CCmString("bad") ? CM_ERROR_NOT_FOUND : CM_ERROR_NETWORK_CONNECT_TIMEOUT);
        network.RunUntil([&] { return sink.Count() == reasons.size(); });
    }
    EXPECT_EQ(reasons, sink.m_Reasons);
    EXPECT_EQ((std::vector<CCmString>{"one", "bad", "bad", "two"}), CNamed::s_Names);
    EXPECT_EQ("two", Get<CCmString>(options, CM_OPT_CONNECT_SERVER_NAME));
    for (CCmString strBad : {CCmString(256, 'a'), CCmString("a\0b", 3), CCmString(".below"), CCmString("a*.b.c")})
        EXPECT_EQ(CM_ERROR_INVALID_ARG, options.SetOption(CM_OPT_CONNECT_SERVER_NAME, &strBad));
    cm_offer_base_type(TYPE, {});
}
