// The policies against a plain model that has a queue for each receiver.
#include <deque>
#include <map>

#include "tests/session/forward_fixture.h"

namespace {

constexpr DWORD LENGTH = 16;
constexpr size_t LOG = 40;

struct CSaid {
    std::string m_strText;
    uint64_t m_ullKey;
    BOOL m_bKeyMessage;
};

// What a receiver is due, as numbers of messages.
struct CModelReceiver {
    BOOL IsConflating() const { return m_Options.m_Policy == CM_FORWARD_CONFLATE; }

    CCmForwardReceiverOptions m_Options;
    CCmRefPtrT<CFakeLower> m_pLower;
    DWORD m_dwId = 0;
    std::deque<size_t> m_Replay, m_Queue;
    std::string m_strSent;
    uint64_t m_ullSent = 0, m_ullDropped = 0, m_ullConflated = 0;
    size_t m_stJoined = 0;
    DWORD m_dwRoom = 0, m_dwRest = 0;
    BOOL m_bAwaitsKey = FALSE, m_bNotYet = FALSE, m_bRefused = FALSE, m_bGone = FALSE;
};

class CModel {
public:
    void Join(CModelReceiver& aReceiver) {
        aReceiver.m_stJoined = m_All.size();
        switch (aReceiver.m_Options.m_Join) {
        case CM_FORWARD_JOIN_NEXT:
            break;
        case CM_FORWARD_JOIN_OLDEST:
            AddFrom(aReceiver, m_stBegin);
            break;
        case CM_FORWARD_JOIN_ALL_KEYS:
            for (const auto& [stNumber, ullKey] : Newest())
                aReceiver.m_Replay.push_back(stNumber);
            break;
        case CM_FORWARD_JOIN_KEY:
            size_t stKey = m_All.size();
            while (stKey > m_stBegin && !m_All[stKey - 1].m_bKeyMessage)
                --stKey;
            aReceiver.m_bAwaitsKey = aReceiver.m_bNotYet = stKey == m_stBegin;
            if (!aReceiver.m_bAwaitsKey)
                AddFrom(aReceiver, stKey - 1);
        }
    }

    CmResult Forward(std::vector<CModelReceiver*>& aReceivers, const CSaid& aSaid) {
        BOOL bWait = FALSE;
        for (CModelReceiver* p : aReceivers) {
            if (IsAtLimit(*p))
                Serve(*p);
            if (!p->m_bGone && IsAtLimit(*p))
                bWait |= Apply(*p, p->m_Options.m_dwMaxMessages / 2);
        }
        for (CModelReceiver* p : aReceivers) {
            if (!bWait && IsFull() && NeedsFirst(*p))
                Serve(*p);
        }
        for (CModelReceiver* p : aReceivers)
            bWait |= p->m_Options.m_Policy == CM_FORWARD_WAIT && IsFull() && NeedsFirst(*p);
        if (bWait)
            return CM_ERROR_PARTIAL_DATA;
        for (CModelReceiver* p : aReceivers) {
            if (IsFull() && NeedsFirst(*p))
                Apply(*p, std::min<size_t>(p->m_Options.m_dwMaxMessages / 2, LOG / 2));
        }
        m_stBegin += IsFull();
        m_All.push_back(aSaid);
        m_bEverKey |= aSaid.m_bKeyMessage;
        for (CModelReceiver* p : aReceivers)
            Append(*p);
        return CM_OK;
    }

    void Serve(CModelReceiver& aReceiver) {
        CModelReceiver& r = aReceiver;
        const BOOL bDatagrams = r.m_pLower->m_dwType == CM_TRANSPORT_TYPE_UDP;
        while (!r.m_bGone && !r.m_bRefused && (!r.m_Replay.empty() || !r.m_Queue.empty())) {
            r.m_bRefused = r.m_dwRoom < (bDatagrams ? LENGTH : 1);
            if (r.m_bRefused)
                return;
            std::deque<size_t>& queue = r.m_Replay.empty() ? r.m_Queue : r.m_Replay;
            r.m_strSent += m_All[queue.front()].m_strText;
            queue.pop_front();
            ++r.m_ullSent;
            r.m_dwRest = LENGTH - std::min(LENGTH, r.m_dwRoom);
            r.m_dwRoom -= LENGTH - r.m_dwRest;
            r.m_bRefused = r.m_dwRest > 0;
        }
    }

