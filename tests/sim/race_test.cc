// Races of connectors over simulated links, and over a base type whose attempts the test ends by hand.
#include "talvo/talvo.h"
#include "talvo/testing/testing.h"
#include "tests/support/network_fixture.h"

namespace {

using Manager = CCmConnectionManager;

constexpr DWORD TCP = Manager::CTYPE_TCP, PACKAGE = Manager::CTYPE_PDU_PACKAGE | TCP, BY_HAND = 0x100,
                RACE = CM_TRANSPORT_TYPE_RACE;
constexpr DWORD NEVER_DIRECT = 191;  // talvo/transport/race_options.h

CCmTimeValue Msec(long aMsec) { return CCmTimeValue::FromUsec(aMsec * 1000); }
CCmInetAddr Addr(int aNumber) { return CCmInetAddr(("10.0.0." + std::to_string(aNumber)).c_str(), 80); }

struct CHandConnector : ACmConnectorInternal {
    explicit CHandConnector(ACmConnectorUpper* aUpper) : m_pUpper(aUpper) {}
    ~CHandConnector() override { CHandConnector::Close(); }
    static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings& aSettings) {
        return std::make_unique<CHandConnector>(aSettings.m_pUpper);
    }
    int Connect(const CCmInetAddr& aAddr, CCmInetAddr*) override {
        m_Addr = aAddr;
        s_Running.push_back(this);
        return 0;
    }
    void Close() override { std::erase(s_Running, this); }
    CmResult SetOption(DWORD aCommand, void* aArg) override {
        m_Options[aCommand] = *static_cast<DWORD*>(aArg);
        return CM_OK;
    }
    CCmRefPtrT<CCmScriptedTransport> Succeed() {
        const CCmRefPtrT<CCmScriptedTransport> pTransport(new CCmScriptedTransport);
        m_pUpper->OnConnectIndication(CM_OK, pTransport.Get(), this);
        return pTransport;
    }

    static inline std::vector<CHandConnector*> s_Running;
    ACmConnectorUpper* const m_pUpper;
    CCmInetAddr m_Addr;
    std::map<DWORD, DWORD> m_Options;
};

class RaceTest : public testing::Test {
protected:
    RaceTest() {
        for (const DWORD dwType : {BY_HAND, DWORD{CM_TRANSPORT_TYPE_PROXY}})
            EXPECT_EQ(CM_OK, cm_offer_base_type(dwType, {CHandConnector::Make, nullptr}));
        NewRace();
    }
    ~RaceTest() override {
        for (const DWORD dwType : {BY_HAND, DWORD{CM_TRANSPORT_TYPE_PROXY}})
            EXPECT_EQ(CM_OK, cm_offer_base_type(dwType, {}));
        EXPECT_TRUE(CHandConnector::s_Running.empty());
        EXPECT_TRUE(m_Network.GetFailures().empty());
    }
    void NewRace() { EXPECT_EQ(CM_OK, CTestNetwork::Manager().CreateDetectionConnectionClient(m_pRace.ParaOut())); }
    void Listen(int aNumber, DWORD aType = TCP) {
        m_Acceptors.push_back(CTestNetwork::MakeAcceptor(aType));
        EXPECT_EQ(CM_OK, m_Acceptors.back()->StartListen(&m_Servers, Addr(aNumber)));
    }
    void Silence(int aNumber) { m_Network.SetLink(Addr(aNumber), {{.m_tvSilentUntil = CCmTimeValue::s_tvMax}, {}}); }
    void Add(int aNumber, DWORD aType = TCP, long aDelay = -1) {
        CCmTimeValue tvDelay = Msec(aDelay);
        EXPECT_EQ(CM_OK, m_pRace->AddConnection(aType, Addr(aNumber), aDelay < 0 ? nullptr : &tvDelay));
    }
    // The reason of the one indication of a race, which is over aMsec later; the winner's address.
    std::pair<CmResult, std::string> Run(long aMsec, CCmTimeValue* aTimeout = nullptr) {
        const CCmTimeValue tvBegin = m_Network.Now();
        m_Sink.m_Reasons.clear();
        m_Sink.m_Transports.clear();
        m_pRace->StartDetectionConnect(&m_Sink, aTimeout);
        EXPECT_EQ(0u, m_Sink.Count()) << "reported from inside";
        EXPECT_TRUE(m_Network.RunUntil([&] { return m_Sink.Count() > 0; }, CCmTimeValue(3600)));
        EXPECT_EQ(Msec(aMsec), m_Network.Now() - tvBegin);
        m_Network.RunFor(CCmTimeValue(200));
        EXPECT_EQ(1u, m_Sink.Count());
        EXPECT_EQ(static_cast<ICmAcceptorConnectorId*>(m_pRace.Get()), m_Sink.m_pLastId);
        const BOOL bWon = !m_Sink.m_Transports.empty();
        return {m_Sink.m_Reasons.at(0),
                bWon ? Get<CCmInetAddr>(*m_Sink.m_Transports[0], CM_OPT_TRANSPORT_PEER_ADDR).GetIpDisplayName() : ""};
    }
    CCmFailure GetFailure() const { return Get<CCmFailure>(*cm_get_connect_options(m_pRace.Get()), CM_OPT_CONNECT_FAILURE); }

