#include "talvo/transport/dns/dns_state.h"

#include <memory>
#include <new>
#include <utility>

#include "talvo/base/with_memory.h"
#include "talvo/event/thread.h"
#include "talvo/transport/dns/dns_manager.h"

namespace talvo {

namespace {

constexpr const char* THREAD_ENDED = "the network thread has ended";
constexpr const char* NO_MEMORY = "out of memory";

using Guard = CCmMutexGuardT<CCmMutexThread>;

// Carries a name to the network thread. If the event does not arrive, the look-up fails.
class CEventStart final : public ICmEvent {
public:
    CEventStart(CDnsState& aState, const CCmString& aName, BOOL aForced)
        : m_pState(&aState), m_strName(aName), m_bForced(aForced) {}
    ~CEventStart() override {
        if (!m_bArrived)
            m_pState->Fail(m_strName, THREAD_ENDED);
    }
    CmResult OnEventFire() override {
        m_bArrived = TRUE;
        m_pState->Start_n(m_strName, m_bForced);
        return CM_OK;
    }
    // Starts the look-up: from now on the end of this event without an arrival is a failure.
    void Count() { m_bArrived = FALSE; }

private:
    const CCmRefPtrT<CDnsState> m_pState;
    const CCmString m_strName;
    const BOOL m_bForced;
    BOOL m_bArrived = TRUE;
};

// Carries a record to an asker. It is created with the request, so that a later lack of memory can be reported.
class CEventNotify final : public ICmEvent {
public:
    explicit CEventNotify(CDnsState& aState) : m_pState(&aState) {}
    ~CEventNotify() override {
        if (m_pRecord)
            m_pState->Forget(m_ullId);
    }
    void SetRecord(uint64_t aId, const CCmRefPtrT<CCmDnsRecord>& aRecord) {
        m_ullId = aId;
        m_pRecord = aRecord;
    }
    CmResult OnEventFire() override {
        m_pState->Notify(m_ullId, *m_pRecord);
        return CM_OK;
    }

private:
    const CCmRefPtrT<CDnsState> m_pState;
    uint64_t m_ullId = 0;
    CCmRefPtrT<CCmDnsRecord> m_pRecord;
};

CCmRefPtrT<CCmDnsRecord> MakeFailure(const CCmString& aName, const char* aReason) {
    return new CCmDnsRecord(aName, {CDnsAnswer::Without(EDnsAnswer::FAILED, aReason), {}, {}});
}

// The key of the askers that wait for the rest of a ready record. No name has a blank.
CCmString LateKey(const CCmString& aName) { return aName + " late"; }

// The link to the network thread; null: there is none.
CCmRefPtrT<CCmThreadLink> GetNetworkLink() {
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_NETWORK);
    return pThread ? &pThread->GetLink() : nullptr;
}

// The link to the thread that calls an observer: aThread, or the calling one. Null: an observer cannot be called there.
CCmRefPtrT<CCmThreadLink> GetObserverLink(ACmThread* aThread) {
    ACmThread* pThread = aThread ? aThread : CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    return pThread && pThread->GetEventQueue() ? &pThread->GetLink() : nullptr;
}

}  // namespace

CmResult CDnsState::Resolve(CCmRefPtrT<CCmDnsRecord>& aRecord, const CCmString& aName, ICmObserver* aObserver, EDnsWait aWait,
                            ACmThread* aThread) {
    NoticeChanges_i();
    if (aWait != EDnsWait::FORCED) {
        Guard guard(m_Mutex);
        aRecord = m_Cache.Find(aName);
        if (aRecord && aWait == EDnsWait::REST && aRecord->IsPartial())
            aRecord.Reset();
        if (aRecord)
            return CM_OK;
    }
    const CCmRefPtrT<CCmThreadLink> pLink = aObserver ? GetObserverLink(aThread) : nullptr;
    if (aObserver && !pLink)
        return CM_ERROR_NULL_POINTER;
    return aWait == EDnsWait::REST ? AskRest_i(aName, aObserver, pLink.Get()) : Ask_i(aName, aObserver, pLink.Get(), aWait);
}

