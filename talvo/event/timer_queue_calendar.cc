#include "talvo/event/timer_queue_calendar.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/reference_control.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/event_batch.h"
#include "talvo/event/thread_manager.h"

namespace {

constexpr DWORD MIN_SLOT_INTERVAL = 10;
constexpr DWORD MIN_MAX_SLOT_NUMBER = 10;

}  // namespace

namespace talvo {

// The ticks of a calendar that wait in its thread's queue: one event, however many there are. It may outlive the calendar.
class CPostedTicks final : public ICmEvent, public CCmReferenceControlT<CCmMutexThread> {
public:
    explicit CPostedTicks(CCmTimerQueueCalendar& aQueue) : m_pQueue(&aQueue) {}

    // In the calendar's thread.
    void Detach() { m_pQueue = nullptr; }
    BOOL IsDetached() const { return !m_pQueue; }

    CmResult PostTo(ICmEventQueue& aQueue) {
        ++m_dwCount;
        if (m_bPosted.exchange(true))
            return CM_OK;
        AddReference();  // of the queue
        return aQueue.PostEvent(this);
    }

    // A callback may run a loop, which runs the next post of this event, and may destroy the calendar. All turns are of one
    // time: otherwise slow callbacks become due again in the same event, which would take longer each time.
    CmResult OnEventFire() override {
        ++m_dwRuns;
        m_bPosted = false;
        const DWORD dwTicks = m_dwCount.exchange(0);
        const int64_t llNow = CCmClock::GetTimeOfDayUsec();
        for (DWORD dwTurns = m_pQueue ? m_pQueue->CountTurns_i(dwTicks, llNow) : 0; dwTurns > 0 && m_pQueue; --dwTurns)
            m_pQueue->Turn_i(llNow, TRUE);
        if (m_pQueue)
            m_pQueue->OnTicked_i();
        return CM_OK;
    }

    // Without a run if the queue refused or dropped the event: the next tick posts it again.
    void OnDestorySelf() override {
        if (m_dwRuns > 0)
            --m_dwRuns;
        else
            m_bPosted = false;
        ReleaseReference();
    }

private:
    CCmTimerQueueCalendar* m_pQueue;  // null: destroyed
    std::atomic<DWORD> m_dwCount{0};  // ticks that have not run
    std::atomic<DWORD> m_dwRuns{0};   // under way
    std::atomic<bool> m_bPosted{false};
};

}  // namespace talvo

void CCmTimerQueueCalendar::CFree::operator()(CEntry** aSlots) const { std::free(aSlots); }

// calloc, because the wheel is large and the system gives zeroed pages only as far as it is used.
CCmTimerQueueCalendar::CCmTimerQueueCalendar(DWORD aSlotInterval, DWORD aMaxInterval, ICmEventQueue* aQueue)
    : CCmTimerQueueBase(nullptr),
      m_pEventQueue(aQueue ? aQueue : CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_CURRENT)),
      m_dwSlotInterval(std::max(aSlotInterval, MIN_SLOT_INTERVAL)),
      m_dwMaxSlotNumber(std::max(aMaxInterval / m_dwSlotInterval, MIN_MAX_SLOT_NUMBER + 1) - 1),
      m_pTicks(new (std::nothrow) talvo::CPostedTicks(*this)),
      m_pSlots(static_cast<CEntry**>(m_pTicks ? std::calloc(m_dwMaxSlotNumber + 1, sizeof(CEntry*)) : nullptr)) {}

CCmTimerQueueCalendar::~CCmTimerQueueCalendar() {
    RunPendingDeletions();
    if (m_pTicks)
        m_pTicks->Detach();
}

int CCmTimerQueueCalendar::Tick() { return Turn_i(CCmClock::GetTimeOfDayUsec(), FALSE); }

