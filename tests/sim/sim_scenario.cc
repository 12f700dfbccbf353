#include "tests/sim/sim_scenario.h"

#include <algorithm>

#include "talvo/talvo.h"

namespace {

using Manager = CCmConnectionManager;

constexpr DWORD TCP = Manager::CTYPE_TCP;
constexpr DWORD UDP = Manager::CTYPE_UDP;
constexpr DWORD LENGTH = Manager::CTYPE_PDU_LENGTH;
constexpr DWORD PACKAGE = Manager::CTYPE_PDU_PACKAGE;
constexpr DWORD NO_PARTIAL = Manager::CTYPE_SEND_NO_PARTIAL_DATA;
constexpr DWORD KEEPALIVE = Manager::CTYPE_PDU_KEEPALIVE;

}  // namespace

const CSimKind SIM_KINDS[] = {
    {"length", LENGTH | TCP, FALSE, FALSE, FALSE, FALSE},
    {"package", PACKAGE | TCP, FALSE, FALSE, TRUE, TRUE},
    {"package-keepalive", PACKAGE | KEEPALIVE | TCP, FALSE, TRUE, TRUE, TRUE},
    {"nopartial", NO_PARTIAL | KEEPALIVE | TCP, FALSE, TRUE, TRUE, FALSE},
    {"package over datagrams", PACKAGE | UDP, TRUE, FALSE, TRUE, TRUE},
    {"package-keepalive over datagrams", PACKAGE | KEEPALIVE | UDP, TRUE, TRUE, TRUE, TRUE},
    {"nopartial over datagrams", NO_PARTIAL | KEEPALIVE | UDP, TRUE, TRUE, TRUE, FALSE},
};

CCmRefPtrT<ICmConnector> CSimKind::MakeConnector() const {
    CCmRefPtrT<ICmConnector> pConnector;
    Manager::Instance()->CreateConnectionClient(m_dwType, pConnector.ParaOut());
    return pConnector;
}

CCmRefPtrT<ICmAcceptor> CSimKind::MakeAcceptor() const {
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    Manager::Instance()->CreateConnectionServer(m_dwType, pAcceptor.ParaOut());
    return pAcceptor;
}

namespace {

const CCmInetAddr SERVER("127.0.0.1", CSimWorld::PORT);

constexpr int64_t CONNECT_LIMIT = 15 * SIM_SEC;  // of the connectors below, unless the link is silent,
constexpr int64_t SYSTEM_LIMIT = 127 * SIM_SEC;  // and then
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
            m_pAcceptor = m_World.m_Kind.MakeAcceptor();
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
        CSimLab& network = m_World.m_Network;
        if (!m_pConnector)
            m_pConnector = m_World.m_Kind.MakeConnector();
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
        CSimLab& network = m_World.m_Network;
        const int64_t llTime = network.Now() - m_llStarted;
        const int64_t llLimit = m_World.m_Kind.m_bPackage ? HANDSHAKE_LIMIT : SYSTEM_LIMIT;
        const int64_t llCalled = std::max(m_llStarted, network.WhenLinkWasSet());
        const BOOL bTimeout = aReason == CM_ERROR_NETWORK_CONNECT_ERROR && network.Now() - llCalled > CONNECT_LIMIT;
        if (aReason != CM_OK && (aReason < 20000 || aReason == CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE))
            network.Fail("an indication with " + std::to_string(aReason));
        if (!network.HasJumped() && (llTime > llLimit || (bTimeout && llTime != llLimit)))
            network.Fail("an indication with " + std::to_string(aReason) + " after " + std::to_string(llTime));
    }

    CCmRefPtrT<ICmConnector> m_pConnector;
    int64_t m_llStarted = 0;
};

double Percent(uint64_t aPercent) { return static_cast<double>(aPercent) / 100; }

CCmSimPath RandomPath(CSimLab& aNetwork, BOOL aDatagrams) {
    CCmSimPath path;
    if (aNetwork.Chance(20))
        return path;
    path.m_tvDelay = CCmTimeValue::FromUsec(aNetwork.RandomTime(20 * SIM_MSEC));
    path.m_tvJitter = CCmTimeValue::FromUsec(aNetwork.RandomTime(aNetwork.Chance(20) ? 2 * SIM_SEC : 30 * SIM_MSEC));
    path.m_dwBandwidth = aNetwork.Chance(20) ? 100000 + static_cast<DWORD>(aNetwork.Random(1000000)) : 0;
    path.m_dwBuffer = 1 + static_cast<DWORD>(aNetwork.Random(aNetwork.Chance(30) ? 300 : 100000));
    path.m_dwMaxPiece = 1 + static_cast<DWORD>(aNetwork.Random(aNetwork.Chance(20) ? 10 : 16384));
    path.m_PartialSend = Percent(aNetwork.Random(50));
    path.m_Loss = Percent(aNetwork.Random(aDatagrams ? 40 : 5));
    path.m_Duplication = Percent(aNetwork.Random(30));
    path.m_Reordering = Percent(aNetwork.Random(20));
    path.m_Damage = Percent(aNetwork.Random(20));
    path.m_Cut = aNetwork.Chance(30) ? Percent(aNetwork.Random(100)) / 100 : 0;
    if (aDatagrams)
        path.m_dwBuffer += 100000;  // which would drop more than is lost
    return path;
}

class CScenario {
public:
    explicit CScenario(CSimLab& aNetwork)
        : m_World{aNetwork, SIM_KINDS[aNetwork.Random(std::size(SIM_KINDS))]}, m_Server(m_World) {
        m_World.m_Watch.m_Settled = [this] { ForAll_i([](CSimUser& aUser) { aUser.CheckStanding(); }); };
        aNetwork.m_Network.SetObserver(&m_World.m_Watch);
    }
    ~CScenario() { m_World.m_Network.m_Network.SetObserver(nullptr); }
    CScenario(const CScenario&) = delete;
    CScenario& operator=(const CScenario&) = delete;

    void Run() {
        CSimLab& network = m_World.m_Network;
        m_Path = RandomPath(network, m_World.m_Kind.m_bDatagrams);
        network.SetPath(m_Path);
        for (uint64_t i = 1 + network.Random(4); i > 0; --i)
            m_Clients.push_back(std::make_unique<CClient>(m_World));
        if (network.Chance(5))
            BeSilent_i();
        for (uint64_t i = 1 + network.Random(10); i > 0; --i)
            RunAWhile_i();
        Settle_i();
        SayGoodbye_i();
    }

private:
    void RunAWhile_i() {
        CSimLab& network = m_World.m_Network;
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
        CSimLab& network = m_World.m_Network;
        CCmSimPath silent = m_Path;
        silent.m_tvSilentUntil = CCmTimeValue::s_tvMax;
        network.SetPath(silent);
        network.RunFor(network.RandomTime(200 * SIM_SEC));
        network.SetPath(m_Path);
    }

    // Calm weather, and time enough for everything that is owed.
    void Settle_i() {
        m_World.m_bWild = FALSE;
        m_World.m_Network.SetPath(CCmSimPath());
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
        CSimLab& network = m_World.m_Network;
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
        if (const size_t stEnds = network.m_Network.CountEnds(); stEnds > 0)
            network.Fail(std::to_string(stEnds) + " ends remain");
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
    CCmSimPath m_Path;
    CServer m_Server;
    std::vector<std::unique_ptr<CClient>> m_Clients;
};

}  // namespace

void RunScenario(CCmSimNetwork& aNetwork) {
    CSimLab lab(aNetwork);
    CScenario(lab).Run();
}
