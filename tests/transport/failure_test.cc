#include <arpa/inet.h>

#include "tests/support/network_fixture.h"

namespace {

constexpr DWORD RAW = CCmConnectionManager::CTYPE_TCP;
constexpr DWORD LENGTH = RAW | CCmConnectionManager::CTYPE_PDU_LENGTH;
constexpr DWORD PACKAGE = RAW | CCmConnectionManager::CTYPE_PDU_PACKAGE;
constexpr DWORD UDP = CCmConnectionManager::CTYPE_UDP;

CCmFailure FailureOf(ICmAcceptorConnectorId* aId) {
    return Get<CCmFailure>(*cm_get_connect_options(aId), CM_OPT_CONNECT_FAILURE);
}

CCmFailure FailureOf(ICmTransport& aTransport) { return Get<CCmFailure>(aTransport, CM_OPT_TRANSPORT_LAST_FAILURE); }

std::string AddressOf(ICmTransport& aTransport, DWORD aCommand) {
    return cm_address_text(Get<CCmInetAddr>(aTransport, aCommand));
}

// A failure that is read inside an upcall, while the network thread cannot answer.
class FailureTest : public testing::Test {
protected:
    template <class Read>
    void WithoutTheNetworkThread(Read aRead) {
        CCmEventThread busy;
        m_Network.NetworkLink().Post([&] { busy.Wait(); });
        aRead();
        busy.Signal();
        m_Network.InNetwork([] {});
    }
    // How an attempt ends, and the failure as it is told inside the upcall.
    std::pair<CmResult, CCmFailure> Connect(const CCmInetAddr& aPeer, DWORD aType, CCmInetAddr* aLocal,
                                            CCmTimeValue* aTimeout) {
        const auto pConnector = m_Network.MakeConnector(aType);
        CTestConnectSink sink;
        CCmFailure failure;
        sink.m_Indicated = [&] { WithoutTheNetworkThread([&] { failure = FailureOf(pConnector.Get()); }); };
        pConnector->AsycConnect(&sink, aPeer, aTimeout, aLocal);
        m_Network.RunUntil([&] {
            m_Clock.Advance(CCmTimeValue(0, 250000));
            return sink.Count() == 1;
        });
        EXPECT_EQ(failure.ToString(), FailureOf(pConnector.Get()).ToString());
        return {sink.m_Reasons.at(0), failure};
    }

    CCmFakeClock m_Clock;
    CTestNetwork m_Network;
    const CCmInetAddr m_Refused{CTestListener().Addr()};
};

}  // namespace

