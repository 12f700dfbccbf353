#include "talvo/transport/tcp/connector_tcp.h"
#include "tests/support/dns_helpers.h"
#include "tests/support/event_socket.h"

namespace {

constexpr DWORD TCP = CCmConnectionManager::CTYPE_TCP;
constexpr DWORD UDP = CCmConnectionManager::CTYPE_UDP;

// One attempt after the other, seen from the main thread.
class CTestClient : public CTestConnectSink {
public:
    explicit CTestClient(DWORD aType = TCP) : m_pConnector(CTestNetwork::MakeConnector(aType)) {}
    ~CTestClient() override { m_pConnector->CancelConnect(); }
    void Connect(const CCmInetAddr& aAddr, CCmTimeValue* aTimeout = nullptr) {
        m_pConnector->AsycConnect(this, aAddr, aTimeout);
    }
    const CCmRefPtrT<ICmConnector> m_pConnector;
};

// Names stand for addresses of loopback: 127.0.0.1 has a listener, 127.0.0.2 has none, and 127.0.0.3 takes no more connections
// and refuses none.
class ConnectorNameTest : public CDnsTest {
protected:
    ConnectorNameTest() {
        WriteHosts(
            "127.0.0.1 good\n"
            "127.0.0.2 refusing\n127.0.0.2 refusing-twice\n127.0.0.4 refusing-twice\n"
            "127.0.0.3 full\n"
            "127.0.0.2 second\n127.0.0.1 second\n"
            "127.0.0.3 late\n127.0.0.1 late\n"
            "127.0.0.3 hanging\n127.0.0.2 hanging\n"
            "255.255.255.255 nowhere\n");
    }

    CCmInetAddr At(const char* aName) const { return CCmInetAddr(aName, m_wPort); }

    // How an attempt ends.
    CmResult Connect(const CCmInetAddr& aAddr, DWORD aType = TCP) {
        CTestClient client(aType);
        client.Connect(aAddr);
        RunUntil([&] { return client.Count() > 0; });
        Settle();
        EXPECT_EQ(1u, client.Count());
        if (!client.m_Transports.empty())
            m_AddrPeer = PeerOf(*client.m_Transports[0]);
        return client.m_Reasons.at(0);
    }
    CCmInetAddr PeerOf(ICmTransport& aTransport) const {
        auto* pInner = Get<ICmTransport*>(aTransport, CM_OPT_TRANSPORT_INNER_TRANSPORT);
        CCmInetAddr addr;
        m_Network.InNetwork([&] { addr = Get<CCmInetAddr>(*pInner, CM_OPT_TRANSPORT_PEER_ADDR); });
        return addr;
    }

    // Until a line has been written and what belongs to it was done.
    void RunUntilTraced(const CCmTraceCapture& aTrace, const std::string& aText) const {
        RunUntil([&] { return aTrace.Contains(aText); });
        Settle();
    }

    CCmInetAddr m_AddrPeer;  // of the last connection
    const CTestListener m_Good{100, 65536, CCmInetAddr("127.0.0.1", 0)};
    const WORD m_wPort = m_Good.Addr().GetPort();
    const CFullListener m_Full{CCmInetAddr("127.0.0.3", m_wPort)};
};

}  // namespace

TEST_F(ConnectorNameTest, EachEndOfAnAttemptByNameIsReportedOnceWithItsReason) {
    EXPECT_EQ(CM_OK, Connect(At("good")));
    EXPECT_EQ(CM_OK, Connect(At("good")));  // from the cache now
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_ERROR, Connect(At("refusing")));
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_ERROR, Connect(At("refusing-twice")));
    EXPECT_EQ(CM_OK, Connect(At("second")));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(CM_OK, Connect(At("late"), UDP));
        EXPECT_STREQ("late", m_AddrPeer.GetGivenName());
    }
    CCmTraceCapture trace;
    const CCmInetAddr addrNone = At("none.invalid");  // asked for, then from the cache
    for (const DWORD dwType : {TCP, UDP})
        EXPECT_EQ(CM_ERROR_NETWORK_DNS_FAILURE, Connect(addrNone, dwType));
    EXPECT_EQ(2u, trace.Count("name not resolved. addr=none.invalid"));
    EXPECT_EQ(0u, trace.Count("Connect_i, addr="));
    const CCmInetAddr addrNowhere = At("nowhere");  // still a name; its address is known when the connect begins
    EXPECT_EQ("255.255.255.255", TextOf(Resolve("nowhere")));
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_TIMEOUT, Connect(addrNowhere));
}

