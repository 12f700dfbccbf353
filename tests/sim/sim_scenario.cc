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

const CCmTimeValue CONNECT_LIMIT(127);  // the system's, in silence
const CCmTimeValue HANDSHAKE_LIMIT(60);
constexpr int64_t CALM = 70 * SIM_SEC;        // every handshake has ended, every message has come
constexpr int64_t LONG_CALM = 165 * SIM_SEC;  // every silent peer has been given up

class CScenario {
public:
    explicit CScenario(CCmSimNetwork& aNetwork)
        : m_World(aNetwork, TYPES[aNetwork.Random(std::size(TYPES))]), m_Path(aNetwork.RandomPath(m_World.m_bDatagrams)) {}

    void Run() {
        m_World.m_Network.SetPath(m_Path);
        for (DWORD i = 1 + m_World.Below(4); i > 0; --i)
            m_Clients.push_back(std::make_unique<CCmSimWildConnector>(
                m_World.m_Network, m_World.m_dwType, SERVER, m_World.m_bPackage ? HANDSHAKE_LIMIT : CONNECT_LIMIT,
                [this](ICmTransport& aTransport) { m_World.AddUser(aTransport, FALSE); }));
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
        if (m_World.Chance(5))
            m_World.m_Network.Jump(CCmTimeValue::FromUsec(m_World.RandomTime(300 * SIM_SEC)));
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
        m_Server.Calm();
        for (const auto& pClient : m_Clients)
            pClient->Calm();
        m_World.m_Network.SetPath({});
        m_World.ForAll([](CSimUser& aUser) { aUser.Calm(); });
        m_World.RunFor(m_World.m_bDatagrams && m_World.m_bKeepAlive ? LONG_CALM : CALM);
        if (!m_World.m_bDatagrams)  // before one more message pushes what was forgotten
            m_World.ForAll([](CSimUser& aUser) { aUser.CheckDebts(); });
        m_World.ForAll([](CSimUser& aUser) { aUser.Send(4); });  // do both ends mean the same connection?
        m_World.RunFor(SIM_SEC);
        for (const auto& pClient : m_Clients) {
            if (pClient->IsExpecting())
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
            pClient->Release();
        m_World.RunFor(SIM_SEC);
        m_Server.Release();
        m_World.RunFor(CALM);
        if (const size_t stEnds = m_World.m_Network.CountEnds(); stEnds > 0)
            m_World.m_Network.Fail(std::to_string(stEnds) + " ends remain");
    }

    CSimWorld m_World;
    const CCmSimPath m_Path;
    CCmSimWildAcceptor m_Server{m_World.m_Network, m_World.m_dwType, SERVER,
                                [this](ICmTransport& aTransport) { m_World.AddUser(aTransport, TRUE); }};
    std::vector<std::unique_ptr<CCmSimWildConnector>> m_Clients;
};

}  // namespace

void RunScenario(CCmSimNetwork& aNetwork) { CScenario(aNetwork).Run(); }
