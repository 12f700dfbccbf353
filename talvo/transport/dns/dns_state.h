// The internals of the DNS manager: the cache, the askers and the network thread's worker.
#pragma once

#include <atomic>
#include <memory>

#include "talvo/base/mutex.h"
#include "talvo/event/thread_link.h"
#include "talvo/transport/dns/dns_askers.h"
#include "talvo/transport/dns/dns_cache.h"
#include "talvo/transport/dns/dns_worker.h"

namespace talvo {

// The record that a request waits for.
enum class EDnsWait {
    READY,   // the cached one, or the outcome of a look-up
    FORCED,  // the outcome of a look-up
    EARLY,   // as READY, but the first addresses suffice; READY and the rest can be requested then
    REST     // the rest of a partial record; CM_ERROR_NOT_FOUND: none follows
};

// The manager and all events in flight between the threads share it, so the manager may be destroyed at any time. The mutex is
// never held while an observer is called or an event is posted. Like the manager it has no live counter: both may stay until
// the process ends.
class CDnsState final : public CCmReferenceControlT<CCmMutexThread>, private CCmThreadTenant, private IDnsWorkerUser {
public:
    // As the operations of the manager; aName is valid, in lower case and not a literal.
    CmResult Resolve(CCmRefPtrT<CCmDnsRecord>& aRecord, const CCmString& aName, ICmObserver* aObserver, EDnsWait aWait,
                     ACmThread* aThread);
    CmResult Cancel(ICmObserver* aObserver);
    void Refresh();

    // Calls one asker, in its thread.
    void Notify(uint64_t aId, CCmDnsRecord& aRecord);
    // Removes an asker that cannot be called.
    void Forget(uint64_t aId);
    // Network thread.
    void Start_n(const CCmString& aName, BOOL aForced);
    void Refresh_n();
    // Fails one look-up that the network thread did not or cannot do; FailAll fails all of them.
    void Fail(const CCmString& aName, const char* aReason);
    void FailAll(const char* aReason);

private:
    void NoticeChanges_i();
    CmResult Ask_i(const CCmString& aName, ICmObserver* aObserver, CCmThreadLink* aLink, EDnsWait aWait);
    CDnsAskers::CAsker MakeAsker_i(const CCmString& aKey, ICmObserver* aObserver, CCmThreadLink* aLink);
    CmResult AskRest_i(const CCmString& aName, ICmObserver* aObserver, CCmThreadLink* aLink);
    CDnsAskers::CLookUp TakeLookUp_l(EDnsNews aNews, const CCmString& aName) CM_REQUIRES(m_Mutex);
    void BeginLate_l(const CCmRefPtrT<CCmDnsRecord>& aRecord) CM_REQUIRES(m_Mutex);
    void BeginAnew_l() CM_REQUIRES(m_Mutex);
    void PostRefresh_i();
    void Finish_i(CCmRefPtrT<CCmDnsRecord> aRecord, const CDnsAskers::CLookUp& aLookUp);
    CDnsWorker* GetWorker_n();

    void OnThreadEnd() override;
    BOOL OnDnsNews(DWORD aGeneration, EDnsNews aNews, const CCmString& aName, const CDnsAnswers& aAnswers) override;
    CDnsAnswers FindRest(const CCmString& aName) override;
    void OnDnsNoMemory() override;
    DWORD GetGeneration() const override { return m_dwGeneration; }

    CCmMutexThread m_Mutex;
    CCmDnsCache m_Cache CM_GUARDED_BY(m_Mutex);
    CDnsAskers m_Askers CM_GUARDED_BY(m_Mutex);
    CDnsWatch m_Watch CM_GUARDED_BY(m_Mutex);
    std::atomic<DWORD> m_dwGeneration{0};  // changes under the mutex

    std::unique_ptr<CDnsWorker> m_pWorker;  // network thread only
    CCmRefPtrT<CDnsState> m_pSelf;          // while there is a worker
};

}  // namespace talvo