    using CWinner = std::pair<CmResult, std::string>;
    CCmSimNetwork m_Network{1};
    CTestConnectSink m_Servers, m_Sink;
    std::vector<CCmRefPtrT<ICmAcceptor>> m_Acceptors;
    CCmRefPtrT<ICmDetectionConnector> m_pRace;
};

}  // namespace

// A connect takes 2 ms here.
TEST_F(RaceTest, TheNextOneStartsAfterItsDelayOrAfterAFailure) {
    Silence(1);
    Listen(2);
    Listen(3);
    Add(1);
    Add(2);
    Add(3);
    EXPECT_EQ(CWinner(CM_OK, "10.0.0.2"), Run(252));
    NewRace();
    Add(1, TCP, 30);
    Add(3, TCP, 1);
    EXPECT_EQ(CWinner(CM_OK, "10.0.0.3"), Run(30 + 10 + 2));  // the least delay
    NewRace();
    Add(4);  // refused
    Add(5);  // likewise
    Add(1);
    Add(2, PACKAGE, 1000);  // the peer does not speak the protocol
    Add(3, TCP, 1000);
    EXPECT_EQ(CWinner(CM_OK, "10.0.0.3"), Run(2 + 2 + 2000 + 2));
    EXPECT_EQ(CM_FAILURE_NONE, GetFailure().GetCause());
    m_Servers.m_Transports.clear();
    m_Sink.m_Transports.clear();
    m_Network.RunFor(CCmTimeValue(100));
    EXPECT_EQ(0u, m_Network.CountEnds()) << "a loser is left";
}

TEST_F(RaceTest, AllFailedOrTooLateIsOneReport) {
    CCmTraceCapture trace;
    EXPECT_EQ(CWinner(CM_ERROR_NETWORK_CONNECT_TIMEOUT, ""), Run(0));  // nothing to race
    Silence(1);
    EXPECT_EQ(CM_OK, m_pRace->AddConnection(TCP, CCmInetAddr("not.a.name", 80)));
    Add(4);
    EXPECT_EQ(CWinner(CM_ERROR_NETWORK_DNS_FAILURE, ""), Run(2));
    EXPECT_STREQ("connect to not.a.name:80", GetFailure().GetAttempt());
    EXPECT_EQ(2u, trace.Count("connection failed. number="));
    Add(1);
    CCmTimeValue tvTimeout = Msec(700);
    EXPECT_EQ(CWinner(CM_ERROR_NETWORK_CONNECT_ERROR, ""), Run(700, &tvTimeout));
    EXPECT_EQ(CM_FAILURE_TIMEOUT, GetFailure().GetCause());
    // A drain ends a race, even one that has started no connection.
    NewRace();
    Add(1, TCP, 5000);
    CCmDrainLog drain;
    m_pRace->StartDetectionConnect(&m_Sink);
    EXPECT_EQ(CM_OK, CTestNetwork::Manager().Drain(&tvTimeout, &drain));
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ(2u, m_Sink.Count());
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, m_Sink.m_Reasons.back());
    EXPECT_STREQ("connect to 10.0.0.1:80", GetFailure().GetAttempt());
}