TEST_F(FailureTest, ConnectorsTellTheCause) {
    CCmTraceCapture trace;
    const CFullListener full;
    CCmTimeValue tvTimeout(1);
    CCmInetAddr foreign(m_Refused.GetType() == AF_INET6 ? "2001:db8::1" : "192.0.2.1", 0);
    const CCmInetAddr broadcast("255.255.255.255", 9), noName("not a name", 80);
    constexpr CmResult UNDER_WAY = CM_ERROR_NETWORK_CONNECT_ERROR, AT_ONCE = CM_ERROR_NETWORK_CONNECT_TIMEOUT;
    const std::string strRefused = "connect to " + cm_address_text(m_Refused) + ": Connection refused";
    const std::string strForeign = "bind to " + cm_address_text(foreign) + ": Cannot assign requested address";
    const struct {
        CCmInetAddr m_Peer;
        DWORD m_dwType;
        CmResult m_Reason;
        ECmFailureCause m_Cause;
        std::string m_strFailure;  // how it begins
        CCmInetAddr* m_pLocal = nullptr;
        CCmTimeValue* m_pTimeout = nullptr;
    } rows[] = {
        {m_Refused, RAW, UNDER_WAY, CM_FAILURE_SYSTEM, strRefused},
        {m_Refused, LENGTH, UNDER_WAY, CM_FAILURE_SYSTEM, strRefused},
        {m_Refused, PACKAGE, UNDER_WAY, CM_FAILURE_SYSTEM, strRefused},
        {m_Refused, RAW, AT_ONCE, CM_FAILURE_SYSTEM, strForeign, &foreign},
        {m_Refused, UDP, AT_ONCE, CM_FAILURE_SYSTEM, strForeign, &foreign},
        {broadcast, RAW, AT_ONCE, CM_FAILURE_SYSTEM, "connect to 255.255.255.255:9: "},
        {broadcast, UDP, AT_ONCE, CM_FAILURE_SYSTEM, "connect to 255.255.255.255:9: "},
        {noName, RAW, CM_ERROR_NETWORK_DNS_FAILURE, CM_FAILURE_NO_SUCH_NAME, "resolve not a name:80: not a host name"},
        {noName, UDP, CM_ERROR_NETWORK_DNS_FAILURE, CM_FAILURE_NO_SUCH_NAME, "resolve not a name:80: not a host name"},
        {full.Addr(), RAW, UNDER_WAY, CM_FAILURE_TIMEOUT, "connect to " + cm_address_text(full.Addr()), nullptr, &tvTimeout},
    };
    for (const auto& row : rows) {
        const auto [reason, failure] = Connect(row.m_Peer, row.m_dwType, row.m_pLocal, row.m_pTimeout);
        EXPECT_EQ(row.m_Reason, reason) << failure.ToString();
        EXPECT_EQ(row.m_Cause, failure.GetCause()) << failure.ToString();
        EXPECT_EQ(row.m_Cause == CM_FAILURE_SYSTEM, failure.GetErrno() != 0);
        EXPECT_TRUE(failure.ToString().starts_with(row.m_strFailure)) << failure.ToString();
    }
    EXPECT_TRUE(trace.Contains(" err=111"));
    EXPECT_EQ(4u, trace.Count("CCmConnectorWrapper::OnTimeout, connect failed."));
    EXPECT_TRUE(trace.Contains("CCmConnectorUdpT::Connect, connect() failed! addr=255.255.255.255 port=9"));
    EXPECT_TRUE(trace.Contains("CCmConnectorUdpT::Connect, m_Socket.Open() failed! addr=" + foreign.GetIpDisplayName()));
}

TEST_F(FailureTest, HandshakesTellTheCause) {
    const CTestListener listener;
    const auto pConnector = m_Network.MakeConnector(PACKAGE);
    for (const BOOL bAnswer : {TRUE, FALSE}) {
        CTestConnectSink sink;
        pConnector->AsycConnect(&sink, listener.Addr());
        const CTestFd peer = listener.Accept();
        if (bAnswer)
            peer.Write("\x63");
        else
            shutdown(peer.Get(), SHUT_WR);
        m_Network.RunUntil([&] { return sink.Count() == 1; });
        const CCmFailure failure = FailureOf(pConnector.Get());
        EXPECT_EQ(CM_FAILURE_PROTOCOL, failure.GetCause()) << failure.ToString();
        EXPECT_EQ("talk to " + cm_address_text(listener.Addr()), std::string(failure.GetAttempt()));
    }
}

TEST_F(FailureTest, AcceptorsTellTheCause) {
    const CTestListener taken;
    for (const DWORD dwType : {RAW, LENGTH}) {
        CTestConnectSink sink;
        const auto pAcceptor = m_Network.MakeAcceptor(dwType);
        EXPECT_FALSE(FailureOf(pAcceptor.Get()));
        EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, pAcceptor->StartListen(&sink, taken.Addr()));
        WithoutTheNetworkThread([&] {
            EXPECT_EQ("bind to " + cm_address_text(taken.Addr()) + ": Address already in use",
                      FailureOf(pAcceptor.Get()).ToString());
        });
        EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, pAcceptor->StartListen(&sink, CCmInetAddr("192.0.2.1", 0)));
        EXPECT_EQ(EADDRNOTAVAIL, FailureOf(pAcceptor.Get()).GetErrno());
        EXPECT_EQ(CM_OK, pAcceptor->StartListen(&sink, Loopback()));
        EXPECT_FALSE(FailureOf(pAcceptor.Get()));
    }
    CCmFailure failure;
    const auto pAcceptor = m_Network.MakeAcceptor(UDP);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, cm_get_connect_options(pAcceptor.Get())->GetOption(CM_OPT_CONNECT_FAILURE, nullptr));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, cm_get_connect_options(pAcceptor.Get())->SetOption(CM_OPT_CONNECT_FAILURE, &failure));
    EXPECT_EQ(nullptr, cm_get_connect_options(nullptr));
}

