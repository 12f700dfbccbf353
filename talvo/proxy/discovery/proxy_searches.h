// The searches of cm_proxy_find.
#pragma once

#include <functional>
#include <unordered_map>

#include "talvo/base/mutex.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/base/thread_annotations.h"
#include "talvo/event/thread_link.h"
#include "talvo/event/timer_queue.h"
#include "talvo/proxy/discovery/proxy_answer.h"

namespace talvo {

class CProxySearches;

// One search. Belongs to the thread that began it, in which it is destroyed unless that thread has ended.
class CProxySearch final : public CCmReferenceControlT<CCmMutexThread>, private ICmObserver, private CCmThreadTenant {
public:
    // aRoute: as scripts return it; "" unless the result is CM_OK.
    using Report = std::function<void(DWORD aId, CmResult aResult, const CCmString& aRoute)>;

    CProxySearch(CProxySearches& aAll, CCmThreadLink& aLink, Report aReport)
        : m_All(aAll), m_pLink(&aLink), m_Report(std::move(aReport)) {}

    // CM_OK: the report follows. Others as CCmProxyDiscovery::Find.
    CmResult Start(DWORD aId, const CCmString& aUrl);
    // Any thread. Takes over the last reference of the list.
    static void Cancel(CCmRefPtrT<CProxySearch> aSearch);

private:
    // Releases a reference in the search's thread, whose loop may be about to call the search. Needs no memory.
    class CRelease final : public ICmEvent {
    public:
        explicit CRelease(CProxySearch& aSearch) : m_Search(aSearch) {}
        CmResult OnEventFire() override { return CM_OK; }
        void OnDestorySelf() override { m_Search.ReleaseReference(); }

    private:
        CProxySearch& m_Search;
    };

    void OnObserve(const char* aTopic, void* aData) override;
    void OnThreadEnd() override;
    void Deliver_i(const CCmProxyAnswer& aAnswer);

    CProxySearches& m_All;
    const CCmRefPtrT<CCmThreadLink> m_pLink;
    const Report m_Report;
    CRelease m_Release{*this};
    DWORD m_dwId = 0;
};

// Those of the process. Never destroyed. Any thread.
class CProxySearches {
public:
    static CProxySearches& Instance();

    // A search of the calling thread; results as cm_proxy_find. aId (out): unchanged after a failure.
    CmResult Start(const CCmString& aUrl, CProxySearch::Report aReport, DWORD& aId);
    CmResult Cancel(DWORD aId);

    // Takes the search out of the list. Null: it was cancelled.
    CCmRefPtrT<CProxySearch> Take(DWORD aId);

private:
    DWORD Add_i(const CCmRefPtrT<CProxySearch>& aSearch);

    CCmMutexThread m_Mutex;
    std::unordered_map<DWORD, CCmRefPtrT<CProxySearch>> m_Searches CM_GUARDED_BY(m_Mutex);
    DWORD m_dwLastId CM_GUARDED_BY(m_Mutex) = 0;
};

}  // namespace talvo
