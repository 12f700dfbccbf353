#include "talvo/event/timer_queue_calendar.h"

#include <algorithm>
#include <new>

#include "talvo/base/clock.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/thread_manager.h"

namespace {

constexpr DWORD MIN_SLOT_INTERVAL = 10;
constexpr DWORD MIN_MAX_SLOT_NUMBER = 10;
constexpr DWORD NO_SLOT = 0xFFFFFFFF;

class CTickEvent final : public ICmEvent {
public:
    CTickEvent(CCmTimerQueueCalendar& aQueue, std::atomic<DWORD>& aTicks) : m_Queue(aQueue), m_Ticks(aTicks) {}
    CmResult OnEventFire() override {
        for (DWORD dwTicks = m_Ticks.exchange(0); dwTicks > 0; --dwTicks)
            m_Queue.Tick();
        return CM_OK;
    }

private:
    CCmTimerQueueCalendar& m_Queue;
    std::atomic<DWORD>& m_Ticks;
};

}  // namespace

CCmTimerQueueCalendar::CCmTimerQueueCalendar(DWORD aSlotInterval, DWORD aMaxInterval, ICmEventQueue* aQueue)
    : CCmTimerQueueBase(nullptr),
      m_dwSlotInterval(std::max(aSlotInterval, MIN_SLOT_INTERVAL)),
      m_dwMaxSlotNumber(std::max(aMaxInterval / m_dwSlotInterval, MIN_MAX_SLOT_NUMBER + 1) - 1),
      m_pSlots(new (std::nothrow) CSlot[m_dwMaxSlotNumber + 1]),
      m_pEventQueue(aQueue ? aQueue : CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_CURRENT)) {}

CCmTimerQueueCalendar::~CCmTimerQueueCalendar() { RunPendingDeletions(); }

int CCmTimerQueueCalendar::Tick() {
    if (!m_pSlots)
        return 0;
    m_dwCurrentSlot = (m_dwCurrentSlot + 1) % (m_dwMaxSlotNumber + 1);
    const CCmTimeValue tvNow = CCmTimeValue::GetTimeOfDay();
    CSlot& slot = m_pSlots[m_dwCurrentSlot];
    int nFired = 0;
    // A callback never schedules into this slot: a timer goes at least one slot ahead and less than a full turn.
    while (!slot.empty()) {
        CSlot single;  // reused in the next slot, so that a repeating timer needs no memory
        single.splice_after(single.before_begin(), slot, slot.before_begin());
        if (single.front().m_dwCount != COUNT_WITHOUT_END)
            --single.front().m_dwCount;
        const CNode node = single.front();
        if (node.m_dwCount > 0 && node.m_llInterval > 0)
            InsertUnique_i(CCmTimeValue::FromUsec(node.m_llInterval), single);
        else
            m_Handlers.erase(node.m_pEh);
        ++nFired;
        node.m_pEh->OnTimeout(tvNow, node.m_pArg);
    }
    return nFired;
}

CmResult CCmTimerQueueCalendar::PostTick() {
    if (!m_pEventQueue)
        return CM_ERROR_NULL_POINTER;
    if (m_dwPostedTicks.fetch_add(1) > 0)
        return CM_OK;
    auto* pEvent = new (std::nothrow) CTickEvent(*this, m_dwPostedTicks);
    const CmResult rv = pEvent ? m_pEventQueue->PostEvent(pEvent) : CM_ERROR_OUT_OF_MEMORY;
    if (rv != CM_OK)
        m_dwPostedTicks = 0;  // no event will run them: the next PostTick tries again
    return rv;
}