TEST_F(RaceTest, OfTwoInOneTurnTheOneAddedFirstWins) {
    CCmRefPtrT<CCmScriptedTransport> pFirst, pSecond;
    for (const DWORD dwType : {BY_HAND, BY_HAND, BY_HAND})
        Add(1, dwType, 10);
    m_Network.After(Msec(100), [&] {
        const auto running = CHandConnector::s_Running;
        pSecond = running.at(1)->Succeed();
        EXPECT_EQ(1u, CHandConnector::s_Running.size()) << "the third one, added later, has lost already";
        pFirst = running.at(0)->Succeed();
    });
    m_Sink.m_Indicated = [&] { EXPECT_EQ(std::vector<CmResult>{CM_OK}, pSecond->m_Disconnects); };
    m_pRace->StartDetectionConnect(&m_Sink);
    m_Network.RunFor(CCmTimeValue(1));
    ASSERT_EQ(std::vector<CmResult>{CM_OK}, m_Sink.m_Reasons);
    EXPECT_EQ(static_cast<ICmTransport*>(pFirst.Get()), m_Sink.m_Transports[0].Get());
    EXPECT_EQ(0, pFirst->m_nDisconnects);
    // A failure of the other one changes nothing.
    m_Sink.m_Indicated = [] {};
    m_pRace->StartDetectionConnect(&m_Sink);
    m_Network.RunFor(CCmTimeValue(1));
    m_Network.After(Msec(1), [] {
        const auto running = CHandConnector::s_Running;
        running.at(1)->Succeed();
        running.at(0)->m_pUpper->OnConnectIndication(CM_ERROR_NETWORK_CONNECT_ERROR, nullptr, running.at(0));
    });
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ((std::vector<CmResult>{CM_OK, CM_OK}), m_Sink.m_Reasons);
    // One that is connected and not yet indicated is closed by a cancel and by the last release, without a report.
    for (int i = 0; i < 2; ++i) {
        m_pRace->StartDetectionConnect(&m_Sink);
        m_Network.RunFor(CCmTimeValue(1));
        m_Network.After(Msec(1), [&] {
            pSecond = CHandConnector::s_Running.at(1)->Succeed();
            m_pRace->CancelConnect();
            if (i == 1)
                m_pRace.Reset();
        });
        m_Network.RunFor(CCmTimeValue(1));
        EXPECT_EQ(2u, m_Sink.Count());
        EXPECT_EQ(1, pSecond->m_nDisconnects);
    }
}

// A protocol connection wins at once: the message behind its handshake would be lost otherwise.
TEST_F(RaceTest, AProtocolConnectionWinsWithItsFirstMessage) {
    CTestSink log;
    Silence(1);
    Listen(2, PACKAGE);
    m_Servers.m_Indicated = [&] { SendText(*m_Servers.m_Transports.back(), "hello"); };
    m_Sink.m_Indicated = [&] { m_Sink.m_Transports.back()->OpenWithSink(&log); };
    Add(1);
    Add(2, PACKAGE);
    Run(254);
    EXPECT_EQ("hello", log.m_strReceived);
}

