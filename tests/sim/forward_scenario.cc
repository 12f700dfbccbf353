// A forward session whose receivers are slow, paused, broken, and come and go.
#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "talvo/session/forward_session_proxy.h"
#include "talvo/talvo.h"
#include "talvo/testing/testing.h"
#include "talvo/transport/thread_proxy/transport_thread_proxy.h"
#include "tests/sim/sim_scenario.h"
#include "tests/sim/sim_thread.h"

namespace {

using Manager = CCmConnectionManager;

constexpr DWORD TCP = Manager::CTYPE_TCP;
constexpr DWORD UDP = Manager::CTYPE_UDP;
constexpr DWORD PACKAGE = Manager::CTYPE_PDU_PACKAGE;
constexpr DWORD NO_PARTIAL = Manager::CTYPE_SEND_NO_PARTIAL_DATA;
constexpr DWORD RELIABLE = Manager::CTYPE_PDU_RELIABLE;
constexpr DWORD TYPES[] = {TCP,
                           Manager::CTYPE_PDU_LENGTH | TCP,
                           PACKAGE | TCP,
                           PACKAGE | Manager::CTYPE_PDU_KEEPALIVE | TCP,
                           NO_PARTIAL | TCP,
                           RELIABLE | TCP,
                           RELIABLE | Manager::CTYPE_RECONNECT_TOKEN | TCP,
                           UDP,
                           PACKAGE | UDP,
                           NO_PARTIAL | UDP};
constexpr DWORD SHORTEST = 8;  // the number and the length
constexpr DWORD LONGEST = 3000;
const CCmTimeValue CALM(1200);  // a reliable connection is back, and 1 MiB in flight has come at 1,000 bytes a second

// The client's end: checks messages as they come.
class CArrivals : public ICmTransportSink {
public:
    explicit CArrivals(BOOL aStream) : m_bStream(aStream) {}

    // The first words of a message are its number and its length.
    static char LastOf(const DWORD* aWords) { return static_cast<char>(aWords[1] == SHORTEST ? 0 : aWords[0] >> 3); }

    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        for (const CCmMessageBlock* pMb = &aData; pMb; pMb = pMb->GetNext())
            m_strBegun.append(pMb->GetTopLevelReadPtr(), pMb->GetTopLevelLength());
        size_t stAt = m_bStream ? 0 : Take(0, m_strBegun.size());
        while (m_strBegun.size() - stAt >= SHORTEST && LengthAt(stAt) <= m_strBegun.size() - stAt)
            stAt += Take(stAt, m_strBegun.size() - stAt);
        m_strBegun.erase(0, stAt);
        m_Receive();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}

    std::vector<int64_t> m_Numbers;  // of the messages that have come whole; -1 for a wrong one
    std::function<void()> m_Receive;

private:
    DWORD LengthAt(size_t aAt) const {
        DWORD dwLength = 0;
        std::memcpy(&dwLength, m_strBegun.data() + aAt + 4, 4);
        return dwLength;
    }
    // Returns the bytes that are taken: those of the message, or all if it is wrong.
    size_t Take(size_t aAt, size_t aMost) {
        DWORD words[2] = {};
        std::memcpy(words, m_strBegun.data() + aAt, std::min(aMost, sizeof(words)));
        const BOOL bWhole = words[1] >= SHORTEST && (m_bStream ? words[1] <= aMost : words[1] == aMost);
        const BOOL bRight = bWhole && m_strBegun[aAt + words[1] - 1] == LastOf(words);
        m_Numbers.push_back(bRight ? int64_t{words[0]} : -1);
        return bRight ? words[1] : aMost;
    }

    const BOOL m_bStream;
    std::string m_strBegun;  // of a stream, the part of a message
};

// A connection whose server end becomes a receiver.
struct CLane {
    CLane(WORD aPort, DWORD aType, BOOL aProxy)
        : m_dwType(aType), m_bProxy(aProxy), m_Addr("10.0.0.1", aPort), m_Client(aType == TCP) {}