CmResult CCmTimerQueueCalendar::PostTick() {
    if (!m_pEventQueue)
        return CM_ERROR_NULL_POINTER;
    return m_pSlots ? m_pTicks->PostTo(*m_pEventQueue) : CM_ERROR_OUT_OF_MEMORY;
}

// The clock is ahead of the ticks if a test has advanced it, or if ticks that an outer turn has left still wait.
DWORD CCmTimerQueueCalendar::CountTurns_i(DWORD aTicks, int64_t aNow) const {
    if (m_Handlers.empty())
        return aTicks;
    const int64_t llBehind = (aNow - m_llTurnedTo) / GetSlotUsec_i();
    return std::max(aTicks, static_cast<DWORD>(std::clamp<int64_t>(llBehind, 0, m_dwMaxSlotNumber)));
}

int CCmTimerQueueCalendar::Turn_i(int64_t aNow, BOOL aByClock) {
    const CCmRefPtrT<talvo::CPostedTicks> pTicks = m_pTicks;  // outlives the calendar
    const CCmTimeValue tvNow = CCmTimeValue::FromUsec(aNow);
    int nFired = RunDeletions_l(tvNow);
    if (!m_pSlots || pTicks->IsDetached())
        return nFired;
    m_llTurnedTo = std::max(m_llTurnedTo, std::min(m_llTurnedTo, aNow) + GetSlotUsec_i());
    TakeSlot_i();
    const talvo::CEventBatch batch;
    while (CEntry* pEntry = m_pDue) {
        CNode& node = pEntry->m_Node;
        const BOOL bBySlot = !aByClock || pEntry->m_bTurn;
        if (!bBySlot && node.m_llExpires > aNow) {
            Unlink_i(*pEntry);
            InsertUnique_i(CCmTimeValue::FromUsec(node.m_llExpires - aNow), *pEntry);
            continue;
        }
        if (bBySlot)
            node.m_llExpires = aNow;
        const CNode due = Take_i(*pEntry, aNow);
        ++nFired;
        due.m_pEh->OnTimeout(tvNow, due.m_pArg);
        if (pTicks->IsDetached())
            return nFired;
    }
    return nFired;
}

// Goes on to the next slot. Its timers fire behind those that an outer turn has left. A write to an empty slot would take a
// page of the system.
void CCmTimerQueueCalendar::TakeSlot_i() {
    m_dwCurrentSlot = (m_dwCurrentSlot + 1) % (m_dwMaxSlotNumber + 1);
    m_dwNearest = std::max<DWORD>(m_dwNearest, 2) - 1;
    if (!m_pSlots[m_dwCurrentSlot])
        return;
    CEntry** ppEnd = &m_pDue;
    while (*ppEnd)
        ppEnd = &(*ppEnd)->m_pNext;
    *ppEnd = std::exchange(m_pSlots[m_dwCurrentSlot], nullptr);
    (*ppEnd)->m_ppBack = ppEnd;
}

// Takes out a timer that is due, and inserts it again at its next expiry, if it has one.
CCmTimerQueueBase::CNode CCmTimerQueueCalendar::Take_i(CEntry& aEntry, int64_t aNow) {
    const CNode due = aEntry.m_Node;
    Unlink_i(aEntry);
    if (Advance(aEntry.m_Node, aNow))
        InsertUnique_i(CCmTimeValue::FromUsec(aEntry.m_Node.m_llExpires - aNow), aEntry);
    else
        m_Handlers.erase(due.m_pEh);
    return due;
}

