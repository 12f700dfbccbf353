#include "tests/sim/sim_scenario.h"

#include <iterator>

#include "talvo/talvo.h"
#include "tests/sim/sim_user.h"

namespace {

using Manager = CCmConnectionManager;

constexpr DWORD TCP = Manager::CTYPE_TCP;
constexpr DWORD UDP = Manager::CTYPE_UDP;
constexpr DWORD PACKAGE = Manager::CTYPE_PDU_PACKAGE;
constexpr DWORD NO_PARTIAL = Manager::CTYPE_SEND_NO_PARTIAL_DATA;
constexpr DWORD KEEPALIVE = Manager::CTYPE_PDU_KEEPALIVE;
constexpr DWORD TYPES[] = {Manager::CTYPE_PDU_LENGTH | TCP, PACKAGE | TCP, PACKAGE | KEEPALIVE | TCP,
                           NO_PARTIAL | KEEPALIVE | TCP,    PACKAGE | UDP, PACKAGE | KEEPALIVE | UDP,
                           NO_PARTIAL | KEEPALIVE | UDP};

const CCmInetAddr SERVER("127.0.0.1", CSimWorld::PORT);

constexpr int64_t CONNECT_LIMIT = 127 * SIM_SEC;  // the system's, in silence
constexpr int64_t HANDSHAKE_LIMIT = 60 * SIM_SEC;
constexpr int64_t CALM = 70 * SIM_SEC;        // every handshake has ended, every message has come
constexpr int64_t LONG_CALM = 165 * SIM_SEC;  // every silent peer has been given up

// Makes a user of every connection that comes up.
class CPeople : public ICmAcceptorConnectorSink {
public:
    explicit CPeople(CSimWorld& aWorld) : m_World(aWorld) {}

    BOOL m_bExpecting = FALSE;

protected:
    BOOL WildChance_i(uint64_t aPercent) { return m_World.m_bWild && m_World.Chance(aPercent); }
    void OnIndication_i(CmResult aReason, ICmTransport* aTrpt, BOOL aServer) {
        if (!m_bExpecting || (aReason == CM_OK) != (aTrpt != nullptr))
            m_World.m_Network.Fail("an indication that nobody expects");
        if (aTrpt && !m_World.Chance(3))  // else it is not kept
            m_World.AddUser(*aTrpt, aServer);
    }

    CSimWorld& m_World;
};

// Listens, and now and then stops for a while, inside an indication.
class CServer : public CPeople {
public:
    explicit CServer(CSimWorld& aWorld) : CPeople(aWorld) { Listen_i(); }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        OnIndication_i(aReason, aTrpt, TRUE);
        if (!WildChance_i(10))
            return;
        m_bExpecting = FALSE;
        m_World.After(m_World.RandomTime(SIM_SEC), [this] { Listen_i(); });
        m_World.Chance(50) ? GiveUp() : void(m_pAcceptor->StopListen(CM_OK));
    }
    void GiveUp() { m_pAcceptor.Reset(); }

private:
    void Listen_i() {
        m_bExpecting = TRUE;
        if (!m_pAcceptor)
            Manager::Instance()->CreateConnectionServer(m_World.m_dwType, m_pAcceptor.ParaOut());
        m_pAcceptor->StartListen(this, SERVER);
    }

    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
};

// Connects, perhaps cancels, and connects again.
class CClient : public CPeople {
public:
    explicit CClient(CSimWorld& aWorld) : CPeople(aWorld) { Start_i(); }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        const int64_t llTime = m_World.Now() - m_llStarted;
        if (aReason != CM_OK && (aReason < 20000 || aReason == CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE))
            m_World.m_Network.Fail("an indication with " + std::to_string(aReason));
        if (!m_World.m_bJumped && llTime > (m_World.m_bPackage ? HANDSHAKE_LIMIT : CONNECT_LIMIT))
            m_World.m_Network.Fail("an indication after " + std::to_string(llTime));
        OnIndication_i(aReason, aTrpt, FALSE);
        m_bExpecting = FALSE;
        if (WildChance_i(20))
            GiveUp();
        if (WildChance_i(30))
            Start_i();
    }
    void GiveUp() { m_pConnector.Reset(); }