// The address that TryResolve gives such a name stands for no machine: the system is not asked.
TEST_F(ConnectorNameTest, ACompletedNameWithoutAddressIsRefusedByItsName) {
    EXPECT_EQ(CCmDnsRecord::FAILED, Resolve("none.invalid")->GetState());
    EXPECT_EQ("255.255.255.255", TextOf(Resolve("nowhere")));
    const CCmInetAddr addrPending = At("later.invalid");
    CCmTraceCapture trace;
    const auto expectFailure = [&](ICmAcceptorConnectorId* aId, ECmFailureCause aCause, const std::string& aName) {
        const auto failure = Get<CCmFailure>(*cm_get_connect_options(aId), CM_OPT_CONNECT_FAILURE);
        EXPECT_EQ(aCause, failure.GetCause()) << failure.ToString();
        EXPECT_EQ("resolve " + aName + ":" + std::to_string(m_wPort), failure.GetAttempt());
    };
    constexpr DWORD PACKAGE = CCmConnectionManager::CTYPE_PDU_PACKAGE;
    CCmInetAddr addrNone = At("none.invalid"), addrNowhere = At("nowhere");
    EXPECT_TRUE(addrNone.IsResolved() && addrNowhere.IsResolved());
    for (const DWORD dwType : {TCP, UDP, TCP | PACKAGE, UDP | PACKAGE}) {
        CTestClient client(dwType);
        const auto pAcceptor = CTestNetwork::MakeAcceptor(dwType);
        EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, pAcceptor->StartListen(&client, addrPending));
        expectFailure(pAcceptor.Get(), CM_FAILURE_NO_SUCH_NAME, "later.invalid");
        for (CCmInetAddr* pAddr : {&addrNone, &addrNowhere}) {
            const ECmFailureCause cause = pAddr == &addrNone ? CM_FAILURE_NO_RESOLVER : CM_FAILURE_NO_SUCH_NAME;
            EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, pAcceptor->StartListen(&client, *pAddr));
            expectFailure(pAcceptor.Get(), cause, pAddr->GetGivenName());
            for (const BOOL bLocal : {FALSE, TRUE}) {
                const size_t stBefore = client.Count();
                client.m_pConnector->AsycConnect(&client, bLocal ? At("good") : *pAddr, nullptr, bLocal ? pAddr : nullptr);
                RunUntil([&] { return client.Count() > stBefore; });
                EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_TIMEOUT, client.m_Reasons.back());
                expectFailure(client.m_pConnector.Get(), cause, pAddr->GetGivenName());
            }
        }
    }
    EXPECT_EQ(0u, trace.Count("connect() ") + trace.Count("bind() ") + trace.Count("Open() "));
}

TEST_F(ConnectorNameTest, TheNextAddressIsTriedAQuarterOfASecondLater) {
    for (const BOOL bCancel : {FALSE, TRUE}) {
        CCmTraceCapture trace;
        CTestClient client;
        client.Connect(At("late"));
        RunUntilTraced(trace, "Connect_i, addr=127.0.0.3");
        m_Clock.Advance(CCmTimeValue(0, 249999));
        Settle();
        EXPECT_FALSE(trace.Contains("Connect_i, addr=127.0.0.1"));
        if (bCancel)
            client.m_pConnector->CancelConnect();
        m_Clock.Advance(CCmTimeValue(0, 1));
        RunUntil([&] { return bCancel || client.Count() > 0; });
        Settle();
        EXPECT_EQ(!bCancel, trace.Contains("Connect_i, addr=127.0.0.1"));
        EXPECT_EQ(bCancel ? std::vector<CmResult>() : std::vector<CmResult>{CM_OK}, client.m_Reasons);
    }
}

TEST_F(ConnectorNameTest, TheTimeOutCoversEverythingAndEndsEveryAttempt) {
    CCmTraceCapture trace;
    CTestClient client;
    CCmTimeValue tvTimeout(2);
    client.Connect(At("hanging"), &tvTimeout);
    RunUntilTraced(trace, "Connect_i, addr=127.0.0.3");
    m_Clock.Advance(CCmTimeValue(1));
    RunUntilTraced(trace, "connect() failed! addr=127.0.0.2");
    EXPECT_EQ(0u, client.Count());  // the first one still runs
    m_Clock.Advance(CCmTimeValue(1));
    RunUntil([&] { return client.Count() > 0; });
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_ERROR, client.m_Reasons.back());
    EXPECT_TRUE(trace.Contains("CCmConnectorWrapper::OnTimeout, connect timeout."));

    // The same clock runs during the look-up, which gets no answer here.
    const CSilentServer silent;
    m_Keys["Servers"] = silent.m_strAddress;
    Configure();
    client.Connect(At("slow.test"), &tvTimeout);
    EXPECT_NE("", silent.m_Fd.Read());  // waits until it is asked
    Settle();
    m_Clock.Advance(CCmTimeValue(2));
    RunUntil([&] { return client.Count() > 1; });
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_ERROR, client.m_Reasons.back());

    // And a cancel in the middle is the end of it.
    client.Connect(At("slow.test"));
    Settle();
    client.m_pConnector->CancelConnect();
    client.Connect(At("good"));
    RunUntil([&] { return client.Count() > 2; });
    EXPECT_EQ(CM_OK, client.m_Reasons.back());
    EXPECT_EQ(3u, client.Count());
}
