#include "tests/sim/sim_scenario.h"

#include "talvo/base/live_counter.h"
#include "talvo/connection/protocol/conn_acceptor.h"
#include "talvo/connection/protocol/conn_connector.h"
#include "talvo/connection/protocol/len_pkg_conn.h"
#include "talvo/connection/protocol/pkg_conn_client.h"
#include "talvo/connection/protocol/pkg_conn_server.h"
#include "talvo/connection/protocol/pkg_sender.h"
#include "tests/sim/sim_transport.h"

namespace {

template <class Conn>
CCmRefPtrT<ICmConnector> Connector(CSimNetwork& aNetwork, const CSimKind& aKind) {
    const CCmRefPtrT<ICmConnector> pBelow(new CSimConnector(aNetwork, aKind.m_bDatagrams));
    return CCmRefPtrT<ICmConnector>(new CConnConnectorT<Conn>(pBelow, aKind.m_bKeepAlive));
}

template <class Conn>
CCmRefPtrT<ICmAcceptor> Acceptor(CSimNetwork& aNetwork, const CSimKind& aKind) {
    const CCmRefPtrT<ICmAcceptor> pBelow(new CSimAcceptor(aNetwork));
    return CCmRefPtrT<ICmAcceptor>(new CConnAcceptorT<Conn>(pBelow, aKind.m_bKeepAlive));
}

}  // namespace

const CSimKind SIM_KINDS[] = {
    {"length", FALSE, FALSE, FALSE, FALSE, Connector<CLenPkgConn>, Acceptor<CLenPkgConn>},
    {"package", FALSE, FALSE, TRUE, TRUE, Connector<CPkgConnClient>, Acceptor<CPkgConnServer>},
    {"package-keepalive", FALSE, TRUE, TRUE, TRUE, Connector<CPkgConnClient>, Acceptor<CPkgConnServer>},
    {"nopartial", FALSE, TRUE, TRUE, FALSE, Connector<CPkgSender>, Acceptor<CPkgSender>},
    {"package over datagrams", TRUE, FALSE, TRUE, TRUE, Connector<CPkgConnClient>, Acceptor<CPkgConnServer>},
    {"package-keepalive over datagrams", TRUE, TRUE, TRUE, TRUE, Connector<CPkgConnClient>, Acceptor<CPkgConnServer>},
    {"nopartial over datagrams", TRUE, TRUE, TRUE, FALSE, Connector<CPkgSender>, Acceptor<CPkgSender>},
};

namespace {

const CCmInetAddr SERVER("127.0.0.1", CSimWorld::PORT);

constexpr int64_t CONNECT_LIMIT = 5 * SIM_SEC;  // of the connectors below, in any weather
constexpr int64_t HANDSHAKE_LIMIT = 60 * SIM_SEC;
constexpr int64_t CALM = 70 * SIM_SEC;        // every handshake has ended, every message has come
constexpr int64_t LONG_CALM = 165 * SIM_SEC;  // every silent peer has been given up

// Makes a user of every connection that comes up.
class CPeople : public ICmAcceptorConnectorSink {
public:
    CPeople(CSimWorld& aWorld, BOOL aServer) : m_World(aWorld), m_bServer(aServer) {}

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        m_World.m_Network.Note("indication", static_cast<uint64_t>(aReason));
        if (!m_bExpecting || (aReason == CM_OK) != (aTrpt != nullptr))
            m_World.m_Network.Fail("an indication that nobody expects");
        if (aTrpt && !m_World.m_Network.Chance(3))  // else it is not kept
            m_Users.push_back(std::make_unique<CSimUser>(m_World, *aTrpt, m_bServer));
    }

    std::vector<std::unique_ptr<CSimUser>> m_Users;
    BOOL m_bExpecting = FALSE;

protected:
    BOOL WildChance_i(uint64_t aPercent) { return m_World.m_bWild && m_World.m_Network.Chance(aPercent); }

    CSimWorld& m_World;
    const BOOL m_bServer;
};

// Listens, and now and then stops for a while, inside an indication.
class CServer : public CPeople {
public:
    explicit CServer(CSimWorld& aWorld) : CPeople(aWorld, TRUE) { Listen_i(); }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override {
        CPeople::OnConnectIndication(aReason, aTrpt, aId);
        if (!WildChance_i(10))
            return;
        m_bExpecting = FALSE;
        m_World.m_Network.After(m_World.m_Network.RandomTime(SIM_SEC), [this] { Listen_i(); });
        m_World.m_Network.Chance(50) ? GiveUp() : void(m_pAcceptor->StopListen(CM_OK));
    }
    void GiveUp() { m_pAcceptor.Reset(); }

private:
    void Listen_i() {
        m_bExpecting = TRUE;
        if (!m_pAcceptor)
            m_pAcceptor = m_World.m_Kind.MakeAcceptor(m_World.m_Network);
        m_pAcceptor->StartListen(this, SERVER);
    }

    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
};

