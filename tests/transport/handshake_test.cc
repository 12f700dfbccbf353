#include "talvo/transport/tcp/handshake.h"

#include <poll.h>

#include "talvo/transport/base_types.h"
#include "talvo/transport/tcp/acceptor_tcp.h"
#include "talvo/transport/tcp/connector_tcp.h"
#include "tests/support/network_fixture.h"

namespace {

constexpr DWORD TYPE = 0x300;

// Sends a greeting and wants one, and reads too far if more comes.
class CGreeting : public talvo::IHandshake {
public:
    CGreeting(std::string aOurs, std::string aTheirs, CmResult aReason)
        : m_strOurs(std::move(aOurs)), m_strTheirs(std::move(aTheirs)), m_Reason(aReason) {}

    EStep Step(CCmTransportTcp& aTransport) override {
        while (!m_strOurs.empty()) {
            const int nSent = aTransport.Send_i(m_strOurs.data(), static_cast<DWORD>(m_strOurs.size()));
            if (nSent <= 0)
                return nSent == 0 ? WRITE : FAILED;
            m_strOurs.erase(0, static_cast<size_t>(nSent));
        }
        char buffer[100];
        while (m_strRead.size() < m_strTheirs.size()) {
            const int nRead = aTransport.Recv_i(buffer, sizeof buffer);
            if (nRead < 0)
                return nRead == -2 ? READ : FAILED;
            m_strRead.append(buffer, static_cast<size_t>(nRead));
        }
        const std::string strRest = m_strRead.substr(m_strTheirs.size());
        EXPECT_EQ(CM_OK, aTransport.UnRecv_i(strRest.data(), static_cast<DWORD>(strRest.size())));
        m_bRefused = !m_strRead.starts_with(m_strTheirs);
        return m_bRefused ? FAILED : DONE;
    }
    CCmFailure GetFailure(const CCmInetAddr& aPeer) const override {
        return m_bRefused ? CCmFailure(CM_FAILURE_PROTOCOL, "no such greeting", "greet", aPeer) : CCmFailure();
    }
    CmResult GetReason() const override { return m_Reason; }

private:
    std::string m_strOurs, m_strTheirs, m_strRead;
    const CmResult m_Reason;
    BOOL m_bRefused = FALSE;
};

// Two handshakes a connection, of a type of this test's own.
class HandshakeTest : public testing::Test, public talvo::IHandshakeMaker {
protected:
    HandshakeTest() {
        s_pMaker.reset(this, [](talvo::IHandshakeMaker*) {});
        const auto connector = [](const CCmConnectorSettings& a) {
            return CCmConnectorTcp::Make({a.m_dwType, a.m_pReactor, a.m_pUpper, s_pMaker});
        };
        const auto acceptor = [](const CCmAcceptorSettings& a) {
            return CCmAcceptorTcp::Make({a.m_dwType, a.m_pReactor, s_pMaker});
        };
        EXPECT_EQ(CM_OK, cm_offer_base_type(TYPE, {connector, acceptor}));
        m_pAcceptor = m_Network.Listen(m_Sink, m_Addr, TYPE);
        EXPECT_EQ(2, s_pMaker.use_count());
    }
    ~HandshakeTest() override { cm_offer_base_type(TYPE, {}); }

    std::unique_ptr<talvo::IHandshake> MakeHandshake(CCmTransportTcp&, DWORD aStep) override {
        if (aStep == 2)
            return nullptr;
        return std::make_unique<CGreeting>(aStep == 0 ? m_strGreeting : "", aStep == 0 ? "hello" : "again", m_Reason);
    }
    CCmTimeValue GetTimeLimit() const override { return m_tvLimit; }
    DWORD GetMostInFlight() const override { return 20; }

    // A client that has been greeted.
    CTestFd Greeted() {
        CTestFd client = ConnectPlain(m_Addr);
        m_Network.RunUntil([&] { return IsGreeted(client); });
        return client;
    }
    BOOL IsGreeted(const CTestFd& aClient) const {
        m_Network.RunPosted();
        return aClient.Read() == m_strGreeting;
    }
    BOOL IsClosed(const CTestFd& aClient) const {
        std::string strData;
        m_Network.RunPosted();
        return ReadToEnd(aClient, strData);
    }
    void UntilClosed(const CTestFd& aClient) const {
        m_Network.RunUntil([&] { return IsClosed(aClient); });
    }

