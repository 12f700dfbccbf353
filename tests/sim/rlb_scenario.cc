// Reliable connections in bad weather.
#include <deque>
#include <set>

#include "talvo/connection/protocol/cs_send_buf.h"
#include "talvo/talvo.h"
#include "talvo/testing/testing.h"
#include "tests/sim/sim_scenario.h"
#include "tests/support/temp_dir.h"

namespace {

using Manager = CCmConnectionManager;

const CCmInetAddr SERVER("10.0.0.1", 80);
const CCmTimeValue BACK(86);       // 45 s of silence, an attempt of 10 s, 30 s of back-off, and a second
const CCmTimeValue BLOCKED(60);    // an address whose requests were refused
const CCmTimeValue DELIVERED(20);  // everything that was kept
constexpr DWORD FOR_EVER = 86400;
constexpr size_t MAX_REPLAYS = 8;
constexpr size_t MAX_ATTEMPTS = 30;  // of one client in a minute; the waits allow half of it on average
constexpr WORD INTRUDERS = 60000;    // the first port of theirs

// At most one lost connection at a time.
void LimitLost(BOOL aLimit) {
    static const CCmTempDir s_Dir;
    static const std::string s_strPath = s_Dir.Write("talvo.cfg", "[Reliable]\nMaxLost=1\n");
    load_config_file(aLimit ? s_strPath.c_str() : "/nonexistent");
}

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
          m_bStable(Chance(50)),
          m_bFewLost(!m_bStable && Chance(30)),
          m_bRestarts(Chance(50)) {
        CCsSendBuf::LimitNumbers(m_bRestarts ? 4 * CCmSimReliablePeer::MAX_SMALL_BUFFER : CCsSendBuf::SEQ_LIMIT);
        m_Network.SetObserver(this);
        m_Servers.m_Indicated = [this] { Add(m_Servers, TRUE); };
        m_Clients.m_Indicated = [this] { Add(m_Clients, FALSE); };
        Listen();
    }
    ~CRlbScenario() override {
        m_Network.SetObserver(nullptr);
        CCsSendBuf::LimitNumbers();
    }

    void Run() {
        for (m_stClients = 1 + Below(3); m_Connectors.size() < m_stClients;) {
            auto& pConnector = m_Connectors.emplace_back();
            Manager::Instance()->CreateConnectionClient(m_dwType, pConnector.ParaOut());
            pConnector->AsycConnect(&m_Clients, SERVER);
        }
        m_Network.RunFor(CCmTimeValue(1));
        m_Connectors.clear();
        for (DWORD i = 1 + Below(8); i > 0; --i)
            RunAWhile();
        Settle();
        Chance(20) ? DrainAll() : SayGoodbye();
        ForAll([](CCmSimReliablePeer& aUser) { aUser.Release(); });
        m_pAcceptor.Reset();
        m_Network.RunFor(BACK);
        if (m_Network.CountEnds() > 0)
            m_Network.Fail("ends remain");
    }

