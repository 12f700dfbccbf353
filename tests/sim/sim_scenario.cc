#include "tests/sim/sim_scenario.h"

#include "talvo/base/live_counter.h"
#include "talvo/connection/conn_acceptor.h"
#include "talvo/connection/conn_connector.h"
#include "talvo/connection/len_pkg_conn.h"
#include "talvo/connection/pkg_conn_client.h"
#include "talvo/connection/pkg_conn_server.h"
#include "talvo/connection/pkg_sender.h"
#include "tests/sim/sim_transport.h"

const CSimKind SIM_LENGTH{"length", FALSE, FALSE, FALSE, FALSE};
const CSimKind SIM_PACKAGE{"package", FALSE, FALSE, TRUE, TRUE};
const CSimKind SIM_PACKAGE_KEEPALIVE{"package-keepalive", FALSE, TRUE, TRUE, TRUE};
const CSimKind SIM_NO_PARTIAL{"nopartial", FALSE, TRUE, TRUE, FALSE};
const CSimKind SIM_PACKAGE_UDP{"package over datagrams", TRUE, FALSE, TRUE, TRUE};
const CSimKind SIM_PACKAGE_KEEPALIVE_UDP{"package-keepalive over datagrams", TRUE, TRUE, TRUE, TRUE};
const CSimKind SIM_NO_PARTIAL_UDP{"nopartial over datagrams", TRUE, TRUE, TRUE, FALSE};

namespace {

const CSimKind* const KINDS[] = {&SIM_LENGTH,        &SIM_PACKAGE,     &SIM_PACKAGE_KEEPALIVE,
                                 &SIM_NO_PARTIAL,    &SIM_PACKAGE_UDP, &SIM_PACKAGE_KEEPALIVE_UDP,
                                 &SIM_NO_PARTIAL_UDP};

// Makes a user of every connection that comes up, and goes over to all of them what it likes.
class CPeople : public ICmAcceptorConnectorSink {
public:
    CPeople(CSimWorld& aWorld, BOOL aServer) : m_World(aWorld), m_bServer(aServer) {}

    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        if (aTrpt && !m_World.m_Network.Chance(3))  // else it is not kept
            m_Users.push_back(std::make_unique<CSimUser>(m_World, *aTrpt, m_bServer));
    }

    CSimWorld& m_World;
    const BOOL m_bServer;
    std::vector<std::unique_ptr<CSimUser>> m_Users;
};

// Connects, perhaps changes its mind, and connects again.
class CClient : public CPeople {
public:
    explicit CClient(CSimWorld& aWorld) : CPeople(aWorld, FALSE) { Start_i(); }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override {
        m_World.m_Network.Note("indication", static_cast<uint64_t>(aReason));
        if (!m_bExpecting || aId != m_pConnector.Get() || (aReason == CM_OK) != (aTrpt != nullptr))
            m_World.m_Network.Fail("an indication that nobody expects");
        if (aReason != CM_OK && (aReason < 20000 || aReason == CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE))
            m_World.m_Network.Fail("an indication with " + std::to_string(aReason));
        m_bExpecting = FALSE;
        CPeople::OnConnectIndication(aReason, aTrpt, aId);
        if (m_World.m_bWild && m_World.m_Network.Chance(20))
            m_pConnector.Reset();
        if (m_World.m_bWild && m_World.m_Network.Chance(30))
            Start_i();
    }

    BOOL IsExpecting() const { return m_bExpecting; }
    void GiveUp() { m_pConnector.Reset(); }

private:
    void Start_i() {
        CSimNetwork& network = m_World.m_Network;
        if (!m_pConnector)
            m_pConnector = MakeSimConnector(network, m_World.m_Kind);
        CCmTimeValue tvTimeout(0, 50000);
        m_bExpecting = TRUE;
        m_pConnector->AsycConnect(this, CCmInetAddr("127.0.0.1", CSimWorld::PORT), network.Chance(20) ? &tvTimeout : nullptr);
        if (!network.Chance(15))
            return;
        network.After(static_cast<int64_t>(network.Random(SIM_SEC)), [this] {
            if (!m_bExpecting || !m_World.m_bWild)
                return;
            m_bExpecting = FALSE;
            m_World.m_Network.Chance(50) ? m_pConnector->CancelConnect() : m_pConnector.Reset();
        });
    }