// Which peer has left and why, at the last upcall and behind it: raw and as a protocol.
TEST_F(FailureTest, TransportsTellWhoLeftAndWhy) {
    for (const DWORD dwType : {RAW, LENGTH}) {
        for (const BOOL bReset : {FALSE, TRUE}) {
            CCmTraceCapture trace;
            CTestConnectSink connected;
            CCmInetAddr addr;
            const auto pAcceptor = m_Network.Listen(connected, addr, dwType);
            CTestFd peer = MakeTcpSocket(addr.GetType());
            const std::string strPeer = cm_address_text(Bind(peer));
            EXPECT_EQ(-1, connect(peer.Get(), reinterpret_cast<const sockaddr*>(addr.GetPtr()), addr.GetSize()));
            m_Network.RunUntil([&] { return connected.Count() == 1; });
            ICmTransport& transport = *connected.m_Transports[0];
            CTestSink sink(transport);
            EXPECT_FALSE(FailureOf(transport));
            CCmFailure failure;
            sink.m_Disconnect = [&] {
                WithoutTheNetworkThread([&] {
                    failure = FailureOf(transport);
                    EXPECT_EQ(strPeer, AddressOf(transport, CM_OPT_TRANSPORT_PEER_ADDR));
                    EXPECT_EQ(cm_address_text(addr), AddressOf(transport, CM_OPT_TRANSPORT_LOCAL_ADDR));
                });
            };
            const linger hard{bReset, 0};
            EXPECT_EQ(0, setsockopt(peer.Get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard));
            peer.Close();
            m_Network.RunUntil([&] { return sink.m_nDisconnects == 1; });
            EXPECT_EQ("disconnect 20001", sink.Take());
            EXPECT_EQ(bReset ? ECONNRESET : 0, failure.GetErrno());
            EXPECT_EQ(bReset, trace.Contains("CCmTransportTcp::OnClose, the connection has failed."));
            EXPECT_EQ(!bReset, trace.Contains("CCmTransportTcp::OnClose, the peer has closed in good order."));
            EXPECT_EQ(failure.ToString(), FailureOf(transport).ToString());
            EXPECT_EQ(strPeer, AddressOf(transport, CM_OPT_TRANSPORT_PEER_ADDR));
        }
    }
}

// The loop reports a failure that the system does not report after a failed send, behind the bytes that can still be received.
TEST_F(FailureTest, AFailedSendEndsTheConnectionFromTheLoop) {
    for (const DWORD dwType : {RAW, LENGTH}) {
        for (const BOOL bPaused : {FALSE, TRUE}) {
            CTestFd peer;
            const auto pTransport = m_Network.ConnectTo(peer, 65536, dwType);
            ICmTransport& transport = *pTransport;
            CTestSink sink(transport);
            Set(transport, CM_OPT_TRANSPORT_PAUSE_READING, bPaused);
            const auto fd = Get<HANDLE>(transport, CM_OPT_TRANSPORT_FD);
            m_Network.InNetwork([&] {
                EXPECT_EQ(0, shutdown(fd, SHUT_WR));  // what the system answers with EPIPE from now on, and with no event
                peer.Write(std::string("\0\0\0\x04last", 8));
            });
            EXPECT_EQ(CM_OK, SendText(transport, "lost"));
            m_Network.InNetwork([] {});
            m_Network.InNetwork([] {});
            Set(transport, CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
            m_Network.RunUntil([&] { return sink.m_nDisconnects == 1; });
            EXPECT_EQ(EPIPE, FailureOf(transport).GetErrno());
            EXPECT_TRUE(sink.m_strReceived.ends_with("last"));
        }
    }
}