// Connects, perhaps changes its mind, and connects again.
class CClient : public CPeople {
public:
    explicit CClient(CSimWorld& aWorld) : CPeople(aWorld, FALSE) { Start_i(); }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override {
        CheckIndication_i(aReason);
        CPeople::OnConnectIndication(aReason, aTrpt, aId);
        m_bExpecting = FALSE;
        if (WildChance_i(20))
            GiveUp();
        if (WildChance_i(30))
            Start_i();
    }
    void GiveUp() { m_pConnector.Reset(); }

private:
    void Start_i() {
        CSimNetwork& network = m_World.m_Network;
        if (!m_pConnector)
            m_pConnector = m_World.m_Kind.MakeConnector(network);
        m_bExpecting = TRUE;
        m_llStarted = network.Now();
        m_pConnector->AsycConnect(this, SERVER);
        m_pConnector->AsycConnect(this, SERVER);  // is refused
        if (!network.Chance(15))
            return;
        network.After(network.RandomTime(SIM_SEC), [this] {
            if (!m_bExpecting || !m_World.m_bWild)
                return;
            m_bExpecting = FALSE;
            m_World.m_Network.Chance(50) ? m_pConnector->CancelConnect() : GiveUp();
        });
    }

    // A failure that has taken longer than connecting below can is the end of the handshake, which comes in time.
    void CheckIndication_i(CmResult aReason) {
        CSimNetwork& network = m_World.m_Network;
        const int64_t llTime = network.Now() - m_llStarted;
        const BOOL bTimeout = aReason == CM_ERROR_NETWORK_CONNECT_ERROR && llTime > CONNECT_LIMIT;
        if (aReason != CM_OK && (aReason < 20000 || aReason == CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE))
            network.Fail("an indication with " + std::to_string(aReason));
        if (!network.HasJumped() && (llTime > HANDSHAKE_LIMIT || (bTimeout && llTime != HANDSHAKE_LIMIT)))
            network.Fail("an indication with " + std::to_string(aReason) + " after " + std::to_string(llTime));
    }

    CCmRefPtrT<ICmConnector> m_pConnector;
    int64_t m_llStarted = 0;
};

CSimWeather RandomWeather(CSimNetwork& aNetwork) {
    CSimWeather weather;
    if (aNetwork.Chance(20))
        return weather;
    weather.m_llMinDelay = aNetwork.RandomTime(20 * SIM_MSEC);
    weather.m_llMaxDelay = weather.m_llMinDelay + aNetwork.RandomTime(aNetwork.Chance(20) ? 2 * SIM_SEC : 30 * SIM_MSEC);
    weather.m_dwWindow = 1 + static_cast<DWORD>(aNetwork.Random(aNetwork.Chance(30) ? 300 : 100000));
    weather.m_dwMaxPiece = 1 + static_cast<DWORD>(aNetwork.Random(aNetwork.Chance(20) ? 10 : 16384));
    weather.m_dwRefused = static_cast<DWORD>(aNetwork.Random(50));
    weather.m_dwLost = static_cast<DWORD>(aNetwork.Random(40));
    weather.m_dwDoubled = static_cast<DWORD>(aNetwork.Random(30));
    weather.m_dwMangled = static_cast<DWORD>(aNetwork.Random(20));
    weather.m_dwBroken = aNetwork.Chance(30) ? static_cast<DWORD>(aNetwork.Random(100)) : 0;
    return weather;
}

class CScenario {
public:
    explicit CScenario(CSimNetwork& aNetwork)
        : m_World{aNetwork, SIM_KINDS[aNetwork.Random(std::size(SIM_KINDS))]}, m_Server(m_World) {
        aNetwork.m_pWatch = &m_World.m_Watch;
        aNetwork.m_Settled = [this] { ForAll_i([](CSimUser& aUser) { aUser.CheckStanding(); }); };
    }
    ~CScenario() {
        m_World.m_Network.m_pWatch = nullptr;
        m_World.m_Network.m_Settled = nullptr;
    }
    CScenario(const CScenario&) = delete;
    CScenario& operator=(const CScenario&) = delete;