    BOOL IsDatagrams() const { return (m_dwType & UDP) != 0; }
    ICmTransport* Client() const { return m_Clients.m_Transports.empty() ? nullptr : m_Clients.m_Transports[0].Get(); }
    void Pause(BOOL aPaused) {
        if (Client())
            Client()->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPaused);
    }

    const DWORD m_dwType;
    const BOOL m_bProxy;  // the user's thread has the server's end
    const CCmInetAddr m_Addr;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmConnectLog m_Servers, m_Clients;
    CCmUpcallLog m_Server;
    CArrivals m_Client;
    DWORD m_dwId = 0;                  // of the receiver; 0: not yet
    BOOL m_bOver = FALSE;              // it was a receiver, or has ended
    std::vector<uint64_t> m_Expected;  // what a receiver that is gone was sent
    BOOL m_bPrefix = FALSE;            // perhaps not all of it arrives
};

class CForwardScenario : public ICmForwardSink, public ICmSimObserver {
public:
    explicit CForwardScenario(CCmSimNetwork& aNetwork) : m_Network(aNetwork) {
        m_Network.SetObserver(this);
        if (m_bUser)
            talvo::CForwardSessionProxy::Make(*this, m_Thread.GetLink(), NetworkLink(), m_pSession.ParaOut());
        else
            Manager::Instance()->CreateForwardSession(this, m_pSession.ParaOut());
        if (m_bLimited)
            LimitLog();
        for (DWORD i = Chance(20) ? 1 + Below(50) : 1 + Below(8); i > 0; --i)
            AddLane();
    }
    ~CForwardScenario() override { m_Network.SetObserver(nullptr); }

    void Run() {
        m_Network.RunFor(CCmTimeValue(1));
        for (DWORD i = 5 + Below(30); i > 0 && m_pSession; --i) {
            Act();
            m_Network.RunFor(m_Network.RandomTime(CCmTimeValue(Chance(10) ? 10 : 0, 300000)));
            if (Chance(3))
                m_Network.Jump(m_Network.RandomTime(CCmTimeValue(30)));
        }
        Settle();
    }

    void OnStep() override {
        m_Thread.Look();
        Look();
        if (m_dwLagged == 0 || m_Network.Now() == m_tvLook)
            return NoteLagging();
        m_Network.Fail("a receiver without a refusal has a lag: " + std::to_string(m_dwLagged));
        m_dwLagged = 0;
    }