    void OnStep() override {
        size_t stLost = 0;
        ForAll([](CCmSimReliablePeer& aUser) { aUser.CheckStep(); });
        for (const auto& [wPort, link] : m_Links)
            stLost += link.m_pServer && link.m_pServer->IsSuspended();
        if (m_bFewLost && stLost > 1)
            m_Network.Fail(std::to_string(stLost) + " connections are lost");
    }
    void OnConnect(const CCmInetAddr& aLocal, const CCmInetAddr&) override {
        if (aLocal.GetPort() >= INTRUDERS)
            return;
        m_Attempts.push_back(m_Network.Now());
        while (m_Attempts.front() + CCmTimeValue(60) < m_Attempts.back())
            m_Attempts.pop_front();
        if (m_Attempts.size() > m_stClients * MAX_ATTEMPTS)
            m_Network.Fail(std::to_string(m_Attempts.size()) + " attempts in a minute");
    }
    void OnOpen(const CCmSimEnd& aEnd) override {
        if (!aEnd.m_bAccepted && aEnd.m_AddrLocal.GetPort() < INTRUDERS)
            m_Fresh.insert(aEnd.m_AddrLocal);
    }
    // Remembers the requests for a channel: what an end sends first.
    void OnSend(const CCmSimEnd& aEnd, const CCmMessageBlock& aData) override {
        if (aEnd.m_bAccepted || m_Fresh.erase(aEnd.m_AddrLocal) == 0)
            return;
        const std::string strBytes = aData.FlattenChained();
        const std::string strChannel = strBytes.substr(5, 2);
        if (strChannel != std::string(2, '\0'))
            m_Requests[strChannel].push_back(strBytes);
    }

private:
    BOOL IsToken() const { return m_dwType & Manager::CTYPE_RECONNECT_TOKEN; }
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
        LimitLost(m_bFewLost);
        Manager::Instance()->CreateConnectionServer(m_dwType, m_pAcceptor.ParaOut());
        LimitLost(FALSE);
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
        pUser->Start(!m_bStable, m_bStable ? FOR_EVER : 10 + Below(200), m_bRestarts);
    }

    // Another address has no business with a channel of the plain form, nor a wrong token in the other. Earlier requests are
    // repeated from the client's address, too: the good ones among them take a transport over, and that is all. In the plain
    // form a counter from before a restart of the numbers may fit again, which ends the connection; it is not repeated here.
    void Intrude() {
        if (m_Requests.empty())
            return;
        const auto& requests = std::next(m_Requests.begin(), static_cast<long>(Below(m_Requests.size())))->second;
        std::string strRequest = requests[Below(requests.size())];
        const BOOL bFits = IsToken() ? strRequest != requests.back() : !m_bRestarts;
        const BOOL bReplay = Chance(30) && bFits && m_stReplays < MAX_REPLAYS;
        m_stReplays += bReplay;
        if (!bReplay && IsToken())
            strRequest[8 + Below(16)] ^= static_cast<char>(1 << Below(7));
        const CCmInetAddr addrLocal(bReplay ? "127.0.0.1" : "10.0.0.3", m_wIntruder++);
        m_Intruders.emplace_back(std::make_unique<CCmSimIntruder>(addrLocal, SERVER, strRequest), bReplay);
    }
    void EndIntruders() {
        for (const auto& [pIntruder, bReplay] : m_Intruders) {
            if (!bReplay && pIntruder->GetAnswer()[0] == CS_PDU_TYPE_CONN_RESP)
                m_Network.Fail("an intruder was let in");
        }
        m_Intruders.clear();
    }

    void RunAWhile() {
        m_Network.SetLink({m_Network.RandomStorm(), m_Network.RandomStorm()});
        m_Network.RunFor(m_Network.RandomTime(CCmTimeValue(Chance(30) ? 70 : 10)));
        if (Chance(10)) {
            m_pAcceptor->StopListen(CM_OK);  // connects are refused
            m_Network.RunFor(m_Network.RandomTime(CCmTimeValue(20)));
            m_pAcceptor->StartListen(&m_Servers, SERVER);
        }
        for (DWORD i = Chance(50) ? 1 + Below(4) : 0; i > 0; --i)
            Intrude();
        if (Chance(30))
            EndIntruders();
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
        if (m_stReplays > 0 && !IsToken())
            m_Network.RunFor(BLOCKED);
        m_Network.RunFor(BACK);
        ForAll([this](CCmSimReliablePeer& aUser) {
            if (aUser.IsSuspended() && m_bStable)
                m_Network.Fail("is suspended for too long");
            aUser.Send(4);
        });
        m_Network.RunFor(DELIVERED);
        EndIntruders();
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
    }

    // Ends all, the suspended ones too.
    void DrainAll() {
        CCmTimeValue tvLimit(10);
        m_Network.SetLink({m_Network.RandomStorm(), m_Network.RandomStorm()});
        m_Network.RunFor(m_Network.RandomTime(CCmTimeValue(10)));
        Manager::Instance()->Drain(&tvLimit);
        m_Network.RunFor(CCmTimeValue(12));
        ForAll([this](CCmSimReliablePeer& aUser) {
            if (aUser.IsOpen())
                m_Network.Fail("a drain has left a connection");
        });
    }

    CCmSimNetwork& m_Network;
    const DWORD m_dwType;
    const BOOL m_bStable;    // neither an end nor a restart, and time without limit
    const BOOL m_bFewLost;   // MaxLost is 1
    const BOOL m_bRestarts;  // the numbers restart often
    size_t m_stClients = 0;
    std::deque<CCmTimeValue> m_Attempts;                                        // of the last minute
    std::set<CCmInetAddr> m_Fresh;                                              // of clients, without a send
    std::map<std::string, std::vector<std::string>> m_Requests;                 // seen, by channel
    std::vector<std::pair<std::unique_ptr<CCmSimIntruder>, BOOL>> m_Intruders;  // and whether it replays
    size_t m_stReplays = 0;
    WORD m_wIntruder = INTRUDERS;
    CCmConnectLog m_Servers, m_Clients;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::vector<CCmRefPtrT<ICmConnector>> m_Connectors;
    std::map<WORD, CLink> m_Links;  // by the client's first port
};

}  // namespace

void RunReliableScenario(CCmSimNetwork& aNetwork) { CRlbScenario(aNetwork).Run(); }
