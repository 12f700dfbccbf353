#include "talvo/event/timer_queue_calendar.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

#include "talvo/base/clock.h"
#include "talvo/base/reference_control.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
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

    CmResult PostTo(ICmEventQueue& aQueue) {
        if (m_dwCount.fetch_add(1) > 0)
            return CM_OK;
        AddReference();  // of the queue
        const CmResult rv = aQueue.PostEvent(this);
        if (rv != CM_OK)
            m_dwCount = 0;  // the queue runs no ticks: the next post tries again
        return rv;
    }

    CmResult OnEventFire() override {
        const DWORD dwCount = m_dwCount.exchange(0);
        if (m_pQueue)
            m_pQueue->RunPostedTicks_i(dwCount);
        return CM_OK;
    }
    void OnDestorySelf() override { ReleaseReference(); }

private:
    CCmTimerQueueCalendar* m_pQueue;  // null: destroyed
    std::atomic<DWORD> m_dwCount{0};
};

}  // namespace talvo

void CCmTimerQueueCalendar::CFree::operator()(CEntry** aSlots) const { std::free(aSlots); }

// calloc, because the wheel is large and the system gives zeroed pages only as far as it is used.
CCmTimerQueueCalendar::CCmTimerQueueCalendar(DWORD aSlotInterval, DWORD aMaxInterval, ICmEventQueue* aQueue)
    : CCmTimerQueueBase(nullptr),
      m_pEventQueue(aQueue ? aQueue : CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_CURRENT)),
      m_dwSlotInterval(std::max(aSlotInterval, MIN_SLOT_INTERVAL)),
      m_dwMaxSlotNumber(std::max(aMaxInterval / m_dwSlotInterval, MIN_MAX_SLOT_NUMBER + 1) - 1),
      m_pSlots(static_cast<CEntry**>(std::calloc(m_dwMaxSlotNumber + 1, sizeof(CEntry*)))),
      m_pTicks(new (std::nothrow) talvo::CPostedTicks(*this)) {}

CCmTimerQueueCalendar::~CCmTimerQueueCalendar() {
    RunPendingDeletions();
    if (m_pTicks)
        m_pTicks->Detach();
}

int CCmTimerQueueCalendar::Tick() { return Turn_i(CCmClock::GetTimeOfDayUsec(), FALSE); }

CmResult CCmTimerQueueCalendar::PostTick() {
    if (!m_pEventQueue)
        return CM_ERROR_NULL_POINTER;
    return m_pSlots && m_pTicks ? m_pTicks->PostTo(*m_pEventQueue) : CM_ERROR_OUT_OF_MEMORY;
}

void CCmTimerQueueCalendar::RunPostedTicks_i(DWORD aCount) {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    for (; aCount > 0; --aCount)
        Turn_i(llNow, TRUE);
    OnTicked_i();
}

int CCmTimerQueueCalendar::Turn_i(int64_t aNow, BOOL aByClock) {
    if (!m_pSlots)
        return 0;
    m_dwCurrentSlot = (m_dwCurrentSlot + 1) % (m_dwMaxSlotNumber + 1);
    m_dwNearest = std::max<DWORD>(m_dwNearest, 2) - 1;
    const CCmTimeValue tvNow = CCmTimeValue::FromUsec(aNow);
    int nFired = 0;
    // Nothing is put into this slot meanwhile: a timer goes at least one slot ahead and less than a full turn.
    while (CEntry* pEntry = m_pSlots[m_dwCurrentSlot]) {
        Unlink_i(*pEntry);
        CNode& node = pEntry->m_Node;
        const BOOL bBySlot = !aByClock || pEntry->m_bTurn;
        if (!bBySlot && node.m_llExpires > aNow) {
            InsertUnique_i(CCmTimeValue::FromUsec(node.m_llExpires - aNow), *pEntry);
            continue;
        }
        if (bBySlot)
            node.m_llExpires = aNow;
        const CNode due = node;
        if (Advance(node, aNow))
            InsertUnique_i(CCmTimeValue::FromUsec(node.m_llExpires - aNow), *pEntry);
        else
            m_Handlers.erase(due.m_pEh);
        ++nFired;
        due.m_pEh->OnTimeout(tvNow, due.m_pArg);
    }
    return nFired;
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
    if (IsEmpty_i())
        return nullptr;
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

int CCmTimerQueueCalendar::GetEarliestTime_l(int64_t& aExpires) const {
    const CEntry* pFirst = FindFirst_i();
    if (!pFirst)
        return -1;
    aExpires = pFirst->m_Node.m_llExpires;
    return 0;
}
