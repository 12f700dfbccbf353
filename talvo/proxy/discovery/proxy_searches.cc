#include "talvo/proxy/discovery/proxy_searches.h"

#include "talvo/base/immortal.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/thread.h"
#include "talvo/proxy/discovery/proxy_discovery.h"

namespace talvo {

namespace {

using Guard = CCmMutexGuardT<CCmMutexThread>;

ACmThread* GetThreadWithQueue() {
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    return pThread && pThread->GetEventQueue() ? pThread : nullptr;
}

}  // namespace

CmResult CProxySearch::Start(DWORD aId, const CCmString& aUrl) {
    m_dwId = aId;
    CCmProxyDiscovery* pDiscovery = CCmProxyDiscovery::Instance();
    if (!pDiscovery)
        return CM_ERROR_OUT_OF_MEMORY;
    JoinCurrentThread();
    CCmRefPtrT<CCmProxyAnswer> pAnswer;
    const CmResult rv = pDiscovery->Find(pAnswer.ParaOut(), aUrl, this);
    if (rv == CM_OK)
        return m_pLink->Post([pSearch = CCmRefPtrT<CProxySearch>(this), pAnswer] { pSearch->Deliver_i(*pAnswer); });
    return rv == CM_ERROR_WOULD_BLOCK ? CM_OK : rv;
}

void CProxySearch::Cancel(CCmRefPtrT<CProxySearch> aSearch) {
    if (CCmProxyDiscovery* pDiscovery = CCmProxyDiscovery::Instance())
        pDiscovery->CancelFind(aSearch.Get());
    const CCmRefPtrT<CCmThreadLink> pLink = aSearch->m_pLink;
    pLink->PostEvent(&aSearch.Detach()->m_Release);
}

void CProxySearch::OnObserve(const char*, void* aData) { Deliver_i(*static_cast<const CCmProxyAnswer*>(aData)); }

void CProxySearch::Deliver_i(const CCmProxyAnswer& aAnswer) {
    const CCmRefPtrT<CProxySearch> pThis = m_All.Take(m_dwId);
    if (!pThis)
        return;
    CmResult rv = aAnswer.GetResult();
    CCmString strRoute;
    if (rv == CM_OK && !WithMemory([&] { strRoute = aAnswer.GetRoute().GetScriptText(); }))
        rv = CM_ERROR_OUT_OF_MEMORY;
    m_Report(m_dwId, rv, rv == CM_OK ? strRoute : CCmString());
}

void CProxySearch::OnThreadEnd() {
    if (CCmProxyDiscovery* pDiscovery = CCmProxyDiscovery::Instance())
        pDiscovery->CancelFind(this);
    m_All.Take(m_dwId);
}

CProxySearches& CProxySearches::Instance() {
    static CImmortalT<CProxySearches> s_Searches;
    return *s_Searches;
}

CmResult CProxySearches::Start(const CCmString& aUrl, CProxySearch::Report aReport, DWORD& aId) {
    ACmThread* pThread = GetThreadWithQueue();
    if (!pThread)
        return CM_ERROR_NULL_POINTER;
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    WithMemory([&] {
        const CCmRefPtrT<CProxySearch> pSearch(new CProxySearch(*this, pThread->GetLink(), std::move(aReport)));
        const DWORD dwId = Add_i(pSearch);
        rv = pSearch->Start(dwId, aUrl);
        if (rv == CM_OK)
            aId = dwId;
        else
            Take(dwId);
    });
    return rv;
}

CmResult CProxySearches::Cancel(DWORD aId) {
    CCmRefPtrT<CProxySearch> pSearch = Take(aId);
    if (!pSearch)
        return CM_ERROR_NOT_FOUND;
    CProxySearch::Cancel(std::move(pSearch));
    return CM_OK;
}

CCmRefPtrT<CProxySearch> CProxySearches::Take(DWORD aId) {
    const Guard guard(m_Mutex);
    const auto it = m_Searches.find(aId);
    if (it == m_Searches.end())
        return nullptr;
    CCmRefPtrT<CProxySearch> pSearch = std::move(it->second);
    m_Searches.erase(it);
    return pSearch;
}

DWORD CProxySearches::Add_i(const CCmRefPtrT<CProxySearch>& aSearch) {
    const Guard guard(m_Mutex);
    do
        ++m_dwLastId;
    while (m_dwLastId == 0 || m_Searches.contains(m_dwLastId));
    m_Searches.emplace(m_dwLastId, aSearch);
    return m_dwLastId;
}

}  // namespace talvo