    static inline std::shared_ptr<talvo::IHandshakeMaker> s_pMaker;
    const CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
    std::string m_strGreeting = "welcome";
    CmResult m_Reason = CM_ERROR_NETWORK_CONNECT_ERROR;  // of a failure
    CCmTimeValue m_tvLimit = CCmTimeValue(10);
    CTestConnectSink m_Sink;
    CCmInetAddr m_Addr;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
};

TEST_F(HandshakeTest, IndicatesBehindTheLastByteAndDeliversWhatWasReadTooFar) {
    const std::string strSent = "helloagain" + Pattern(300);
    for (const size_t stSingle : {0u, 1u, 9u}) {
        for (const BOOL bPaused : {FALSE, TRUE}) {
            CTestFd client = Greeted();
            const size_t stBefore = m_Sink.Count();
            for (size_t i = 0; i < stSingle; ++i) {
                client.Write(strSent.substr(i, 1));
                m_Network.RunPosted();
                EXPECT_EQ(stBefore, m_Sink.Count());
            }
            client.Write(strSent.substr(stSingle));
            client.Close();
            m_Network.RunUntil([&] { return m_Sink.Count() > stBefore; });
            ICmTransport& transport = *m_Sink.m_Transports.back();
            HANDLE none = CM_INVALID_HANDLE;
            EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, transport.SetOption(CM_OPT_TRANSPORT_FD, &none)) << "bytes are held";
            Set(transport, CM_OPT_TRANSPORT_PAUSE_READING, bPaused);
            CTestSink sink(transport);
            for (int i = 0; bPaused && i < 3; ++i)
                m_Network.RunPosted();
            EXPECT_EQ("", sink.Take());
            Set(transport, CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
            m_Network.RunUntil([&] { return sink.m_nDisconnects == 1; });
            EXPECT_EQ(strSent.substr(10), sink.m_strReceived);
        }
    }
}

TEST_F(HandshakeTest, AFailedOneIsClosedWithALineAndNeverIndicated) {
    CCmFakeClock clock;
    CCmTraceCapture trace;
    constexpr const char* LINE = "CCmAcceptorTcp::OnHandshakeDone, the handshake has failed. why=";
    const CTestFd wrong = Greeted(), silent = Greeted();
    CTestFd gone = Greeted();
    wrong.Write("HELLO");
    UntilClosed(wrong);
    gone.Write("hell");
    gone.Close();
    m_Network.RunUntil([] { return CCmLiveCounter::Dump().find("CHandshakeRun 1\n") != std::string::npos; });
    EXPECT_EQ(1u, trace.Count(LINE)) << "one a second";
    EXPECT_FALSE(trace.Contains("Recv_i"));
    clock.Advance(CCmTimeValue(9, 900000));
    EXPECT_FALSE(IsClosed(silent));
    clock.Advance(CCmTimeValue(0, 200000));
    UntilClosed(silent);
    EXPECT_TRUE(trace.Contains("no such greeting") && trace.Contains("the time for the handshake has passed"));
    EXPECT_EQ(2u, trace.Count(LINE));
    EXPECT_EQ(0u, m_Sink.Count());
}

TEST_F(HandshakeTest, AtTheLimitOthersWaitAndAStopOrADrainEndsThem) {
    auto pClock = std::make_unique<CCmFakeClock>();  // stands still: none of them is late
    std::vector<CTestFd> clients;
    for (int i = 0; i < 20; ++i)
        clients.push_back(Greeted());
    clients.push_back(ConnectPlain(m_Addr));
    EXPECT_FALSE(IsGreeted(clients.back()));
    clients[7].Write("helloagain");
    m_Network.RunUntil([&] { return IsGreeted(clients.back()); });
    EXPECT_EQ(1u, m_Sink.Count());

    clients.push_back(ConnectPlain(m_Addr));  // replaces one, but none that was heard of within a second
    pClock->Advance(CCmTimeValue(0, 999000));
    clients[0].Write("h");
    EXPECT_FALSE(IsGreeted(clients.back()));
    pClock->Advance(CCmTimeValue(0, 1000));
    m_Network.RunUntil([&] { return IsGreeted(clients.back()); });
    UntilClosed(clients[1]);
    EXPECT_FALSE(IsClosed(clients[0]) || IsClosed(clients[2]));
    m_Sink.m_Indicated = [&] {
        EXPECT_EQ(CM_OK, m_pAcceptor->StopListen(CM_OK));
        m_pAcceptor.Reset();
    };
    clients[2].Write("helloagain");
    UntilClosed(clients.back());
    EXPECT_FALSE(IsClosed(clients[7]) || IsClosed(clients[2]));
    m_Sink.m_Indicated = [] {};
    pClock.reset();

    m_pAcceptor = m_Network.Listen(m_Sink, m_Addr, TYPE);
    const CTestFd client = Greeted();
    CCmTimeValue tvLimit(60);
    m_Sink.m_Transports.clear();
    EXPECT_EQ(CM_OK, m_Network.Manager().Drain(&tvLimit));
    UntilClosed(client);
    EXPECT_EQ(2u, m_Sink.Count());
}

TEST_F(HandshakeTest, AConnectorReportsItsEnd) {
    const CTestListener listener;
    const auto pConnector = m_Network.MakeConnector(TYPE);
    CCmFakeClock clock;
    CCmTimeValue tvTimeout(5);
    m_strGreeting = Pattern(12 << 20);  // more than the sockets take at once
    m_Reason = CM_ERROR_NETWORK_TLS_HANDSHAKE;
    const std::tuple<std::string, ECmFailureCause, CmResult> CASES[] = {
        {"helloagain, and data", CM_FAILURE_NONE, CM_OK},
        {"HELLO", CM_FAILURE_PROTOCOL, m_Reason},
        {"close", CM_FAILURE_PROTOCOL, m_Reason},
        {"", CM_FAILURE_TIMEOUT, CM_ERROR_NETWORK_CONNECT_ERROR},
        {"no limit", CM_FAILURE_TIMEOUT, CM_ERROR_NETWORK_CONNECT_ERROR},
        {"cancel", CM_FAILURE_NONE, CM_OK}};
    for (const auto& [strAnswer, cause, reason] : CASES) {
        CTestConnectSink sink;
        pConnector->AsycConnect(&sink, listener.Addr(), strAnswer == "no limit" ? nullptr : &tvTimeout);
        CTestFd peer = listener.Accept();
        std::string strRead;
        m_Network.RunUntil([&] { return !ReadToEnd(peer, strRead) && strRead.size() == m_strGreeting.size(); });
        EXPECT_EQ(0u, sink.Count());
        if (strAnswer == "cancel")
            pConnector->CancelConnect();
        else if (strAnswer == "close")
            shutdown(peer.Get(), SHUT_WR);
        else if (cause == CM_FAILURE_TIMEOUT)
            clock.Advance(CCmTimeValue(strAnswer.empty() ? 6 : 11));
        else
            peer.Write(strAnswer);
        CTestSink received;
        sink.m_Indicated = [&] {
            if (!sink.m_Transports.empty())
                sink.m_Transports[0]->OpenWithSink(&received);
        };
        m_Network.RunUntil([&] { return received.m_strReceived == ", and data" || ReadToEnd(peer, strRead); });
        EXPECT_EQ(cause, Get<CCmFailure>(*cm_get_connect_options(pConnector.Get()), CM_OPT_CONNECT_FAILURE).GetCause());
        EXPECT_EQ(strAnswer == "cancel" ? std::vector<CmResult>() : std::vector{reason}, sink.m_Reasons);
    }
}

// Two addresses. The peer at the first one refuses: a reason of the handshake's own is the answer of the name's server.
TEST_F(HandshakeTest, NoFurtherAddressIsTriedDuringAHandshakeOrAfterARefusal) {
    struct CUser : talvo::CConnectRaceT<CCmTransportTcp>::IUser {
        void OnRaceDone(CCmRefPtrT<CCmTransportTcp> aTransport) override {
            EXPECT_EQ(nullptr, aTransport.Get());
            m_bDone = TRUE;
        }
        BOOL m_bDone = FALSE;
    };
    const auto hasClient = [](const CTestListener& aListener) {
        pollfd fd{aListener.GetFd(), POLLIN, 0};
        return poll(&fd, 1, 0) == 1;
    };
    CCmFakeClock clock;
    for (const CmResult reason : {CM_ERROR_NETWORK_CONNECT_ERROR, CM_ERROR_NETWORK_TLS_CERTIFICATE}) {
        const BOOL bFurther = reason == CM_ERROR_NETWORK_CONNECT_ERROR;
        m_Reason = reason;
        const CTestListener first, second;
        CUser user;
        talvo::CConnectRaceT<CCmTransportTcp> race(&m_Network.Main(), user, s_pMaker);
        CCmRefPtrT<CCmTransportTcp> pTransport;
        EXPECT_EQ(1, race.Run({first.Addr(), second.Addr()}, CCmInetAddr::s_InetAddrAny, {}, pTransport));
        for (const CTestListener* pListener : {&first, &second}) {
            if (pListener == &second && !bFurther)
                break;
            const CTestFd peer = pListener->Accept();
            m_Network.RunUntil([&] { return IsGreeted(peer); });
            clock.Advance(CCmTimeValue(1));
            m_Network.RunPosted();
            EXPECT_FALSE(hasClient(second));
            peer.Write("HELLO");
            m_Network.RunUntil([&] { return user.m_bDone || (pListener == &first && hasClient(second)); });
        }
        EXPECT_TRUE(user.m_bDone);
        EXPECT_FALSE(hasClient(second));
        EXPECT_EQ(bFurther ? CM_OK : reason, race.GetRefusal());
    }
}

}  // namespace