CmResult CDnsState::Ask_i(const CCmString& aName, ICmObserver* aObserver, CCmThreadLink* aLink, EDnsWait aWait) {
    const CCmRefPtrT<CCmThreadLink> pNetwork = GetNetworkLink();
    if (!pNetwork)
        return CM_ERROR_NOT_AVAILABLE;
    // Allocate everything that the end of the look-up needs first, so that no asker waits for an answer that lacks memory.
    auto pStart = std::make_unique<CEventStart>(*this, aName, aWait == EDnsWait::FORCED);
    const CCmRefPtrT<CCmDnsRecord> pNoMemory = MakeFailure(aName, NO_MEMORY);
    CDnsAskers::CAsker asker = MakeAsker_i(aName, aObserver, aLink);
    asker.m_bEarly = aWait == EDnsWait::EARLY;
    {
        Guard guard(m_Mutex);
        const BOOL bNew = m_Askers.Begin(aName, pNoMemory);
        if (aObserver && !m_Askers.Add(std::move(asker))) {
            if (bNew)
                m_Askers.End(aName);
            return CM_ERROR_OUT_OF_MEMORY;
        }
        if (!bNew)
            return CM_ERROR_WOULD_BLOCK;
    }
    pStart->Count();
    pNetwork->PostEvent(pStart.release());
    return CM_ERROR_WOULD_BLOCK;
}

CDnsAskers::CAsker CDnsState::MakeAsker_i(const CCmString& aKey, ICmObserver* aObserver, CCmThreadLink* aLink) {
    return {aObserver, aLink, aKey, FALSE, std::unique_ptr<ICmEvent>(aObserver ? new CEventNotify(*this) : nullptr)};
}