// The handler of the single node must have its entry in the map.
void CCmTimerQueueCalendar::InsertUnique_i(const CCmTimeValue& aInterval, CSlot& aSingle) {
    const int64_t llMsec = int64_t{aInterval.GetSec()} * 1000 + aInterval.GetUsec() / 1000;
    int64_t llDistance = std::max<int64_t>((llMsec + m_dwSlotInterval - 1) / m_dwSlotInterval, 1);
    if (llDistance > int64_t{m_dwMaxSlotNumber} - 1) {
        CM_ERROR_TRACE_THIS("CCmTimerQueueCalendar::InsertUnique_i, exceed max interval. interval_s="
                            << aInterval.GetSec() << " interval_us=" << aInterval.GetUsec()
                            << " m_dwMaxSlotNumber=" << m_dwMaxSlotNumber);
        llDistance = m_dwMaxSlotNumber;
    }
    const DWORD dwSlot = static_cast<DWORD>((m_dwCurrentSlot + llDistance) % (int64_t{m_dwMaxSlotNumber} + 1));
    m_Handlers.find(aSingle.front().m_pEh)->second = dwSlot;
    m_pSlots[dwSlot].splice_after(m_pSlots[dwSlot].before_begin(), aSingle);
}

int CCmTimerQueueCalendar::PushNode_l(const CNode& aNode) {
    CSlot single;
    const bool bMade = m_pSlots && talvo::WithMemory([&] {
                           single.push_front(aNode);
                           m_Handlers.try_emplace(aNode.m_pEh, NO_SLOT);
                       });
    if (!bMade)
        return NO_MEMORY;
    const DWORD dwOldSlot = m_Handlers.find(aNode.m_pEh)->second;
    if (dwOldSlot != NO_SLOT)
        m_pSlots[dwOldSlot].remove_if([&](const CNode& aOld) { return aOld.m_pEh == aNode.m_pEh; });
    InsertUnique_i(CCmTimeValue::FromUsec(aNode.m_llInterval), single);
    return dwOldSlot != NO_SLOT ? 1 : 0;
}

int CCmTimerQueueCalendar::RePushNode_l(const CNode& aNode) { return PushNode_l(aNode); }

int CCmTimerQueueCalendar::EraseNode_l(ICmTimerHandler* aEh) {
    const auto itHandler = m_Handlers.find(aEh);
    if (itHandler == m_Handlers.end())
        return 1;
    m_pSlots[itHandler->second].remove_if([=](const CNode& aNode) { return aNode.m_pEh == aEh; });
    m_Handlers.erase(itHandler);
    return 0;
}

// The number of ticks to a slot. The current slot is a full turn away.
DWORD CCmTimerQueueCalendar::DistanceOf_i(DWORD aSlot) const {
    const DWORD dwSlots = m_dwMaxSlotNumber + 1;
    return (aSlot + dwSlots - m_dwCurrentSlot - 1) % dwSlots + 1;
}

BOOL CCmTimerQueueCalendar::FindFirst_i(ICmTimerHandler*& aEh, DWORD& aSlot) const {
    const auto itFirst = std::min_element(m_Handlers.begin(), m_Handlers.end(), [this](const auto& a, const auto& b) {
        return DistanceOf_i(a.second) < DistanceOf_i(b.second);
    });
    if (itFirst == m_Handlers.end())
        return FALSE;
    aSlot = itFirst->second;
    aEh = m_pSlots[aSlot].front().m_pEh;
    return TRUE;
}

int CCmTimerQueueCalendar::PopFirstNode_l(CNode& aNode) {
    ICmTimerHandler* pEh = nullptr;
    DWORD dwSlot = 0;
    if (!FindFirst_i(pEh, dwSlot))
        return -1;
    aNode = m_pSlots[dwSlot].front();
    m_pSlots[dwSlot].pop_front();
    m_Handlers.erase(pEh);
    return 0;
}

int CCmTimerQueueCalendar::GetEarliestTime_l(int64_t& aExpires) const {
    ICmTimerHandler* pEh = nullptr;
    DWORD dwSlot = 0;
    if (!FindFirst_i(pEh, dwSlot))
        return -1;
    aExpires = m_pSlots[dwSlot].front().m_llExpires;
    return 0;
}