void CCmTimerQueueCalendar::InsertUnique_i(const CCmTimeValue& aInterval, CEntry& aEntry) {
    const int64_t llMsec = int64_t{aInterval.GetSec()} * 1000 + aInterval.GetUsec() / 1000;
    int64_t llDistance = std::max<int64_t>((llMsec + m_dwSlotInterval - 1) / m_dwSlotInterval, 1);
    aEntry.m_bTurn = llDistance > int64_t{m_dwMaxSlotNumber} - 1;
    if (aEntry.m_bTurn) {
        CM_ERROR_TRACE_THIS("CCmTimerQueueCalendar::InsertUnique_i, exceed max interval. interval_s="
                            << aInterval.GetSec() << " interval_us=" << aInterval.GetUsec()
                            << " m_dwMaxSlotNumber=" << m_dwMaxSlotNumber);
        llDistance = m_dwMaxSlotNumber;
    }
    const DWORD dwDistance = static_cast<DWORD>(llDistance);
    m_dwNearest = std::min(m_dwNearest, dwDistance);
    CEntry*& pFirst = SlotAt_i(dwDistance);
    aEntry.m_pNext = pFirst;
    aEntry.m_ppBack = &pFirst;
    if (pFirst)
        pFirst->m_ppBack = &aEntry.m_pNext;
    pFirst = &aEntry;
}

void CCmTimerQueueCalendar::Unlink_i(CEntry& aEntry) {
    *aEntry.m_ppBack = aEntry.m_pNext;
    if (aEntry.m_pNext)
        aEntry.m_pNext->m_ppBack = aEntry.m_ppBack;
    aEntry.m_ppBack = nullptr;
}

int CCmTimerQueueCalendar::PushNode_l(const CNode& aNode) {
    CEntry* pEntry = nullptr;
    if (!m_pSlots || !talvo::WithMemory([&] { pEntry = &m_Handlers[aNode.m_pEh]; }))
        return NO_MEMORY;
    const BOOL bFound = pEntry->m_ppBack != nullptr;
    if (bFound)
        Unlink_i(*pEntry);
    if (m_Handlers.size() == 1)  // the ticks begin
        m_llTurnedTo = aNode.m_llExpires - aNode.m_llInterval;
    pEntry->m_Node = aNode;
    InsertUnique_i(CCmTimeValue::FromUsec(aNode.m_llInterval), *pEntry);
    return bFound ? 1 : 0;
}

int CCmTimerQueueCalendar::RePushNode_l(const CNode& aNode) { return PushNode_l(aNode); }

int CCmTimerQueueCalendar::EraseNode_l(ICmTimerHandler* aEh) {
    const auto itHandler = m_Handlers.find(aEh);
    if (itHandler == m_Handlers.end())
        return 1;
    Unlink_i(itHandler->second);
    m_Handlers.erase(itHandler);
    return 0;
}

// aDistance: 1 to a full turn, in ticks.
CCmTimerQueueCalendar::CEntry*& CCmTimerQueueCalendar::SlotAt_i(DWORD aDistance) const {
    return m_pSlots[(m_dwCurrentSlot + aDistance) % (m_dwMaxSlotNumber + 1)];
}

CCmTimerQueueCalendar::CEntry* CCmTimerQueueCalendar::FindFirst_i() const {
    if (m_pDue || m_Handlers.empty())
        return m_pDue;
    while (!SlotAt_i(m_dwNearest))
        ++m_dwNearest;
    return SlotAt_i(m_dwNearest);
}

int CCmTimerQueueCalendar::PopFirstNode_l(CNode& aNode) {
    CEntry* pFirst = FindFirst_i();
    if (!pFirst)
        return -1;
    aNode = pFirst->m_Node;
    return EraseNode_l(aNode.m_pEh);
}

BOOL CCmTimerQueueCalendar::PopDueNode_l(int64_t aNow, CNode& aNode) {
    CEntry* pFirst = FindFirst_i();
    if (!pFirst || pFirst->m_Node.m_llExpires > aNow)
        return FALSE;
    aNode = Take_i(*pFirst, aNow);
    return TRUE;
}

int CCmTimerQueueCalendar::GetEarliestTime_l(int64_t& aExpires) {
    const CEntry* pFirst = FindFirst_i();
    if (!pFirst)
        return -1;
    aExpires = pFirst->m_Node.m_llExpires;
    return 0;
}