TEST_F(RaceTest, CallsOfEveryKindHaveAResult) {
    const CCmInetAddr addr = Addr(1);
    for (const auto& [dwType, expected] : {std::pair{RACE, CM_ERROR_INVALID_ARG},
                                           {0x10008001u, CM_ERROR_INVALID_ARG},
                                           {3u, CM_ERROR_INVALID_ARG},
                                           {0x8000002u, CM_ERROR_NOT_IMPLEMENTED},
                                           {0x20000001u, CM_ERROR_FAILURE}})
        EXPECT_EQ(expected, m_pRace->AddConnection(dwType, addr)) << dwType;
    ICmConnectOptions& options = *cm_get_connect_options(m_pRace.Get());
    // Options of all, of the first and of the last.
    Set(options, CM_OPT_TRANSPORT_RCVBUF, 10000);
    Set(options, CM_OPT_CONNECT_HANDSHAKE_TIME, DWORD{77});
    Add(1, TCP);
    EXPECT_EQ(10000, Get<int>(options, CM_OPT_TRANSPORT_RCVBUF));
    DWORD dwTime = 0;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, options.SetOption(CM_OPT_CONNECT_HANDSHAKE_TIME, &dwTime)) << "not over TCP";
    Add(2, BY_HAND, 10);
    Set(options, CM_OPT_TRANSPORT_SNDBUF, 20000);
    while (m_pRace->AddConnection(BY_HAND, addr) == CM_OK) {
    }
    EXPECT_EQ(0, Get<int>(options, CM_OPT_TRANSPORT_SNDBUF)) << "that of the one before";
    CCmTraceCapture trace;
    m_pRace->StartDetectionConnect(nullptr);
    m_pRace->StartDetectionConnect(&m_Sink);
    m_pRace->AsycConnect(&m_Sink, addr);
    EXPECT_EQ(2u, trace.Count("CCmDetectionConnector::StartDetectionConnect, refused."));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, m_pRace->AddConnection(TCP, addr));
    m_Network.RunFor(CCmTimeValue(10));
    EXPECT_EQ(15u, CHandConnector::s_Running.size());
    EXPECT_EQ((std::map<DWORD, DWORD>{
                  {CM_OPT_TRANSPORT_RCVBUF, 10000}, {CM_OPT_CONNECT_HANDSHAKE_TIME, 77}, {CM_OPT_TRANSPORT_SNDBUF, 20000}}),
              CHandConnector::s_Running[0]->m_Options);
    m_Sink.m_Indicated = [&] { m_pRace.Reset(); };
    CHandConnector::s_Running[14]->Succeed();
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ(1u, m_Sink.Count());
}

// The race of type 0x8001: directly, and 250 ms later through a proxy, which needs no direct way of its own.
TEST_F(RaceTest, TypeOfADirectAndAProxiedConnector) {
    auto pConnector = CTestNetwork::MakeConnector(RACE);
    ICmConnectOptions* pOptions = cm_get_connect_options(pConnector.Get());
    Set(*pOptions, CM_OPT_TRANSPORT_READ_SIZE, DWORD{20000});
    EXPECT_EQ(20000u, Get<DWORD>(*pOptions, CM_OPT_TRANSPORT_READ_SIZE));
    Listen(1);
    pConnector->AsycConnect(&m_Sink, Addr(1));
    m_Network.RunFor(Msec(2));
    EXPECT_EQ(20000u, Get<DWORD>(*m_Sink.m_Transports.at(0), CM_OPT_TRANSPORT_READ_SIZE));
    Silence(1);
    pConnector->AsycConnect(&m_Sink, Addr(1));
    m_Network.RunFor(Msec(249));
    EXPECT_TRUE(CHandConnector::s_Running.empty());
    m_Network.RunFor(Msec(1));
    ASSERT_EQ(1u, CHandConnector::s_Running.size());
    EXPECT_EQ(Addr(1), CHandConnector::s_Running[0]->m_Addr);
    EXPECT_EQ((std::map<DWORD, DWORD>{{NEVER_DIRECT, TRUE}, {CM_OPT_TRANSPORT_READ_SIZE, 20000}}),
              CHandConnector::s_Running[0]->m_Options);
    const auto pProxied = CHandConnector::s_Running[0]->Succeed();
    m_Network.RunFor(CCmTimeValue(1));
    EXPECT_EQ(static_cast<ICmTransport*>(pProxied.Get()), m_Sink.m_Transports.back().Get());
    // A reliable connection over it races again after a loss.
    CTestSink client, server;
    const DWORD dwReliable = Manager::CTYPE_PDU_RELIABLE;
    Listen(2, dwReliable | TCP);
    m_Servers.m_Indicated = [&] { m_Servers.m_Transports.back()->OpenWithSink(&server); };
    m_Sink.m_Indicated = [&] { m_Sink.m_Transports.back()->OpenWithSink(&client); };
    pConnector = CTestNetwork::MakeConnector(dwReliable | RACE);
    pConnector->AsycConnect(&m_Sink, Addr(2));
    m_Network.RunFor(CCmTimeValue(1));
    m_Network.SetPath({.m_ullCutAfter = 7});
    EXPECT_EQ(CM_OK, SendText(*m_Sink.m_Transports.back(), "hello"));
    m_Network.RunFor(Msec(5));
    m_Network.SetPath({});
    EXPECT_TRUE(m_Network.RunUntil([&] { return server.m_strReceived == "hello"; }, CCmTimeValue(60)));
}

