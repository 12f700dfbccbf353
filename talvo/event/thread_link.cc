#include "talvo/event/thread_link.h"

#include "talvo/event/event_batch.h"
#include "talvo/event/event_list.h"
#include "talvo/event/thread.h"

namespace {

constexpr uint32_t CLOSED = 0x80000000;

// Holds an event until it has run in the thread, or until the thread has ended without running it.
class CCarrier {
public:
    explicit CCarrier(ICmEvent* aEvent) : m_pEvent(aEvent) {}
    ~CCarrier() {
        if (m_pEvent)
            m_pEvent->OnDestorySelf();
    }
    CCarrier(const CCarrier&) = delete;
    CCarrier& operator=(const CCarrier&) = delete;

    CmResult Run() {
        ICmEvent* pEvent = std::exchange(m_pEvent, nullptr);
        const CmResult rv = pEvent->OnEventFire();
        pEvent->OnDestorySelf();
        return rv;
    }

private:
    ICmEvent* m_pEvent;
};

}  // namespace

CCmThreadTenant::~CCmThreadTenant() { LeaveThread(); }

void CCmThreadTenant::LeaveThread() {
    if (m_pLink)
        m_pLink->Leave(*this);
}

void CCmThreadTenant::JoinCurrentThread() {
    if (ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT))
        pThread->GetLink().Join(*this);
}

BOOL CCmThreadTenant::IsDraining() const { return m_pLink && m_pLink->GetDrainStage() != ECmDrainStage::NONE; }

void CCmThreadTenant::CountLost(uint64_t aBytes) {
    if (aBytes == 0 || !IsDraining())
        return;
    ++m_pLink->m_Lost.m_dwLost;
    m_pLink->m_Lost.m_ullLostBytes += aBytes;
}

// A post increments m_dwPosts before it checks whether the link is open, and Close waits for posts under way. So the thread's
// queue exists during every post.
BOOL CCmThreadLink::Enter_i() {
    if (!(m_dwPosts.fetch_add(1) & CLOSED))
        return TRUE;
    Exit_i();
    return FALSE;
}

void CCmThreadLink::Exit_i() {
    if (m_dwPosts.fetch_sub(1) == CLOSED + 1)
        m_dwPosts.notify_all();
}

template <class Poster>
CmResult CCmThreadLink::Post_i(ICmEvent* aEvent, Poster aPoster) {
    if (!aEvent)
        return CM_ERROR_INVALID_ARG;
    if (!Enter_i()) {
        aEvent->OnDestorySelf();
        return CM_ERROR_NOT_AVAILABLE;
    }
    ICmEventQueue* pQueue = m_pThread->GetEventQueue();
    const CmResult rv = pQueue ? aPoster(*pQueue) : CM_ERROR_NULL_POINTER;
    Exit_i();
    if (!pQueue)
        aEvent->OnDestorySelf();
    return rv == CM_ERROR_NOT_INITIALIZED ? CM_ERROR_NOT_AVAILABLE : rv;
}

CmResult CCmThreadLink::PostEvent(ICmEvent* aEvent) {
    return Post_i(aEvent, [aEvent](ICmEventQueue& aQueue) { return aQueue.PostEvent(aEvent); });
}

CmResult CCmThreadLink::PostEventQuietly(ICmEvent* aEvent) {
    talvo::CEventBatch* pBatch = talvo::CEventBatch::Current();
    if (!pBatch)
        return PostEvent(aEvent);
    return Post_i(aEvent, [=, this](ICmEventQueue& aQueue) {
        ICmReactor* pReactor = m_pThread->GetReactor();
        if (!pReactor)
            return aQueue.PostEvent(aEvent);
        pBatch->WakeAtEnd(*this);
        return pReactor->PostEventQuietly(aEvent);
    });
}

void CCmThreadLink::WakeUp() {
    if (!Enter_i())
        return;
    if (ICmReactor* pReactor = m_pThread->GetReactor())
        pReactor->NotifyHandler(nullptr, ACmEventHandler::EVENTQUEUE_MASK);
    Exit_i();
}