    void Run() {
        CSimNetwork& network = m_World.m_Network;
        m_Weather = RandomWeather(network);
        network.SetWeather(m_Weather);
        for (uint64_t i = 1 + network.Random(4); i > 0; --i)
            m_Clients.push_back(std::make_unique<CClient>(m_World));
        if (network.Chance(5))
            BeSilent_i();
        for (uint64_t i = 1 + network.Random(10); i > 0; --i)
            RunAWhile_i();
        Settle_i();
        SayGoodbye_i();
    }

    const CSimWorld& GetWorld() const { return m_World; }

private:
    void RunAWhile_i() {
        CSimNetwork& network = m_World.m_Network;
        network.RunFor(network.RandomTime(10 * SIM_SEC));
        if (network.Chance(5)) {
            network.JumpClock(network.RandomTime(300 * SIM_SEC));
        }
        if (network.Chance(5))
            network.RunFor(network.RandomTime(200 * SIM_SEC));
        if (network.Chance(5))
            BeSilent_i();
    }

    void BeSilent_i() {
        CSimNetwork& network = m_World.m_Network;
        CSimWeather silent = m_Weather;
        silent.m_bSilent = TRUE;
        network.SetWeather(silent);
        network.RunFor(network.RandomTime(200 * SIM_SEC));
        network.SetWeather(m_Weather);
    }

    // Calm weather, and time enough for everything that is owed.
    void Settle_i() {
        m_World.m_bWild = FALSE;
        m_World.m_Network.SetWeather(CSimWeather());
        ForAll_i([](CSimUser& aUser) { aUser.Settle(); });
        m_World.m_Network.RunFor(m_World.m_Kind.m_bDatagrams && m_World.m_Kind.m_bKeepAlive ? LONG_CALM : CALM);
        if (!m_World.m_Kind.m_bDatagrams)  // before one more message pushes what was forgotten
            ForAll_i([](CSimUser& aUser) { aUser.CheckDebts(); });
        ForAll_i([](CSimUser& aUser) { aUser.Ping(); });
        m_World.m_Network.RunFor(SIM_SEC);
        for (const auto& pClient : m_Clients) {
            if (pClient->m_bExpecting)
                m_World.m_Network.Fail("a connect without an indication");
        }
        ForAll_i([](CSimUser& aUser) { aUser.CheckDebts(); });
    }

    // One side ends, the other hears of it, and nothing remains.
    void SayGoodbye_i() {
        CSimNetwork& network = m_World.m_Network;
        ForAll_i([&](CSimUser& aUser) {
            if (network.Chance(40))
                aUser.End(CM_ERROR_NETWORK_SOCKET_CLOSE, network.Chance(50));
        });
        network.RunFor(SIM_SEC);
        ForAll_i([](CSimUser& aUser) { aUser.CheckDebts(); });
        ForAll_i([](CSimUser& aUser) { aUser.End(CM_OK, TRUE); });
        for (const auto& pClient : m_Clients)
            pClient->GiveUp();
        network.RunFor(SIM_SEC);
        m_Server.GiveUp();
        network.RunFor(70 * SIM_SEC);
        if (!network.m_Ends.empty())
            network.Fail(std::to_string(network.m_Ends.size()) + " ends remain");
    }

    template <class Do>
    void ForAll_i(Do aDo) {
        std::vector<CPeople*> people{&m_Server};
        for (const auto& pClient : m_Clients)
            people.push_back(pClient.get());
        for (CPeople* pEach : people) {
            for (size_t i = 0; i < pEach->m_Users.size(); ++i)  // there may come more
                aDo(*pEach->m_Users[i]);
        }
    }

    CSimWorld m_World;
    CSimWeather m_Weather;
    CServer m_Server;
    std::vector<std::unique_ptr<CClient>> m_Clients;
};

}  // namespace

CSimResult RunSeed(uint64_t aSeed, BOOL aVerbose) {
    const CCmString strAlive = CCmLiveCounter::Dump();
    CSimResult result{};
    {
        CSimNetwork network(aSeed, aVerbose);
        CScenario scenario(network);
        result.m_szKind = scenario.GetWorld().m_Kind.m_szName;
        scenario.Run();
        result.m_Failures = network.GetFailures();
        result.m_ullDigest = network.GetDigest();
        result.m_dwMessages = scenario.GetWorld().m_dwMessages;
    }
    if (const CCmString strLeft = CCmLiveCounter::Dump(); strLeft != strAlive)
        result.m_Failures.push_back("objects are left:\n" + strLeft);
    return result;
}