// Whatever ends a race, and whenever: at most one indication, none after a cancel, and no end is left.
TEST_F(RaceTest, RacesCancelledAtRandomLeaveNothing) {
    for (int i = 2; i <= 4; ++i)
        Listen(i, i == 4 ? PACKAGE : TCP);
    m_Servers.m_bKeep = FALSE;
    m_Sink.m_bKeep = FALSE;
    const CCmString strAlive = CCmLiveCounter::Dump();
    size_t won = 0, cancelled = 0;
    for (int nRound = 0; nRound < 300; ++nRound) {
        NewRace();
        for (int i = 1; i <= 4; ++i) {
            const CCmSimPath path = m_Network.Chance(0.3) ? CCmSimPath{.m_tvSilentUntil = CCmTimeValue::s_tvMax}
                                                          : CCmSimPath{.m_tvDelay = m_Network.RandomTime(Msec(30))};
            m_Network.SetLink(Addr(i), {path, {}});
        }
        for (uint64_t i = m_Network.Random(5); i > 0; --i) {
            const int nPeer = static_cast<int>(1 + m_Network.Random(4));
            Add(nPeer, nPeer == 4 ? PACKAGE : TCP, static_cast<long>(m_Network.Random(40)));
        }
        m_Sink.m_Reasons.clear();
        const uint64_t ullInside = m_Network.Random(3);
        m_Sink.m_Indicated = [&] {
            if (ullInside == 0)
                m_pRace.Reset();
            else if (ullInside == 1)
                m_pRace->CancelConnect();
        };
        m_pRace->StartDetectionConnect(&m_Sink);
        m_Network.RunFor(m_Network.RandomTime(Msec(120)));
        const size_t stBefore = m_Sink.Count();
        EXPECT_LE(stBefore, 1u);
        won += stBefore;
        if (m_pRace && m_Network.Chance(0.5))
            m_pRace->CancelConnect();
        m_pRace.Reset();
        cancelled += stBefore == 0;
        m_Network.RunFor(CCmTimeValue(1));
        ASSERT_EQ(stBefore, m_Sink.Count()) << "an indication after the end, round " << nRound;
        for (int i = 1; i <= 4; ++i)
            m_Network.SetLink(Addr(i), {});
        m_Network.RunFor(CCmTimeValue(100));
        ASSERT_EQ(0u, m_Network.CountEnds()) << nRound;
    }
    EXPECT_GT(won, 50u);
    EXPECT_GT(cancelled, 50u);
    NewRace();
    EXPECT_EQ(strAlive, CCmLiveCounter::Dump());
}
