#include "talvo/transport/dns_state.h"

#include <new>
#include <utility>

#include "talvo/event/thread.h"
#include "talvo/transport/dns_manager.h"

namespace talvo {

namespace {

constexpr const char* THREAD_ENDED = "the network thread has ended";

using Guard = CCmMutexGuardT<CCmMutexThread>;

// Carries a name to the network thread; one that does not arrive has failed.
class CEventStart final : public ICmEvent {
public:
    CEventStart(CDnsState& aState, const CCmString& aName) : m_pState(&aState), m_strName(aName) {}
    ~CEventStart() override {
        if (!m_bArrived)
            m_pState->Fail(m_strName);
    }
    CmResult OnEventFire() override {
        m_bArrived = TRUE;
        m_pState->Start_n(m_strName);
        return CM_OK;
    }

private:
    const CCmRefPtrT<CDnsState> m_pState;
    const CCmString m_strName;
    BOOL m_bArrived = FALSE;
};

// Carries a record to an asker.
class CEventTell final : public ICmEvent {
public:
    CEventTell(CDnsState& aState, uint64_t aId, const CCmRefPtrT<CCmDnsRecord>& aRecord)
        : m_pState(&aState), m_ullId(aId), m_pRecord(aRecord) {}
    ~CEventTell() override { m_pState->Forget(m_ullId); }
    CmResult OnEventFire() override {
        m_pState->Tell(m_ullId, *m_pRecord);
        return CM_OK;
    }

private:
    const CCmRefPtrT<CDnsState> m_pState;
    const uint64_t m_ullId;
    const CCmRefPtrT<CCmDnsRecord> m_pRecord;
};

// The way to the network thread, null when there is none.
CCmRefPtrT<CCmThreadLink> GetNetworkLink() {
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_NETWORK);
    return pThread ? &pThread->GetLink() : nullptr;
}

// The way to the thread that calls an observer: aThread, or the calling one; null if it cannot be called.
CCmRefPtrT<CCmThreadLink> GetObserverLink(ACmThread* aThread) {
    ACmThread* pThread = aThread ? aThread : CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    return pThread && pThread->GetEventQueue() ? &pThread->GetLink() : nullptr;
}

}  // namespace

CmResult CDnsState::Resolve(CCmRefPtrT<CCmDnsRecord>& aRecord, const CCmString& aName, ICmObserver* aObserver, BOOL aForced,
                            ACmThread* aThread) {
    NoticeChanges_i();
    if (!aForced) {
        Guard guard(m_Mutex);
        aRecord = m_Cache.Find(aName);
        if (aRecord)
            return CM_OK;
    }
    const CCmRefPtrT<CCmThreadLink> pLink = aObserver ? GetObserverLink(aThread) : nullptr;
    return aObserver && !pLink ? CM_ERROR_NULL_POINTER : Ask_i(aName, aObserver, pLink.Get());
}

CmResult CDnsState::Ask_i(const CCmString& aName, ICmObserver* aObserver, CCmThreadLink* aLink) {
    const CCmRefPtrT<CCmThreadLink> pNetwork = GetNetworkLink();
    if (!pNetwork)
        return CM_ERROR_NOT_AVAILABLE;
    BOOL bNew;
    {
        Guard guard(m_Mutex);
        bNew = m_Askers.Begin(aName);
        if (aObserver)
            m_Askers.Add(aName, aObserver, aLink);
    }
    if (bNew)
        pNetwork->PostEvent(new CEventStart(*this, aName));
    return CM_ERROR_WOULD_BLOCK;
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

void CDnsState::Start_n(const CCmString& aName) {
    if (CDnsWorker* pWorker = GetWorker_n())
        pWorker->Start(aName);
    else
        Fail(aName);
}

// The first question in a network thread makes the worker, which lives until that thread ends.
CDnsWorker* CDnsState::GetWorker_n() {
    if (m_pWorker)
        return m_pWorker.get();
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    ICmReactor* pReactor = pThread ? pThread->GetReactor() : nullptr;
    if (!pReactor || pThread->GetLink().Join(*this) != CM_OK)
        return nullptr;
    m_pSelf = this;
    m_pWorker.reset(new CDnsWorker(*pReactor, *this));
    return m_pWorker.get();
}

// Nobody keeps answers up to date from now on, so none are kept.
void CDnsState::OnThreadEnd() {
    const CCmRefPtrT<CDnsState> pThis = std::move(m_pSelf);
    m_pWorker.reset();
    std::vector<CCmString> names;
    {
        Guard guard(m_Mutex);
        BeginAnew_l();
        names = m_Askers.GetNames();
    }
    for (const CCmString& strName : names)
        Fail(strName);
}

BOOL CDnsState::OnDnsAnswer(DWORD aGeneration, CDnsNamedAnswer aAnswer) {
    const CCmRefPtrT<CCmDnsRecord> pRecord = CCmDnsCache::MakeRecord(aAnswer.m_strName, std::move(aAnswer.m_Answer));
    std::vector<uint64_t> askers;
    {
        Guard guard(m_Mutex);
        if (aGeneration != m_dwGeneration)
            return FALSE;
        m_Cache.Add(pRecord);
        askers = m_Askers.End(pRecord->GetName());
    }
    Finish_i(pRecord, askers);
    return TRUE;
}

void CDnsState::Fail(const CCmString& aName) {
    const CCmRefPtrT<CCmDnsRecord> pRecord = CCmDnsCache::MakeRecord(aName, {{}, 0, THREAD_ENDED});
    std::vector<uint64_t> askers;
    {
        Guard guard(m_Mutex);
        askers = m_Askers.End(aName);
    }
    Finish_i(pRecord, askers);
}

void CDnsState::Finish_i(const CCmRefPtrT<CCmDnsRecord>& aRecord, const std::vector<uint64_t>& aAskers) {
    for (const uint64_t ullId : aAskers) {
        CCmRefPtrT<CCmThreadLink> pLink;
        {
            Guard guard(m_Mutex);
            pLink = m_Askers.GetLink(ullId);
        }
        if (pLink)
            pLink->PostEvent(new CEventTell(*this, ullId, aRecord));
    }
}

void CDnsState::Tell(uint64_t aId, CCmDnsRecord& aRecord) {
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
