#include "talvo/base/name_resolver.h"
#include "talvo/transport/connector_tcp.h"
#include "talvo/transport/connector_wrapper.h"
#include "tests/support/fake_clock.h"
#include "tests/support/network_fixture.h"
#include "tests/support/trace_capture.h"

namespace {

// Connectors of a process whose main thread is the network thread.
class ConnectorTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(CM_OK, m_pConnector->Init(CM_TRANSPORT_TYPE_TCP)); }
    void Settle() { m_Network.RunPosted(); }
    // The one reason that comes, and nothing behind it.
    CmResult Outcome() {
        EXPECT_EQ(0u, m_Sink.Count()) << "reported from inside AsycConnect";
        m_Network.RunUntil([&] { return m_Sink.Count() > 0; });
        Settle();
        EXPECT_EQ(1u, m_Sink.Count());
        EXPECT_EQ(m_pConnector.Get(), m_Sink.m_pLastId);
        const CmResult reason = m_Sink.m_Reasons.at(0);
        m_Sink.m_Reasons.clear();
        return reason;
    }

    CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
    CTestConnectSink m_Sink;
    CCmRefPtrT<CCmConnectorWrapper> m_pConnector{new CCmConnectorWrapper};
};

// An address of this machine on which nobody listens.
CCmInetAddr RefusedAddr() { return CTestListener().Addr(); }

// A listener that answers nobody any more.
class CFullListener {
public:
    CFullListener() {
        for (CTestFd& client : m_Clients)
            client = ConnectPlain(m_Listener.Addr());
    }
    const CCmInetAddr& Addr() const { return m_Listener.Addr(); }

private:
    CTestListener m_Listener{0};
    CTestFd m_Clients[4];
};

class CTestResolver : public ICmNameResolver {
public:
    CTestResolver() { Set(this); }
    ~CTestResolver() override { Set(nullptr); }
    CmResult ResolveFromCache(const CCmString& aName, DWORD& aAddr) override {
        aAddr = aName == "none.test" ? 0xFFFFFFFF : htonl(INADDR_LOOPBACK);
        return aName == "later.test" ? CM_ERROR_WOULD_BLOCK : CM_OK;
    }
};

}  // namespace

TEST_F(ConnectorTest, InitJudgesTheType) {
    CCmTraceCapture trace;
    EXPECT_TRUE(m_pConnector->IsConnector());
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_pConnector->Init(CM_TRANSPORT_TYPE_TCP));
    CCmRefPtrT<CCmConnectorWrapper> pOther(new CCmConnectorWrapper);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pOther->Init(3));
    EXPECT_EQ(1u, trace.Count("CCmConnectorWrapper::Init, error type=3 this="));
    EXPECT_EQ(CM_ERROR_NOT_IMPLEMENTED, pOther->Init(CM_TRANSPORT_TYPE_UDP));
    EXPECT_EQ(CM_OK, pOther->Init(CM_TRANSPORT_TYPE_TCP));  // refusals leave it as it was
    CCmConnectorMaker maker = nullptr;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, cm_set_connector_maker(3, CCmConnectorTcp::Make));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, cm_set_connector_maker(1, nullptr));
    EXPECT_EQ(CM_OK, cm_get_connector_maker(1, maker));
    EXPECT_NE(nullptr, maker);
}

TEST_F(ConnectorTest, FailuresUnderWayAndAtOnce) {
    CCmTraceCapture trace;
    m_pConnector->AsycConnect(&m_Sink, RefusedAddr());
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_ERROR, Outcome());
    EXPECT_TRUE(trace.Contains(" err=111"));
    CCmInetAddr foreign("192.0.2.1", 0);  // none of this machine's
    m_pConnector->AsycConnect(&m_Sink, RefusedAddr(), nullptr, &foreign);
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_TIMEOUT, Outcome());
    EXPECT_TRUE(trace.Contains("CCmConnectorTcpT::Connect_i, Open() failed! laddr=192.0.2.1 lport=0 err=99 this="));
    m_pConnector->AsycConnect(&m_Sink, CCmInetAddr("255.255.255.255", 9));
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_TIMEOUT, Outcome());
    EXPECT_EQ(2u, trace.Count("CCmConnectorWrapper::OnTimeout, connect failed."));
}

TEST_F(ConnectorTest, TimeOut) {
    const CFullListener full;
    CCmFakeClock clock;
    CCmTraceCapture trace;
    CCmTimeValue tvTimeout(5);
    m_pConnector->AsycConnect(&m_Sink, full.Addr(), &tvTimeout);
    Settle();
    clock.Advance(CCmTimeValue(4, 900000));
    Settle();
    EXPECT_EQ(0u, m_Sink.Count());
    clock.Advance(CCmTimeValue(0, 200000));
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_ERROR, Outcome());
    EXPECT_EQ(1u, trace.Count("CCmConnectorWrapper::OnTimeout, connect timeout."));
    // Zero: on the next tick.
    tvTimeout = CCmTimeValue::s_tvZero;
    m_pConnector->AsycConnect(&m_Sink, full.Addr(), &tvTimeout);
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_ERROR, Outcome());
    // A connection that succeeds leaves no timer behind.
    const CTestListener listener;
    tvTimeout = CCmTimeValue(5);
    m_pConnector->AsycConnect(&m_Sink, listener.Addr(), &tvTimeout);
    EXPECT_EQ(CM_OK, Outcome());
    clock.Advance(CCmTimeValue(60));
    Settle();
    EXPECT_EQ(0u, m_Sink.Count());
}