    CCmRefPtrT<ICmConnector> m_pConnector;
    BOOL m_bExpecting = FALSE;
};

CSimWeather RandomWeather(CSimNetwork& aNetwork) {
    CSimWeather weather;
    if (aNetwork.Chance(20))
        return weather;
    weather.m_llMinDelay = static_cast<int64_t>(aNetwork.Random(20 * SIM_MSEC));
    weather.m_llMaxDelay =
        weather.m_llMinDelay + static_cast<int64_t>(aNetwork.Random(aNetwork.Chance(20) ? 2 * SIM_SEC : 30 * SIM_MSEC));
    weather.m_dwWindow = 1 + static_cast<DWORD>(aNetwork.Random(aNetwork.Chance(30) ? 300 : 100000));
    weather.m_dwMaxPiece = 1 + static_cast<DWORD>(aNetwork.Random(aNetwork.Chance(20) ? 10 : 16384));
    weather.m_dwRefused = static_cast<DWORD>(aNetwork.Random(50));
    weather.m_dwLost = static_cast<DWORD>(aNetwork.Random(40));
    weather.m_dwDoubled = static_cast<DWORD>(aNetwork.Random(30));
    weather.m_dwBroken = aNetwork.Chance(30) ? static_cast<DWORD>(aNetwork.Random(100)) : 0;
    weather.m_dwFailedConnects = static_cast<DWORD>(aNetwork.Random(20));
    return weather;
}

class CScenario {
public:
    explicit CScenario(CSimNetwork& aNetwork)
        : m_World{aNetwork, *KINDS[aNetwork.Random(std::size(KINDS))]}, m_Server(m_World, TRUE) {}

    void Run() {
        CSimNetwork& network = m_World.m_Network;
        network.m_Weather = RandomWeather(network);
        m_pAcceptor = MakeSimAcceptor(network, m_World.m_Kind);
        Listen_i();
        for (uint64_t i = 1 + network.Random(4); i > 0; --i)
            m_Clients.push_back(std::make_unique<CClient>(m_World));
        for (uint64_t i = 1 + network.Random(10); i > 0; --i)
            RunAWhile_i();
        Settle_i();
        SayGoodbye_i();
    }

    const CSimWorld& GetWorld() const { return m_World; }

private:
    void Listen_i() { m_pAcceptor->StartListen(&m_Server, CCmInetAddr("127.0.0.1", CSimWorld::PORT)); }

    void RunAWhile_i() {
        CSimNetwork& network = m_World.m_Network;
        network.RunFor(static_cast<int64_t>(network.Random(10 * SIM_SEC)));
        switch (network.Random(20)) {
        case 0:
            m_pAcceptor->StopListen(CM_OK);
            network.RunFor(static_cast<int64_t>(network.Random(SIM_SEC)));
            Listen_i();
            break;
        case 1:
            m_World.m_bJumped = TRUE;
            network.JumpClock(static_cast<int64_t>(network.Random(300 * SIM_SEC)));
            break;
        case 2:
            network.StepWallClock(static_cast<int64_t>(network.Random(86400 * SIM_SEC)) - 43200 * SIM_SEC);
            break;
        case 3:
            network.RunFor(static_cast<int64_t>(network.Random(200 * SIM_SEC)));
        }
    }

