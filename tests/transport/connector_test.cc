#include "talvo/transport/connector_wrapper.h"
#include "talvo/transport/tcp/connector_tcp.h"
#include "tests/support/network_fixture.h"

namespace {

// Connectors of a process whose main thread is the network thread.
class ConnectorTest : public testing::Test {
protected:
    ConnectorTest() { Make(CM_TRANSPORT_TYPE_TCP); }
    void Make(DWORD aType) {
        m_pConnector = new CCmConnectorWrapper;
        EXPECT_EQ(CM_OK, m_pConnector->Init(aType));
    }
    // The one reason that comes, and nothing behind it.
    CmResult Outcome() {
        EXPECT_EQ(0u, m_Sink.Count()) << "reported from inside AsycConnect";
        m_Network.RunUntil([&] { return m_Sink.Count() > 0; });
        m_Network.RunPosted();
        EXPECT_EQ(1u, m_Sink.Count());
        return std::exchange(m_Sink.m_Reasons, {}).at(0);
    }
    // One attempt that succeeds, and ones that fail under way, at once and for their name.
    void Start(int aWay) {
        const CCmInetAddr peers[] = {m_Listener.Addr(), m_Refused, m_Refused, CCmInetAddr("not a name", 80)};
        m_pConnector->AsycConnect(&m_Sink, peers[aWay], nullptr, aWay == 2 ? &m_Foreign : nullptr);
    }

    CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
    const CTestListener m_Listener;
    CCmInetAddr m_Refused{CTestListener().Addr()};  // without a listener
    CCmInetAddr m_Foreign{"192.0.2.1", 0};          // none of this machine's
    CTestConnectSink m_Sink;
    CCmRefPtrT<CCmConnectorWrapper> m_pConnector;
};

}  // namespace

TEST_F(ConnectorTest, InitJudgesTheType) {
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_pConnector->Init(CM_TRANSPORT_TYPE_TCP));
    m_pConnector = new CCmConnectorWrapper;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pConnector->Init(3));
    for (const DWORD dwType : {0u, 0x8001u, 0x10001u})
        EXPECT_EQ(CM_ERROR_INVALID_ARG, cm_offer_base_type(dwType, {CCmConnectorTcp::Make, nullptr}));
    CmResult rv = CM_OK;
    DWORD dwOffered = 0;
    while (dwOffered < 17 && (rv = cm_offer_base_type(0x100 + dwOffered, {CCmConnectorTcp::Make, nullptr})) == CM_OK)
        ++dwOffered;
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, rv);
    while (dwOffered > 0)
        cm_offer_base_type(0x100 + --dwOffered, {});
    Start(0);
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_TIMEOUT, Outcome());
    EXPECT_EQ(CM_OK, m_pConnector->Init(CM_TRANSPORT_TYPE_TCP));  // refusals leave it as it was
}

TEST_F(ConnectorTest, CancelStopsAnAttemptAndASecondOneIsRefused) {
    CCmTraceCapture trace;
    for (const DWORD dwType : {CM_TRANSPORT_TYPE_UDP, CM_TRANSPORT_TYPE_TCP}) {
        Make(dwType);
        for (int i = 0; i < 4; ++i) {
            Start(i);
            m_pConnector->CancelConnect();
        }
        m_pConnector->CancelConnect();
        m_Network.RunPosted();
        EXPECT_EQ(0u, m_Sink.Count());
    }
    m_pConnector->AsycConnect(nullptr, m_Listener.Addr());
    Start(0);
    Start(1);
    EXPECT_EQ(2u, trace.Count("CCmConnectorWrapper::AsycConnect, refused."));
    EXPECT_EQ(CM_OK, Outcome());
    EXPECT_EQ(m_pConnector.Get(), m_Sink.m_pLastId);
}
