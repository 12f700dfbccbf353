// The internals of the proxy discovery: the kept answers, the askers and the network thread's finder.
#pragma once

#include <atomic>
#include <memory>

#include "talvo/base/mutex.h"
#include "talvo/event/thread_link.h"
#include "talvo/proxy/discovery/answer_cache.h"
#include "talvo/proxy/discovery/proxy_askers.h"
#include "talvo/proxy/discovery/proxy_finder.h"

namespace talvo {

// The discovery and all events in flight between the threads share it, so the discovery may be destroyed at any time. The mutex
// is never held while an asker is called or an event is posted.
class CDiscoveryState final : public CCmReferenceControlT<CCmMutexThread>, private CCmThreadTenant, private IProxyFinderUser {
public:
    CDiscoveryState();

    // As the operations of the discovery. aOrigin without a URL: FindSettings. They throw std::bad_alloc; nothing changes then.
    CmResult Find(const CProxyOrigin& aOrigin, const CProxyAskers::CTarget& aTarget, ACmThread* aThread,
                  CCmRefPtrT<CCmProxyAnswer>& aAnswer);
    CmResult Cancel(const void* aKey);
    void SetSettings(std::shared_ptr<const CApplicationSettings> aSettings);  // null: those of the configuration
    void Refresh();

    // Calls one asker, in its thread, with an answer or with the news that the settings have changed.
    void Notify(uint64_t aId, CCmProxyAnswer& aAnswer);
    void NotifyOfChange(uint64_t aId);
    // Removes an asker that cannot be called.
    void Forget(uint64_t aId);
    // Network thread.
    void Start_n(const CProxyOrigin& aOrigin);
    // Fails the question that the network thread did not or cannot do.
    void Fail(const CCmString& aOrigin, CmResult aReason);

private:
    CmResult Ask_i(const CProxyOrigin& aOrigin, const CProxyAskers::CTarget& aTarget, CCmRefPtrT<CCmThreadLink> aLink);
    void FindSettings_i();
    void BeginAnew_l() CM_REQUIRES(m_Mutex);
    void PostCheck_i();
    void PostChange_i(BOOL aRefresh);
    void PostNotices_i();
    CProxyFinder* GetFinder_n();
    void Finish_i(const CCmRefPtrT<CCmProxyAnswer>& aAnswer, const std::set<uint64_t>& aAskers);
    CCmRefPtrT<CCmProxyAnswer> MakeAnswer_i(CCmProxyAnswer::CValue aValue) const;

    void OnThreadEnd() override;
    CDiscoverySettings GetSettings() override;
    DWORD GetGeneration() const override { return m_dwGeneration; }
    BOOL OnAnswersObsolete(DWORD& aGeneration) override;
    void OnProxyFound(DWORD aGeneration, const CCmString& aOrigin, CCmProxyAnswer::CValue aValue, DWORD aSeconds) override;

    const CCmRefPtrT<CCmProxyAnswer> m_pNoMemory;  // the answer if there is no memory for another
    CCmMutexThread m_Mutex;
    CAnswerCache m_Answers CM_GUARDED_BY(m_Mutex);
    CProxyAskers m_Askers CM_GUARDED_BY(m_Mutex);
    std::shared_ptr<const CApplicationSettings> m_pApplication CM_GUARDED_BY(m_Mutex);
    BOOL m_bConfigured CM_GUARDED_BY(m_Mutex) = TRUE;                           // these are the configuration's
    std::shared_ptr<const CEnvironment> m_pEnvironment CM_GUARDED_BY(m_Mutex);  // null: not yet read
    int64_t m_llNextCheck CM_GUARDED_BY(m_Mutex) = 0;                           // for the users of kept answers
    std::atomic<DWORD> m_dwGeneration{0};                                       // changes under the mutex

    std::unique_ptr<CProxyFinder> m_pFinder;  // network thread only
    CCmRefPtrT<CDiscoveryState> m_pSelf;      // while there is a finder
};

}  // namespace talvo