    size_t GetEnd() const { return m_All.size(); }

private:
    BOOL IsFull() const { return m_All.size() - m_stBegin >= LOG; }
    void AddFrom(CModelReceiver& aReceiver, size_t aNumber) {
        for (; aNumber < m_All.size(); ++aNumber) {
            if (aReceiver.IsConflating() && IsReplaced(aNumber))
                ++aReceiver.m_ullConflated;
            else
                aReceiver.m_Queue.push_back(aNumber);
        }
    }
    BOOL IsReplaced(size_t aNumber) const {
        const uint64_t ullKey = m_All[aNumber].m_ullKey;
        return ullKey != 0 && std::any_of(m_All.begin() + static_cast<long>(aNumber) + 1, m_All.end(),
                                          [&](const CSaid& a) { return a.m_ullKey == ullKey; });
    }
    std::map<size_t, uint64_t> Newest() const {
        std::map<size_t, uint64_t> newest;
        for (size_t i = 0; i < m_All.size(); ++i) {
            if (m_All[i].m_ullKey != 0 && !IsReplaced(i))
                newest[i] = m_All[i].m_ullKey;
        }
        return newest;
    }
    size_t Counted(const CModelReceiver& aReceiver) const {
        return static_cast<size_t>(std::count_if(aReceiver.m_Queue.begin(), aReceiver.m_Queue.end(), [&](size_t n) {
            return n >= aReceiver.m_stJoined && !(aReceiver.IsConflating() && m_All[n].m_ullKey != 0);
        }));
    }
    BOOL IsAtLimit(const CModelReceiver& aReceiver) const {
        return !aReceiver.m_bGone && Counted(aReceiver) >= aReceiver.m_Options.m_dwMaxMessages;
    }
    BOOL NeedsFirst(const CModelReceiver& aReceiver) const {
        return !aReceiver.m_bGone && !aReceiver.m_Queue.empty() && aReceiver.m_Queue.front() <= m_stBegin &&
               std::any_of(aReceiver.m_Queue.begin(), aReceiver.m_Queue.end(),
                           [&](size_t n) { return n == m_stBegin && !(aReceiver.IsConflating() && m_All[n].m_ullKey != 0); });
    }
    // TRUE: it holds the others back.
    BOOL Apply(CModelReceiver& aReceiver, size_t aLeft) {
        CModelReceiver& r = aReceiver;
        if (r.m_Options.m_Policy == CM_FORWARD_WAIT)
            return TRUE;
        r.m_bGone = r.m_Options.m_Policy != CM_FORWARD_DROP_OLDEST;
        if (r.m_bGone)
            return FALSE;
        r.m_ullDropped += r.m_Replay.size();
        r.m_Replay.clear();
        while (r.m_Queue.size() > aLeft || (m_bEverKey && !r.m_Queue.empty() && !m_All[r.m_Queue.front()].m_bKeyMessage)) {
            r.m_Queue.pop_front();
            ++r.m_ullDropped;
        }
        r.m_bAwaitsKey = m_bEverKey && r.m_Queue.empty();
        return FALSE;
    }
    void Append(CModelReceiver& aReceiver) {
        CModelReceiver& r = aReceiver;
        const size_t stNumber = m_All.size() - 1;
        const uint64_t ullKey = m_All[stNumber].m_ullKey;
        const auto hasKey = [&](size_t n) { return m_All[n].m_ullKey == ullKey; };
        if (ullKey != 0)
            r.m_ullConflated += std::erase_if(r.m_Replay, hasKey);
        if (ullKey != 0 && r.IsConflating())
            r.m_ullConflated += std::erase_if(r.m_Queue, hasKey);
        if (r.m_bAwaitsKey && !m_All[stNumber].m_bKeyMessage) {
            r.m_ullDropped += !r.m_bNotYet;
            return;
        }
        r.m_bAwaitsKey = r.m_bNotYet = FALSE;
        r.m_Queue.push_back(stNumber);
    }

    std::vector<CSaid> m_All;
    size_t m_stBegin = 0;
    BOOL m_bEverKey = FALSE;
};

class ForwardModelTest : public ForwardTest {
protected:
    DWORD Below(DWORD aLimit) { return static_cast<DWORD>(m_Random() % aLimit); }