// Waits for the outcome if it has not come, else for the rest.
CmResult CDnsState::AskRest_i(const CCmString& aName, ICmObserver* aObserver, CCmThreadLink* aLink) {
    CDnsAskers::CAsker outcome = MakeAsker_i(aName, aObserver, aLink);
    CDnsAskers::CAsker late = MakeAsker_i(LateKey(aName), aObserver, aLink);
    Guard guard(m_Mutex);
    CDnsAskers::CAsker& asker = m_Askers.IsUnderWay(aName) ? outcome : late;
    if (!m_Askers.IsUnderWay(asker.m_strName))
        return CM_ERROR_NOT_FOUND;
    return m_Askers.Add(std::move(asker)) ? CM_ERROR_WOULD_BLOCK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CDnsState::Cancel(ICmObserver* aObserver) {
    Guard guard(m_Mutex);
    return m_Askers.Cancel(aObserver) ? CM_OK : CM_ERROR_NOT_FOUND;
}

void CDnsState::NoticeChanges_i() {
    {
        Guard guard(m_Mutex);
        if (!m_Watch.HasChanged())
            return;
        BeginAnew_l();
    }
    PostRefresh_i();
}

void CDnsState::Refresh() {
    {
        Guard guard(m_Mutex);
        m_Watch.TakeNote();
        BeginAnew_l();
    }
    PostRefresh_i();
}

void CDnsState::BeginAnew_l() {
    m_Cache.Clear();
    ++m_dwGeneration;
}

void CDnsState::PostRefresh_i() {
    if (const CCmRefPtrT<CCmThreadLink> pNetwork = GetNetworkLink())
        pNetwork->Post([pThis = CCmRefPtrT<CDnsState>(this)] { pThis->Refresh_n(); });
}

void CDnsState::Refresh_n() {
    if (m_pWorker)
        m_pWorker->Refresh();
}

void CDnsState::Start_n(const CCmString& aName, BOOL aForced) {
    if (CDnsWorker* pWorker = GetWorker_n())
        pWorker->Start(aName, aForced);
    else
        Fail(aName, NO_MEMORY);
}

// The first question in a network thread creates the worker, which lives until that thread ends.
CDnsWorker* CDnsState::GetWorker_n() {
    if (m_pWorker)
        return m_pWorker.get();
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    ICmReactor* pReactor = pThread ? pThread->GetReactor() : nullptr;
    if (!pReactor || pThread->GetLink().Join(*this) != CM_OK)
        return nullptr;
    m_pWorker.reset(new (std::nothrow) CDnsWorker(*pReactor, *this));
    if (m_pWorker)
        m_pSelf = this;
    else
        pThread->GetLink().Leave(*this);
    return m_pWorker.get();
}

// From now on no worker keeps answers current, so the cache is emptied.
void CDnsState::OnThreadEnd() {
    const CCmRefPtrT<CDnsState> pThis = std::move(m_pSelf);
    m_pWorker.reset();
    {
        Guard guard(m_Mutex);
        BeginAnew_l();
    }
    FailAll(THREAD_ENDED);
}

BOOL CDnsState::OnDnsNews(DWORD aGeneration, EDnsNews aNews, const CCmString& aName, const CDnsAnswers& aAnswers) {
    CCmRefPtrT<CCmDnsRecord> pRecord;
    WithMemory([&] { pRecord = new CCmDnsRecord(aName, aAnswers); });
    CDnsAskers::CLookUp lookUp;
    {
        Guard guard(m_Mutex);
        const BOOL bCurrent = aGeneration == m_dwGeneration;
        if (!bCurrent && aNews != EDnsNews::LATE)
            return FALSE;
        if (pRecord && bCurrent && aNews != EDnsNews::EARLY)
            m_Cache.Add(pRecord);
        if (pRecord && aNews == EDnsNews::READY && pRecord->IsPartial())
            BeginLate_l(pRecord);
        lookUp = TakeLookUp_l(aNews, aName);
    }
    Finish_i(pRecord, lookUp);
    return TRUE;
}

CDnsAskers::CLookUp CDnsState::TakeLookUp_l(EDnsNews aNews, const CCmString& aName) {
    if (aNews == EDnsNews::EARLY)
        return m_Askers.TakeEarly(aName);
    if (aNews == EDnsNews::READY)
        return m_Askers.End(aName);
    CDnsAskers::CLookUp late;
    WithMemory([&]() CM_NO_THREAD_SAFETY_ANALYSIS { late = m_Askers.End(LateKey(aName)); });
    return late;
}

// Without memory nobody can wait for the rest, and the record is used as it is.
void CDnsState::BeginLate_l(const CCmRefPtrT<CCmDnsRecord>& aRecord) {
    WithMemory([&]() CM_NO_THREAD_SAFETY_ANALYSIS { m_Askers.Begin(LateKey(aRecord->GetName()), aRecord); });
}

CDnsAnswers CDnsState::FindRest(const CCmString& aName) {
    Guard guard(m_Mutex);
    return m_Cache.FindRest(aName);
}

void CDnsState::OnDnsNoMemory() { FailAll(NO_MEMORY); }

void CDnsState::Fail(const CCmString& aName, const char* aReason) {
    CCmRefPtrT<CCmDnsRecord> pRecord;
    WithMemory([&] { pRecord = MakeFailure(aName, aReason); });
    CDnsAskers::CLookUp lookUp;
    {
        Guard guard(m_Mutex);
        lookUp = m_Askers.End(aName);
    }
    Finish_i(pRecord, lookUp);
}

void CDnsState::FailAll(const char* aReason) {
    for (;;) {
        CDnsAskers::CLookUp lookUp;
        {
            Guard guard(m_Mutex);
            lookUp = m_Askers.EndAny();
        }
        if (!lookUp.m_pNoMemory)
            return;
        CCmRefPtrT<CCmDnsRecord> pRecord;
        WithMemory([&] { pRecord = MakeFailure(lookUp.m_pNoMemory->GetName(), aReason); });
        Finish_i(pRecord, lookUp);
    }
}

// aRecord null: there was no memory for one.
void CDnsState::Finish_i(CCmRefPtrT<CCmDnsRecord> aRecord, const CDnsAskers::CLookUp& aLookUp) {
    if (!aRecord)
        aRecord = aLookUp.m_pNoMemory;
    for (const uint64_t ullId : aLookUp.m_Askers) {
        CCmRefPtrT<CCmThreadLink> pLink;
        std::unique_ptr<ICmEvent> pNotification;
        {
            Guard guard(m_Mutex);
            pNotification = m_Askers.TakeNotification(ullId, pLink);
        }
        if (!pNotification)
            continue;
        static_cast<CEventNotify&>(*pNotification).SetRecord(ullId, aRecord);
        pLink->PostEvent(pNotification.release());
    }
}

void CDnsState::Notify(uint64_t aId, CCmDnsRecord& aRecord) {
    ICmObserver* pObserver;
    {
        Guard guard(m_Mutex);
        pObserver = m_Askers.Take(aId);
    }
    if (pObserver)
        pObserver->OnObserve(CCmDnsManager::TOPIC, &aRecord);
}

void CDnsState::Forget(uint64_t aId) {
    Guard guard(m_Mutex);
    m_Askers.Take(aId);
}

}  // namespace talvo