    void OnReceiver(DWORD aId, CmResult aReason) override {
        Look();
        const CCmSimForwardModel::CReceiver* pReceiver = m_Model.Find(aId);
        if (!pReceiver)
            return m_Network.Fail("OnReceiver of an unknown receiver");
        if (aReason == CM_ERROR_PARTIAL_DATA &&
            !(pReceiver->m_bGone ? pReceiver->m_bLost : m_Model.IsAtLimit(*pReceiver, get_tick_count())))
            m_Network.Fail("a receiver is removed without a reason: " + m_Model.Describe(aId));
        Forget(aId);
        ActInside();
    }
    void OnForward() override {
        if (!m_bHeldBack)
            m_Network.Fail("OnForward without a Forward that was held back");
        m_bHeldBack = FALSE;
        ActInside();
    }
    void OnJoin(DWORD aId) override {
        if (!m_Model.Find(aId))
            m_Network.Fail("OnJoin of a receiver that is gone");
        ActInside();
        if (m_pSession && m_Model.Find(aId)) {
            Look();
            m_Model.Join(aId);
        }
    }

private:
    static CCmThreadLink& NetworkLink() {
        return CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_NETWORK)->GetLink();
    }
    BOOL Chance(DWORD aPercent) { return m_Network.Random(100) < aPercent; }
    DWORD Below(uint64_t aBound) { return static_cast<DWORD>(m_Network.Random(aBound)); }

    void LimitLog() {
        DWORD dwMessages = 1 + Below(60), dwBytes = 500 + Below(30000), dwKeys = 1 + Below(10);
        m_pSession->SetOption(CM_OPT_FORWARD_LOG_MESSAGES, &dwMessages);
        m_pSession->SetOption(CM_OPT_FORWARD_LOG_BYTES, &dwBytes);
        m_pSession->SetOption(CM_OPT_FORWARD_KEYS, &dwKeys);
        m_Model.SetLimits(dwMessages, dwBytes, dwKeys);
    }
    CCmSimLink RandomLink(const CLane& aLane) {
        CCmSimLink link;
        CCmSimPath& path = link.m_Down;
        if (aLane.IsDatagrams() || Chance(30))
            return link;
        path.m_tvDelay = m_Network.RandomTime(CCmTimeValue(0, 100000));
        path.m_dwBandwidth = Chance(50) ? 1000 + Below(200000) : 0;
        path.m_dwBuffer = Chance(50) ? 5000 + Below(20000) : 1 << 20;
        path.m_PartialSend = Chance(30) ? 0.3 : 0;
        path.m_Cut = Chance(10) ? 0.01 : 0;
        return link;
    }
    void AddLane() {
        CLane& lane = *m_Lanes.emplace_back(
            std::make_unique<CLane>(static_cast<WORD>(100 + m_Lanes.size()), TYPES[Below(std::size(TYPES))], Chance(25)));
        lane.m_Servers.m_Indicated = [&lane, this] {
            if (lane.m_Servers.m_Reasons.back() != CM_OK)
                return;
            CCmRefPtrT<ICmTransport>& pEnd = lane.m_Servers.m_Transports.back();
            if (lane.m_bProxy)
                pEnd = CCmTransportThreadProxy::Make(pEnd.Get(), m_Thread.GetLink(), NetworkLink(), lane.m_dwType);
            pEnd->OpenWithSink(&lane.m_Server);
        };
        lane.m_Clients.m_Indicated = [&lane] {
            if (lane.m_Clients.m_Reasons.back() != CM_OK)
                return;
            lane.Client()->OpenWithSink(&lane.m_Client);
            CCmMessageBlock hello(1, "h", 0, 1);
            if (lane.IsDatagrams())
                lane.Client()->SendData(hello);  // the server's end follows
        };
        lane.m_Client.m_Receive = [this] { ActInside(); };
        m_Network.SetLink(lane.m_Addr, RandomLink(lane));
        Manager::Instance()->CreateConnectionServer(lane.m_dwType, lane.m_pAcceptor.ParaOut());
        Manager::Instance()->CreateConnectionClient(lane.m_dwType, lane.m_pConnector.ParaOut());
        lane.m_pAcceptor->StartListen(&lane.m_Servers, lane.m_Addr);
        lane.m_pConnector->AsycConnect(&lane.m_Clients, lane.m_Addr);
    }

    void Act() {
        if (!m_pSession)
            return;
        const DWORD dwWhat = Below(100);
        if (dwWhat < 50)
            ForwardMany();
        else if (dwWhat < 75)
            AddReceiver();
        else if (dwWhat < 80)
            RemoveReceiver();
        else if (dwWhat < 98)
            Disturb();
        else if (m_Network.Now() > CCmTimeValue(5))
            Close();
    }
    void ActInside() {
        if (m_nDepth > 1 || !m_pSession || m_bCalm || !Chance(10))
            return;
        ++m_nDepth;
        Act();
        --m_nDepth;
    }
    CLane& RandomLane() { return *m_Lanes[Below(m_Lanes.size())]; }

    void ForwardMany() {
        Look();
        for (DWORD i = Chance(30) ? 1 + Below(100) : 1 + Below(5); i > 0 && m_pSession && !m_Waiting; --i)
            Forward();
    }
    // The model has looked since the last event.
    void Forward() {
        const DWORD dwLength = SHORTEST + (Chance(20) ? Below(LONGEST) : Below(100));
        const DWORD words[2] = {static_cast<DWORD>(m_Model.GetNextNumber()), dwLength};
        std::string strText(dwLength, CArrivals::LastOf(words));
        std::memcpy(strText.data(), words, sizeof(words));
        CCmMessageBlock message(dwLength);
        message.Write(strText.data(), dwLength);
        CCmForwardHeader header;
        header.m_ullKey = Chance(50) ? Below(10) : 0;
        header.m_dwFlags = Chance(m_dwKeyMessages) ? +CCmForwardHeader::KEY_MESSAGE : 0;
        CmResult rv = m_pSession->Forward(message, &header);
        if (m_bUser && rv == CM_OK && !TakeFromProxy()) {
            m_Waiting = {dwLength, header};
            rv = CM_ERROR_PARTIAL_DATA;
        }
        m_bHeldBack = m_bHeldBack || (rv == CM_ERROR_PARTIAL_DATA && !m_bUser);
        if (rv != CM_OK && rv != CM_ERROR_PARTIAL_DATA)
            m_Network.Fail("Forward: " + std::to_string(rv));
        m_Model.OnForward(*m_pSession, rv, dwLength, header, get_tick_count());
        Check();
    }

    BOOL HasTaken() {
        CCmForwardStatistics all;
        m_pSession->GetStatistics(all);
        return all.m_Forwarded.m_ullMessages > m_Model.GetNextNumber();
    }
    // The session forwards what waits in its proxy before it looks at a new receiver. FALSE: a receiver holds it back.
    BOOL TakeFromProxy() {
        DWORD dwId = 0;
        if (m_pSession->AddReceiver(nullptr, {}, dwId) != CM_ERROR_INVALID_ARG)
            m_Network.Fail("AddReceiver of null");
        return HasTaken();
    }

    void AddReceiver() {
        CLane& lane = RandomLane();
        if (lane.m_Servers.m_Transports.empty())
            return;
        CCmForwardReceiverOptions options;
        // What a log does for a message that waits in the proxy shows only later.
        options.m_Policy = static_cast<ECmForwardPolicy>(Below(m_bUser && m_bLimited ? +CM_FORWARD_WAIT : 4));
        options.m_Join = static_cast<ECmForwardJoin>(Below(4));
        options.m_dwMaxMessages = Chance(50) ? 1 + Below(50) : 0;
        options.m_dwMaxBytes = Chance(50) ? 1 + Below(20000) : 0;
        options.m_dwMaxMilliseconds = Chance(20) ? 1 + Below(2000) : 0;
        Look();
        DWORD dwId = 0;
        const CmResult rv = m_pSession->AddReceiver(lane.m_Servers.m_Transports[0].Get(), options, dwId);
        if (lane.m_bOver || lane.m_dwId != 0 || lane.m_Server.m_nDisconnects > 0) {
            if (rv != CM_ERROR_FOUND && rv != CM_ERROR_NULL_POINTER)
                m_Network.Fail("AddReceiver of a transport that is none: " + std::to_string(rv));
            return;
        }
        if (rv == CM_ERROR_NULL_POINTER || (rv == CM_ERROR_INVALID_ARG && lane.m_bProxy))
            return;  // the transport has ended, and OnDisconnect follows; or its opening is still in flight
        if (rv != CM_OK)
            return m_Network.Fail("AddReceiver: " + std::to_string(rv));
        lane.m_dwId = dwId;
        NoteTaken();  // before the receiver was added
        m_Model.Add(dwId, options);
        Look();
    }
    void RemoveReceiver() {
        CLane& lane = RandomLane();
        if (lane.m_dwId == 0)
            return;
        Look();
        const DWORD dwId = lane.m_dwId;
        const BOOL bPresent = !m_Model.Find(dwId)->m_bGone;
        const CmResult rv = m_pSession->RemoveReceiver(dwId, CM_OK);
        if (rv == CM_OK)
            Forget(dwId);
        else if (bPresent && rv != CM_ERROR_NOT_FOUND)
            m_Network.Fail("RemoveReceiver: " + std::to_string(rv));
    }
    void Disturb() {
        CLane& lane = RandomLane();
        const DWORD dwWhat = Below(100);
        if (dwWhat < 60)
            lane.Pause(Chance(50));
        else if (dwWhat < 90)
            m_Network.SetLink(lane.m_Addr, RandomLink(lane));
        else if (lane.Client() && Chance(30))
            lane.Client()->Disconnect(CM_OK);
    }
    void Close() {
        Look();
        if (m_Waiting)
            return;  // the end might still forward it
        m_pSession->Close(CM_OK);
        if (Chance(50))
            m_pSession.Reset();
        for (const auto& pLane : m_Lanes)
            Forget(pLane->m_dwId);
        m_pSession.Reset();
    }

    // The receiver has ended. What it was sent arrives, or a part.
    void Forget(DWORD aId) {
        const CCmSimForwardModel::CReceiver* pReceiver = m_Model.Find(aId);
        if (!pReceiver)
            return;
        for (const auto& pLane : m_Lanes) {
            if (pLane->m_dwId != aId)
                continue;
            pLane->m_Expected = pReceiver->m_Numbers;
            pLane->m_Expected.insert(pLane->m_Expected.end(), pReceiver->m_Queue.begin(), pReceiver->m_Queue.end());
            pLane->m_bPrefix = TRUE;
            pLane->m_dwId = 0;
            pLane->m_bOver = TRUE;
        }
        m_Model.Remove(aId);
    }

    void NoteTaken() {
        if (!m_Waiting || !HasTaken())
            return;
        m_Model.OnForward(*m_pSession, CM_OK, m_Waiting->first, m_Waiting->second, get_tick_count(), TRUE);
        m_Waiting.reset();
    }
    void Look() {
        if (!m_pSession)
            return;
        NoteTaken();
        m_Model.Look(*m_pSession, get_tick_count());
        Check();
    }
    void Check() {
        if (!m_Model.GetFailure().empty() && m_Network.GetFailures().empty())
            m_Network.Fail(m_Model.GetFailure());
    }
    void NoteLagging() {
        m_tvLook = m_Network.Now();
        m_dwLagged = m_pSession ? m_Model.FindLagging() : 0;
    }

    void Settle() {
        m_bCalm = TRUE;
        for (const auto& pLane : m_Lanes) {
            m_Network.SetLink(pLane->m_Addr, {});
            pLane->Pause(FALSE);
        }
        m_Network.RunFor(CALM);
        Look();
        for (const auto& pLane : m_Lanes)
            CheckArrived(*pLane);
        if (m_bHeldBack && m_pSession)
            m_Network.Fail("OnForward is owed");
        if (m_Waiting)
            m_Network.Fail("a message stays in the proxy");
        if (m_pSession)
            Close();
        m_Lanes.clear();
        m_Network.RunFor(CALM);
        if (m_Network.CountEnds() > 0)
            m_Network.Fail("ends remain");
    }
    void CheckArrived(CLane& aLane) {
        const CCmSimForwardModel::CReceiver* pReceiver = aLane.m_dwId != 0 ? m_Model.Find(aLane.m_dwId) : nullptr;
        if (pReceiver && !pReceiver->m_Queue.empty() && !pReceiver->m_bGone)
            m_Network.Fail("a receiver has a lag in the calm: " + std::to_string(aLane.m_dwId));
        const std::vector<uint64_t>& expected = pReceiver ? pReceiver->m_Numbers : aLane.m_Expected;
        const std::vector<int64_t>& arrived = aLane.m_Client.m_Numbers;
        size_t stAt = 0;
        for (const int64_t llNumber : arrived) {
            while (aLane.IsDatagrams() && stAt < expected.size() && expected[stAt] != static_cast<uint64_t>(llNumber))
                ++stAt;  // lost
            if (stAt == expected.size() || expected[stAt++] != static_cast<uint64_t>(llNumber))
                return m_Network.Fail("a message arrives that was not due: " + std::to_string(llNumber));
        }
        if (pReceiver && !aLane.IsDatagrams() && arrived.size() != expected.size())
            m_Network.Fail("messages are missing: " + std::to_string(expected.size() - arrived.size()));
    }

    CCmSimNetwork& m_Network;
    CSimThread m_Thread{m_Network};
    const BOOL m_bUser = Chance(30);                              // the session is used from that thread
    const BOOL m_bLimited = Chance(40);                           // its log has low limits
    std::optional<std::pair<DWORD, CCmForwardHeader>> m_Waiting;  // a message in the session's proxy: its length
    const DWORD m_dwKeyMessages = Chance(50) ? 5 : 0;             // per cent
    CCmRefPtrT<ICmForwardSession> m_pSession;
    CCmSimForwardModel m_Model;
    std::vector<std::unique_ptr<CLane>> m_Lanes;
    BOOL m_bHeldBack = FALSE;
    BOOL m_bCalm = FALSE;
    int m_nDepth = 0;  // of acts inside acts
    CCmTimeValue m_tvLook;
    DWORD m_dwLagged = 0;  // a receiver, at the end of the last step
};

}  // namespace

void RunForwardScenario(CCmSimNetwork& aNetwork) { CForwardScenario(aNetwork).Run(); }
