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
std::pair<CSizes, CSizes> Connect(const CTestNetwork& aNetwork) {
    CTestConnectSink accepted, connected;
    CCmInetAddr addr;
    const auto pAcceptor = aNetwork.Listen(accepted, addr);
    const auto pConnector = aNetwork.MakeConnector();
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
