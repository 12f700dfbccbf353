// Reliable connections over sockets, used from another thread.
#include <poll.h>

#include "talvo/connection/protocol/conn_base.h"
#include "talvo/transport/reconnect_sink.h"
#include "tests/support/network_fixture.h"
#include "tests/support/tls_certificates.h"

namespace {

constexpr DWORD RELIABLE = CCmConnectionManager::CTYPE_PDU_RELIABLE | CCmConnectionManager::CTYPE_RECONNECT_TOKEN;

// Messages and gaps in the order of their calls.
class CUser : public CTestSink, public ICmReconnectSink {
public:
    void Open(ICmTransport& aTransport) {
        ICmReconnectSink* pSink = this;
        EXPECT_EQ(CM_OK, aTransport.SetOption(CM_OPT_TRANSPORT_RECONNECT_SINK, &pSink));
        EXPECT_EQ(CM_OK, aTransport.OpenWithSink(this));
        m_Receive = [this] { m_strOrder += m_Received.back() + " "; };
    }
    void OnSuspended(ICmTransport*, CmResult) override { m_strOrder += "suspended "; }
    void OnResumed(ICmTransport*, DWORD) override { m_strOrder += "resumed "; }

    std::string m_strOrder;
};

class RlbProxyTest : public testing::TestWithParam<DWORD> {};

}  // namespace

TEST_P(RlbProxyTest, MessagesAndGapsComeInOrder) {
    const BOOL bTls = GetParam() == CM_TRANSPORT_TYPE_TLS;
    CTestNetwork network;
    CTestConnectSink servers, clients;
    CUser server, client;
    CCmInetAddr addr, addrInner;
    const auto pAcceptor = network.MakeAcceptor(RELIABLE | GetParam());
    auto pConnector = network.MakeConnector(RELIABLE | GetParam());
    if (bTls) {
        Set(*cm_get_connect_options(pAcceptor.Get()), CM_OPT_CONNECT_SSL_CONTEXT, CTestCertificates::Get().MakeServer());
        Set(*cm_get_connect_options(pConnector.Get()), CM_OPT_CONNECT_SSL_CONTEXT, CTestCertificates::Get().MakeClient());
        Set(*cm_get_connect_options(pConnector.Get()), CM_OPT_CONNECT_SERVER_NAME, CCmString("localhost"));
    }
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&servers, Loopback()));
    pAcceptor->GetListenAddr(addr);
    pConnector->AsycConnect(&clients, addr);
    network.RunUntil([&] { return servers.Count() == 1 && clients.Count() == 1; });
    pConnector.Reset();
    ICmTransport& ours = *clients.m_Transports.at(0);
    ICmTransport& theirs = *servers.m_Transports.at(0);
    client.Open(ours);
    server.Open(theirs);
    EXPECT_EQ(CM_OK, SendText(ours, "1"));
    network.RunUntil([&] { return server.m_nReceives == 1; });

    ICmTransport* pInner = nullptr;
    EXPECT_EQ(CM_OK, theirs.GetOption(CM_OPT_TRANSPORT_INNER_TRANSPORT, &pInner));
    network.InNetwork([&] {  // the client loses its transport, and the server does not notice
        ICmTransport* pLower = dynamic_cast<CConnBase&>(*pInner).GetTPTransport();
        pLower->Disconnect(CM_ERROR_NETWORK_SOCKET_ERROR);
    });
    EXPECT_EQ(CM_OK, SendText(theirs, "a"));
    EXPECT_EQ(CM_OK, SendText(ours, "2"));
    network.RunUntil([&] { return server.m_nReceives == 2 && client.m_nReceives == 1; });
    EXPECT_EQ("1 suspended resumed 2 ", server.m_strOrder);
    EXPECT_EQ("suspended resumed a ", client.m_strOrder);
    EXPECT_EQ(CM_OK, ours.GetOption(CM_OPT_TRANSPORT_INNER_TRANSPORT, &pInner));
    network.InNetwork([&] { pInner->GetOption(CM_OPT_TRANSPORT_LOCAL_ADDR, &addrInner); });
    EXPECT_EQ(addrInner, Get<CCmInetAddr>(ours, CM_OPT_TRANSPORT_LOCAL_ADDR));  // of the new transport
    EXPECT_EQ(1u, Get<CCmReconnectStatus>(ours, CM_OPT_TRANSPORT_RECONNECT_STATUS).m_dwResumed);
    // Over TLS the new transport has the connector's settings, and continues the session.
    EXPECT_TRUE(!bTls || Get<CCmSslInfo>(ours, CM_OPT_TRANSPORT_SSL_INFO).m_bResumed);
    // Accepted messages are acknowledged before an orderly end.
    EXPECT_EQ(CM_OK, SendText(ours, "3"));
    EXPECT_EQ(CM_OK, ours.Disconnect(CM_OK));
    network.RunUntil([&] { return server.m_nDisconnects == 1; });
    EXPECT_EQ("1 suspended resumed 2 3 ", server.m_strOrder);
    EXPECT_EQ(CM_OK, server.m_Reason);
}

// Otherwise the system would deliver its request later. The kept messages are never sent, and no result of Disconnect reports
// that.
TEST(RlbAttemptTest, WithoutAnAnswerItIsResetAndADrainLosesWhatIsKept) {
    CCmFakeClock clock;
    CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    const CTestListener listener;
    CTestConnectSink clients;
    CUser client;
    CCmDrainLog drain;
    CCmTimeValue tvLimit(60);
    const auto pConnector = network.MakeConnector(CCmConnectionManager::CTYPE_PDU_RELIABLE | CCmConnectionManager::CTYPE_TCP);
    pConnector->AsycConnect(&clients, listener.Addr());
    CTestFd peer = listener.Accept();
    EXPECT_EQ(8, send(peer.Get(), "\2\0\0\0\0\x12\x34\xF", 8, MSG_NOSIGNAL));
    network.RunUntil([&] { return clients.Count() == 1; });
    client.Open(*clients.m_Transports.at(0));
    peer = CTestFd();
    pollfd next{listener.GetFd(), POLLIN, 0};
    network.RunUntil([&] { return clock.Advance(CCmTimeValue(0, 10000)), poll(&next, 1, 0) == 1; });
    peer = listener.Accept();
    std::string strRequest;
    network.RunUntil([&] { return !ReadToEnd(peer, strRequest) && strRequest.size() == 8; });
    clock.Advance(CCmTimeValue(10));
    network.RunUntil([&] { return !ReadToEnd(peer, strRequest) && errno == ECONNRESET; });
    EXPECT_EQ(CM_OK, SendText(*clients.m_Transports.at(0), "never"));
    EXPECT_EQ(CM_OK, network.Manager().Drain(&tvLimit, &drain));
    network.RunUntil([&] { return clock.Advance(CCmTimeValue(0, 10000)), drain.m_nCalls == 1; });
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, drain.m_Reason);
    EXPECT_EQ(14u, drain.m_Left.m_ullLostBytes);
}

INSTANTIATE_TEST_SUITE_P(Over, RlbProxyTest, testing::Values(CM_TRANSPORT_TYPE_TCP, CM_TRANSPORT_TYPE_TLS));
