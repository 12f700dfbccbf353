// Reliable connections in bad weather.
#include "talvo/talvo.h"
#include "talvo/testing/testing.h"
#include "tests/sim/sim_scenario.h"

namespace {

using Manager = CCmConnectionManager;

const CCmInetAddr SERVER("10.0.0.1", 80);
const CCmTimeValue RECOVERY(100);  // 45 s of silence, an attempt of 10 s, 30 s of back-off, and the messages
constexpr DWORD FOR_EVER = 86400;

// A client's connection and the one that the server has made for it.
struct CLink {
    explicit CLink(WORD aPort) : m_Up(DWORD{aPort} << 16), m_Down(DWORD{aPort} << 16 | 0x8000) {}

    CCmSimFlow m_Up, m_Down;
    std::unique_ptr<CCmSimReliablePeer> m_pClient, m_pServer;
};

class CRlbScenario : public ICmSimObserver {
public:
    explicit CRlbScenario(CCmSimNetwork& aNetwork)
        : m_Network(aNetwork),
          m_dwType(Manager::CTYPE_PDU_RELIABLE | Manager::CTYPE_TCP | (Chance(50) ? +Manager::CTYPE_RECONNECT_TOKEN : 0)),
          m_bStable(Chance(50)) {
        m_Network.SetObserver(this);
        m_Servers.m_Indicated = [this] { Add(m_Servers, TRUE); };
        m_Clients.m_Indicated = [this] { Add(m_Clients, FALSE); };
        Listen();
    }
    ~CRlbScenario() override { m_Network.SetObserver(nullptr); }

    void Run() {
        for (DWORD i = 1 + Below(3); i > 0; --i) {
            auto& pConnector = m_Connectors.emplace_back();
            Manager::Instance()->CreateConnectionClient(m_dwType, pConnector.ParaOut());
            pConnector->AsycConnect(&m_Clients, SERVER);
        }
        m_Network.RunFor(CCmTimeValue(1));
        m_Connectors.clear();
        for (DWORD i = 1 + Below(8); i > 0; --i)
            RunAWhile();
        Settle();
        SayGoodbye();
    }

    void OnStep() override {
        ForAll([](CCmSimReliablePeer& aUser) { aUser.CheckStep(); });
    }

private:
    BOOL Chance(DWORD aPercent) { return m_Network.Random(100) < aPercent; }
    DWORD Below(uint64_t aBound) { return static_cast<DWORD>(m_Network.Random(aBound)); }
    template <class Do>
    void ForAll(Do aDo) {
        for (auto& [wPort, link] : m_Links) {
            for (CCmSimReliablePeer* pUser : {link.m_pClient.get(), link.m_pServer.get()}) {
                if (pUser)
                    aDo(*pUser);
            }
        }
    }

    void Listen() {
        Manager::Instance()->CreateConnectionServer(m_dwType, m_pAcceptor.ParaOut());
        m_pAcceptor->StartListen(&m_Servers, SERVER);
    }

    void Add(CCmConnectLog& aSide, BOOL aServer) {
        if (aSide.m_Reasons.back() != CM_OK)
            return;
        ICmTransport& transport = *aSide.m_Transports.back();
        CCmInetAddr addr;
        transport.GetOption(aServer ? CM_OPT_TRANSPORT_PEER_ADDR : CM_OPT_TRANSPORT_LOCAL_ADDR, &addr);
        CLink& link = m_Links.try_emplace(addr.GetPort(), addr.GetPort()).first->second;
        auto& pUser = aServer ? link.m_pServer : link.m_pClient;
        pUser = std::make_unique<CCmSimReliablePeer>(m_Network, transport, aServer ? link.m_Down : link.m_Up,
                                                     aServer ? link.m_Up : link.m_Down,
                                                     (aServer ? "server " : "client ") + std::to_string(addr.GetPort()));
        aSide.m_Transports.clear();
        pUser->Start(!m_bStable, m_bStable ? FOR_EVER : 10 + Below(200));
    }