TEST_F(ConnectorTest, HostNames) {
    m_pConnector->AsycConnect(&m_Sink, CCmInetAddr("host.test", 80));
    EXPECT_EQ(CM_ERROR_NETWORK_DNS_FAILURE, Outcome());
    m_pConnector->AsycConnect(&m_Sink, CCmInetAddr("host.test", 80));
    m_pConnector->CancelConnect();  // before the timer
    Settle();
    EXPECT_EQ(0u, m_Sink.Count());

    CCmInetAddr known("known.test", 0), later("later.test", 0), none("none.test", 80);
    const CTestListener listener;
    known.SetPort(listener.Addr().GetPort());
    const CTestResolver resolver;
    m_pConnector->AsycConnect(&m_Sink, known);
    EXPECT_EQ(CM_OK, Outcome());
    m_pConnector->AsycConnect(&m_Sink, later);
    EXPECT_EQ(CM_ERROR_NETWORK_DNS_FAILURE, Outcome());
    m_pConnector->AsycConnect(&m_Sink, none);
    EXPECT_EQ(CM_ERROR_NETWORK_DNS_FAILURE, Outcome());
}

TEST_F(ConnectorTest, RefusesMisuse) {
    const CTestListener listener;
    CCmTraceCapture trace;
    m_pConnector->AsycConnect(nullptr, listener.Addr());
    CTestConnectSink second;
    m_pConnector->AsycConnect(&m_Sink, listener.Addr());
    m_pConnector->AsycConnect(&second, listener.Addr());
    EXPECT_EQ(2u, trace.Count("CCmConnectorWrapper::AsycConnect, refused."));
    EXPECT_EQ(CM_OK, Outcome());
    EXPECT_EQ(0u, second.Count());

    CCmRefPtrT<CCmConnectorWrapper> pNotInitialised(new CCmConnectorWrapper);
    m_pConnector = pNotInitialised;
    m_pConnector->AsycConnect(&m_Sink, listener.Addr());
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_TIMEOUT, Outcome());
}

TEST_F(ConnectorTest, CancelStopsAnAttempt) {
    const CTestListener listener;
    m_pConnector->AsycConnect(&m_Sink, listener.Addr());
    m_pConnector->CancelConnect();
    m_pConnector->CancelConnect();
    m_pConnector->AsycConnect(&m_Sink, RefusedAddr());
    m_pConnector->CancelConnect();
    CCmInetAddr foreign("192.0.2.1", 0);
    m_pConnector->AsycConnect(&m_Sink, RefusedAddr(), nullptr, &foreign);
    m_pConnector->CancelConnect();
    Settle();
    EXPECT_EQ(0u, m_Sink.Count());
    m_pConnector->AsycConnect(&m_Sink, listener.Addr());
    EXPECT_EQ(CM_OK, Outcome());
}

TEST_F(ConnectorTest, CancelAndStartAgainInsideTheIndication) {
    const CTestListener listener;
    int nLeft = 3;
    m_Sink.m_Indicated = [&] {
        m_pConnector->CancelConnect();
        if (--nLeft > 0)
            m_pConnector->AsycConnect(&m_Sink, nLeft == 2 ? RefusedAddr() : listener.Addr());
    };
    m_pConnector->AsycConnect(&m_Sink, listener.Addr());
    m_Network.RunUntil([&] { return m_Sink.Count() == 3; });
    EXPECT_EQ((std::vector<CmResult>{CM_OK, CM_ERROR_NETWORK_CONNECT_ERROR, CM_OK}), m_Sink.m_Reasons);
}

TEST_F(ConnectorTest, ReleaseInsideEveryKindOfIndication) {
    const CTestListener listener;
    CCmInetAddr foreign("192.0.2.1", 0);
    const CCmInetAddr name("host.test", 80);
    const std::function<void()> starts[] = {[&] { m_pConnector->AsycConnect(&m_Sink, listener.Addr()); },
                                            [&] { m_pConnector->AsycConnect(&m_Sink, RefusedAddr()); },
                                            [&] { m_pConnector->AsycConnect(&m_Sink, RefusedAddr(), nullptr, &foreign); },
                                            [&] { m_pConnector->AsycConnect(&m_Sink, name); }};
    m_Sink.m_Indicated = [&] { m_pConnector.Reset(); };
    m_Sink.m_bKeep = FALSE;
    for (const auto& start : starts) {
        m_Sink.m_Reasons.clear();
        m_pConnector = new CCmConnectorWrapper;
        ASSERT_EQ(CM_OK, m_pConnector->Init(CM_TRANSPORT_TYPE_TCP));
        start();
        m_Network.RunUntil([&] { return m_Sink.Count() == 1; });
        Settle();
        EXPECT_FALSE(m_pConnector);
        EXPECT_EQ(1u, m_Sink.Count());
    }
    // What nobody kept is closed.
    std::string strData;
    const CTestFd peer = listener.Accept();
    m_Network.RunUntil([&] { return ReadToEnd(peer, strData); });
}