    void Add() {
        auto pReceiver = std::make_unique<CModelReceiver>();
        pReceiver->m_Options.m_Policy = static_cast<ECmForwardPolicy>(Below(4));
        pReceiver->m_Options.m_Join = static_cast<ECmForwardJoin>(Below(4));
        pReceiver->m_Options.m_dwMaxMessages = 1 + Below(60);
        pReceiver->m_pLower = CCmRefPtrT<CFakeLower>(new CFakeLower(Below(2) ? CM_TRANSPORT_TYPE_TCP : CM_TRANSPORT_TYPE_UDP));
        pReceiver->m_pLower->m_dwRoom = pReceiver->m_dwRoom = Below(300);
        pReceiver->m_dwId = ForwardTest::Add(*pReceiver->m_pLower, pReceiver->m_Options);
        m_Model.Join(*pReceiver);
        m_Present.push_back(pReceiver.get());
        m_Receivers.push_back(std::move(pReceiver));
        TurnBoth();
    }
    void TurnBoth() {
        Turn();
        for (CModelReceiver* p : m_Present)
            m_Model.Serve(*p);
    }
    void ForwardBoth() {
        const std::string strNumber = std::to_string(m_Model.GetEnd());
        const CSaid said{std::string(LENGTH - strNumber.size(), ' ') + strNumber, Below(3) ? Below(6) : 0,
                         m_bKeyMessages && Below(12) == 0};
        const CmResult rv = m_Model.Forward(m_Present, said);
        ASSERT_EQ(rv, Forward(said.m_strText, said.m_ullKey, said.m_bKeyMessage ? DWORD{CCmForwardHeader::KEY_MESSAGE} : 0));
        std::erase_if(m_Present, [](const CModelReceiver* p) { return p->m_bGone; });
    }
    void MakeRoom(CModelReceiver& aReceiver, DWORD aBytes) {
        const DWORD dwRest = std::min(aBytes, aReceiver.m_dwRest);
        aReceiver.m_dwRoom = aBytes - dwRest;
        aReceiver.m_dwRest -= dwRest;
        aReceiver.m_bRefused = aReceiver.m_dwRest > 0;
        aReceiver.m_pLower->MakeRoom(aBytes);
        TurnBoth();
    }
    void Compare() {
        for (const CModelReceiver* p : m_Present) {
            const CCmForwardStatistics statistics = StatisticsOf(*m_pSession, p->m_dwId);
            ASSERT_EQ(p->m_ullSent, statistics.m_Sent.m_ullMessages);
            const uint64_t ullLeft = p->m_ullDropped + p->m_ullConflated + p->m_Queue.size() + p->m_Replay.size();
            ASSERT_EQ(p->m_ullSent + ullLeft, statistics.m_Due.m_ullMessages);
            if (p->m_Options.m_Join != CM_FORWARD_JOIN_ALL_KEYS) {  // a replay counts late what was replaced
                ASSERT_EQ(p->m_ullDropped, statistics.m_Dropped.m_ullMessages);
            }
        }
        StatisticsOf(*m_pSession);
    }

    CModel m_Model;
    std::vector<std::unique_ptr<CModelReceiver>> m_Receivers;
    std::vector<CModelReceiver*> m_Present;
    std::minstd_rand m_Random{1};
    BOOL m_bKeyMessages = FALSE;
};

}  // namespace

TEST_F(ForwardModelTest, EachReceiverGetsExactlyItsPolicysMessages) {
    for (unsigned nSeed = 1; nSeed <= 60 && !HasFailure(); ++nSeed) {
        SCOPED_TRACE(nSeed);
        m_Random.seed(nSeed);
        m_Model = {};
        m_bKeyMessages = nSeed % 2;
        EXPECT_EQ(CM_OK, CCmConnectionManager::CreateForwardSession_i(&m_Sink, m_pSession.ParaOut()));
        Option(CM_OPT_FORWARD_LOG_MESSAGES, LOG);
        for (int i = 0; i < 600 && !HasFailure(); ++i) {
            const DWORD dwWhat = Below(100);
            if (dwWhat < 70)
                ForwardBoth();
            else if (dwWhat < 75 && m_Receivers.size() < 12)
                Add();
            else if (dwWhat < 95 && !m_Present.empty())
                MakeRoom(*m_Present[Below(static_cast<DWORD>(m_Present.size()))], Below(400));
            else
                TurnBoth();
            if (dwWhat % 8 == 0)
                Compare();
        }
        for (CModelReceiver* p : std::vector(m_Present))
            MakeRoom(*p, 1 << 20);
        Compare();
        EXPECT_EQ(0u, StatisticsOf(*m_pSession).m_Lag.m_ullMessages);
        for (const auto& pReceiver : m_Receivers) {
            const std::string strGot = pReceiver->m_pLower->GetSent();
            const BOOL bWhole = !pReceiver->m_bGone;
            EXPECT_EQ(bWhole ? pReceiver->m_strSent : pReceiver->m_strSent.substr(0, strGot.size()), strGot);
            EXPECT_EQ(bWhole ? 0u : 1u, pReceiver->m_pLower->m_Disconnects.size());
        }
        m_pSession->Close(CM_OK);
        m_Present.clear();
        m_Receivers.clear();
        Turn();
    }
}