    CCmSimPath RandomWeather() {
        CCmSimPath path = m_Network.RandomPath(FALSE);
        path.m_Cut = Chance(60) ? Below(30) / 100.0 : 0;
        path.m_CutOneEnd = Chance(50) ? 0.3 : 0;
        path.m_Mute = Chance(30) ? Below(10) / 100.0 : 0;
        path.m_dwBuffer += 20;
        if (Chance(20))
            path.m_tvSilentUntil = CCmTimeValue::s_tvMax;
        path.m_bLoseEnd = Chance(20);
        return path;
    }

    void RunAWhile() {
        m_Network.SetLink({RandomWeather(), RandomWeather()});
        m_Network.RunFor(m_Network.RandomTime(CCmTimeValue(Chance(30) ? 70 : 10)));
        if (Chance(10)) {
            m_pAcceptor->StopListen(CM_OK);  // connects are refused
            m_Network.RunFor(m_Network.RandomTime(CCmTimeValue(20)));
            m_pAcceptor->StartListen(&m_Servers, SERVER);
        }
        if (Chance(5))
            m_Network.Jump(m_Network.RandomTime(CCmTimeValue(200)));
        if (!m_bStable && Chance(5)) {  // the server's process is replaced
            for (auto& [wPort, link] : m_Links) {
                if (link.m_pServer)
                    link.m_pServer->Release();
            }
            m_pAcceptor.Reset();
            Listen();
        }
    }

    void Settle() {
        m_Network.SetPath({});
        ForAll([](CCmSimReliablePeer& aUser) { aUser.Calm(); });
        m_Network.RunFor(RECOVERY);
        ForAll([](CCmSimReliablePeer& aUser) { aUser.Send(4); });
        m_Network.RunFor(RECOVERY);
        for (auto& [wPort, link] : m_Links) {
            if (!link.m_pClient || !link.m_pServer)
                continue;
            if (link.m_pClient->IsOpen() != link.m_pServer->IsOpen() && !(link.m_pServer->IsOpen() && !m_bStable))
                m_Network.Fail("only one end is open, " + std::to_string(wPort));
            if (link.m_pClient->IsOpen() && link.m_pServer->IsOpen()) {
                link.m_pClient->CheckSettled(m_bStable);
                link.m_pServer->CheckSettled(m_bStable);
            } else if (m_bStable) {
                m_Network.Fail("ended: " + std::to_string(link.m_pClient->GetReason()) + ", " +
                               std::to_string(link.m_pServer->GetReason()));
            }
        }
    }

    void SayGoodbye() {
        for (auto& [wPort, link] : m_Links) {
            const BOOL bBoth = link.m_pClient && link.m_pServer && link.m_pClient->IsOpen() && link.m_pServer->IsOpen();
            if (!bBoth)
                continue;
            CCmSimReliablePeer& first = Chance(50) ? *link.m_pClient : *link.m_pServer;
            CCmSimReliablePeer& second = &first == link.m_pClient.get() ? *link.m_pServer : *link.m_pClient;
            first.Release();
            m_Network.RunFor(CCmTimeValue(2));
            if (second.IsOpen() || second.GetReason() != CM_OK)
                m_Network.Fail("the end has not come, " + std::to_string(wPort));
        }
        ForAll([](CCmSimReliablePeer& aUser) { aUser.Release(); });
        m_pAcceptor.Reset();
        m_Network.RunFor(RECOVERY);
        if (m_Network.CountEnds() > 0)
            m_Network.Fail("ends remain");
    }

    CCmSimNetwork& m_Network;
    const DWORD m_dwType;
    const BOOL m_bStable;  // neither an end nor a restart, and time without limit
    CCmConnectLog m_Servers, m_Clients;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::vector<CCmRefPtrT<ICmConnector>> m_Connectors;
    std::map<WORD, CLink> m_Links;  // by the client's first port
};

}  // namespace

void RunReliableScenario(CCmSimNetwork& aNetwork) { CRlbScenario(aNetwork).Run(); }