    // Calm weather, and time enough for everything that is owed.
    void Settle_i() {
        m_World.m_bWild = FALSE;
        m_World.m_Network.m_Weather = CSimWeather();
        ForAll_i([](CSimUser& aUser) { aUser.Settle(); });
        m_World.m_Network.RunFor(70 * SIM_SEC);
        for (const auto& pClient : m_Clients) {
            if (pClient->IsExpecting())
                m_World.m_Network.Fail("a connect without an indication");
        }
        CheckDebts_i();
    }

    // One side ends, the other hears of it, and nothing remains.
    void SayGoodbye_i() {
        CSimNetwork& network = m_World.m_Network;
        ForAll_i([&](CSimUser& aUser) {
            if (network.Chance(40))
                network.Chance(50) ? aUser.End(CM_ERROR_NETWORK_SOCKET_CLOSE) : aUser.Release();
        });
        network.RunFor(SIM_SEC);
        CheckDebts_i();
        ForAll_i([](CSimUser& aUser) { aUser.Release(); });
        for (const auto& pClient : m_Clients)
            pClient->GiveUp();
        network.RunFor(SIM_SEC);
        m_pAcceptor.Reset();
        network.RunFor(70 * SIM_SEC);
        if (!network.m_Ends.empty())
            network.Fail(std::to_string(network.m_Ends.size()) + " ends remain");
    }

    void CheckDebts_i() {
        for (const auto& [wPort, link] : m_World.m_Links) {
            for (const CSimUser* pUser : {link.m_pClient, link.m_pServer}) {
                if (const char* pDebt = pUser ? pUser->GetDebt() : nullptr)
                    m_World.m_Network.Fail(std::string(m_World.m_Kind.m_szName) +
                                           (pUser == link.m_pClient ? " client " : " server ") + std::to_string(wPort) +
                                           ": still owed: " + pDebt);
            }
        }
    }

    template <class Do>
    void ForAll_i(Do aDo) {
        std::vector<CSimUser*> users;
        for (const auto& pUser : m_Server.m_Users)
            users.push_back(pUser.get());
        for (const auto& pClient : m_Clients) {
            for (const auto& pUser : pClient->m_Users)
                users.push_back(pUser.get());
        }
        for (CSimUser* pUser : users)
            aDo(*pUser);
    }

    CSimWorld m_World;
    CPeople m_Server;
    std::vector<std::unique_ptr<CClient>> m_Clients;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
};

}  // namespace

CCmRefPtrT<ICmConnector> MakeSimConnector(CSimNetwork& aNetwork, const CSimKind& aKind) {
    const CCmRefPtrT<ICmConnector> pBelow(new CSimConnector(aNetwork, aKind.m_bDatagrams));
    if (&aKind == &SIM_LENGTH)
        return CCmRefPtrT<ICmConnector>(new CConnConnectorT<CLenPkgConn>(pBelow, FALSE));
    if (!aKind.m_bWatchesPeer)
        return CCmRefPtrT<ICmConnector>(new CConnConnectorT<CPkgSender>(pBelow, aKind.m_bKeepAlive));
    return CCmRefPtrT<ICmConnector>(new CConnConnectorT<CPkgConnClient>(pBelow, aKind.m_bKeepAlive));
}

CCmRefPtrT<ICmAcceptor> MakeSimAcceptor(CSimNetwork& aNetwork, const CSimKind& aKind) {
    const CCmRefPtrT<ICmAcceptor> pBelow(new CSimAcceptor(aNetwork));
    if (&aKind == &SIM_LENGTH)
        return CCmRefPtrT<ICmAcceptor>(new CConnAcceptorT<CLenPkgConn>(pBelow, FALSE));
    if (!aKind.m_bWatchesPeer)
        return CCmRefPtrT<ICmAcceptor>(new CConnAcceptorT<CPkgSender>(pBelow, aKind.m_bKeepAlive));
    return CCmRefPtrT<ICmAcceptor>(new CConnAcceptorT<CPkgConnServer>(pBelow, aKind.m_bKeepAlive));
}

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