private:
    void Start_i() {
        if (!m_pConnector)
            Manager::Instance()->CreateConnectionClient(m_World.m_dwType, m_pConnector.ParaOut());
        m_bExpecting = TRUE;
        m_llStarted = m_World.Now();
        m_pConnector->AsycConnect(this, SERVER);
        m_pConnector->AsycConnect(this, SERVER);  // is refused
        if (!m_World.Chance(15))
            return;
        m_World.After(m_World.RandomTime(SIM_SEC), [this] {
            if (!m_bExpecting || !m_World.m_bWild)
                return;
            m_bExpecting = FALSE;
            m_World.Chance(50) ? m_pConnector->CancelConnect() : GiveUp();
        });
    }

    CCmRefPtrT<ICmConnector> m_pConnector;
    int64_t m_llStarted = 0;
};

class CScenario {
public:
    explicit CScenario(CCmSimNetwork& aNetwork)
        : m_World(aNetwork, TYPES[aNetwork.Random(std::size(TYPES))]), m_Path(aNetwork.RandomPath(m_World.m_bDatagrams)) {}

    void Run() {
        m_World.m_Network.SetPath(m_Path);
        for (DWORD i = 1 + m_World.Below(4); i > 0; --i)
            m_Clients.push_back(std::make_unique<CClient>(m_World));
        if (m_World.Chance(5))
            BeSilent_i();
        for (DWORD i = 1 + m_World.Below(10); i > 0; --i)
            RunAWhile_i();
        Settle_i();
        SayGoodbye_i();
    }

private:
    void RunAWhile_i() {
        m_World.RunFor(m_World.RandomTime(10 * SIM_SEC));
        if (m_World.Chance(5)) {
            m_World.m_bJumped = TRUE;
            m_World.m_Network.Jump(CCmTimeValue::FromUsec(m_World.RandomTime(300 * SIM_SEC)));
        }
        if (m_World.Chance(5))
            m_World.RunFor(m_World.RandomTime(200 * SIM_SEC));
        if (m_World.Chance(5))
            BeSilent_i();
    }

    void BeSilent_i() {
        CCmSimPath silent = m_Path;
        silent.m_tvSilentUntil = CCmTimeValue::s_tvMax;
        m_World.m_Network.SetPath(silent);
        m_World.RunFor(m_World.RandomTime(200 * SIM_SEC));
        m_World.m_Network.SetPath(m_Path);
    }

    // Calm weather, and time enough for everything that is owed.
    void Settle_i() {
        m_World.m_bWild = FALSE;
        m_World.m_Network.SetPath({});
        m_World.ForAll([](CSimUser& aUser) { aUser.Calm(); });
        m_World.RunFor(m_World.m_bDatagrams && m_World.m_bKeepAlive ? LONG_CALM : CALM);
        if (!m_World.m_bDatagrams)  // before one more message pushes what was forgotten
            m_World.ForAll([](CSimUser& aUser) { aUser.CheckDebts(); });
        m_World.ForAll([](CSimUser& aUser) { aUser.Send(4); });  // do both ends mean the same connection?
        m_World.RunFor(SIM_SEC);
        for (const auto& pClient : m_Clients) {
            if (pClient->m_bExpecting)
                m_World.m_Network.Fail("a connect without an indication");
        }
        m_World.ForAll([](CSimUser& aUser) { aUser.CheckDebts(); });
    }

    // One side ends, the other gets OnDisconnect, and nothing remains.
    void SayGoodbye_i() {
        m_World.ForAll([this](CSimUser& aUser) {
            if (m_World.Chance(40))
                m_World.Chance(50) ? aUser.Release() : aUser.End(CM_ERROR_NETWORK_SOCKET_CLOSE);
        });
        m_World.RunFor(SIM_SEC);
        m_World.ForAll([](CSimUser& aUser) { aUser.CheckDebts(); });
        m_World.ForAll([](CSimUser& aUser) { aUser.Release(); });
        for (const auto& pClient : m_Clients)
            pClient->GiveUp();
        m_World.RunFor(SIM_SEC);
        m_Server.GiveUp();
        m_World.RunFor(CALM);
        if (const size_t stEnds = m_World.m_Network.CountEnds(); stEnds > 0)
            m_World.m_Network.Fail(std::to_string(stEnds) + " ends remain");
    }

    CSimWorld m_World;
    const CCmSimPath m_Path;
    CServer m_Server{m_World};
    std::vector<std::unique_ptr<CClient>> m_Clients;
};

}  // namespace

void RunScenario(CCmSimNetwork& aNetwork) { CScenario(aNetwork).Run(); }