CmResult CCmThreadLink::CallEvent(ICmEvent* aEvent) {
    if (!aEvent)
        return CM_ERROR_INVALID_ARG;
    if (talvo::CEventList::IsListed(*aEvent))
        return CM_ERROR_ALREADY_INITIALIZED;
    CCarrier carrier(aEvent);
    return Call([&] { return carrier.Run(); });
}

BOOL CCmThreadLink::IsCurrentThread() const { return m_dwThreadId == cm_thread_self_id() && !(m_dwPosts.load() & CLOSED); }

void CCmThreadLink::BindToCurrentThread() { m_dwThreadId = cm_thread_self_id(); }

CmResult CCmThreadLink::Join(CCmThreadTenant& aTenant) {
    if (aTenant.m_pLink)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (m_dwPosts & CLOSED)
        return CM_ERROR_NOT_AVAILABLE;
    aTenant.m_pLink = this;
    aTenant.m_pNext = m_pTenants;
    aTenant.m_ppBack = &m_pTenants;
    if (m_pTenants)
        m_pTenants->m_ppBack = &aTenant.m_pNext;
    m_pTenants = &aTenant;
    return CM_OK;
}

void CCmThreadLink::Leave(CCmThreadTenant& aTenant) {
    if (aTenant.m_pLink != this)
        return;
    if (m_pNextVisited == &aTenant)
        m_pNextVisited = aTenant.m_pNext;
    *aTenant.m_ppBack = aTenant.m_pNext;
    if (aTenant.m_pNext)
        aTenant.m_pNext->m_ppBack = aTenant.m_ppBack;
    aTenant.m_pLink = nullptr;
}

// Does not visit a tenant that joins during the walk, nor one that leaves before its turn.
template <class Visit>
void CCmThreadLink::ForEachTenant_i(Visit aVisit) {
    m_pNextVisited = m_pTenants;
    while (CCmThreadTenant* pTenant = m_pNextVisited) {
        m_pNextVisited = pTenant->m_pNext;
        aVisit(*pTenant);
    }
}

CCmUndrained CCmThreadLink::GetUndrained_i() {
    CCmUndrained left = m_Lost;
    ForEachTenant_i([&](CCmThreadTenant& aTenant) { aTenant.AddUndrained(left); });
    return left;
}

CCmUndrained CCmThreadLink::Drain(ECmDrainStage aStage) {
    m_DrainStage = aStage;
    const CCmUndrained before = aStage == ECmDrainStage::CUT ? GetUndrained_i() : CCmUndrained();
    ForEachTenant_i([=](CCmThreadTenant& aTenant) { aTenant.OnDrain(aStage); });
    const CCmUndrained left = aStage == ECmDrainStage::CUT ? before : GetUndrained_i();
    if (aStage == ECmDrainStage::NONE)
        m_Lost = {};
    return left;
}

void CCmThreadLink::EndDrain(BOOL aCut) {
    if (aCut)
        m_bCut = TRUE;
    if (m_dwEndsOfDrain++ == 0)
        m_EndOfDrain.Post();
}

void CCmThreadLink::CEndOfDrain::Post() {
    m_Link.AddReference();
    m_Link.PostEvent(this);
}

// A further end may belong to a drain whose stages were posted behind this event: it runs behind them.
CmResult CCmThreadLink::CEndOfDrain::OnEventFire() {
    if (m_Link.m_bCut.exchange(FALSE))
        m_Link.Drain(ECmDrainStage::CUT);
    m_Link.Drain(ECmDrainStage::NONE);
    if (--m_Link.m_dwEndsOfDrain > 0)
        Post();
    return CM_OK;
}

void CCmThreadLink::Close() {
    while (m_pTenants) {
        CCmThreadTenant& tenant = *m_pTenants;
        Leave(tenant);
        tenant.OnThreadEnd();
    }
    uint32_t dwPosts = m_dwPosts.fetch_or(CLOSED) | CLOSED;
    while (dwPosts != CLOSED) {
        m_dwPosts.wait(dwPosts);
        dwPosts = m_dwPosts.load();
    }
}
