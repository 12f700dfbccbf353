#include "talvo/proxy/discovery/discovery_functions.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "talvo/base/secret.h"
#include "talvo/base/synchronization.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/thread.h"
#include "talvo/proxy/discovery/proxy_discovery.h"
#include "talvo/proxy/discovery/proxy_origin.h"
#include "talvo/proxy/discovery/proxy_searches.h"

using talvo::CProxySearches;

namespace {

// Calls the discovery with a text, which may have credentials.
template <class Method>
int32_t CallDiscovery(const char* aText, Method aMethod) {
    CCmProxyDiscovery* pDiscovery = CCmProxyDiscovery::Instance();
    CmResult rv = aText ? CM_ERROR_OUT_OF_MEMORY : CM_ERROR_INVALID_ARG;
    CCmString strText;
    if (aText && pDiscovery && talvo::WithMemory([&] { strText = aText; }))
        rv = (pDiscovery->*aMethod)(strText);
    talvo::WipeText(strText);
    return rv;
}

// Calls a search with the origin of aUrl. The rest of the URL is copied nowhere, so none of it stays in memory.
template <class Search>
int32_t CallWithOrigin(const char* aUrl, Search aSearch) {
    CmResult rv = CM_OK;
    const BOOL bMemory = talvo::WithMemory([&] {
        talvo::CProxyOrigin origin;
        rv = talvo::CProxyOrigin::Parse(aUrl, origin);
        if (rv == CM_OK)
            rv = aSearch(origin.m_strUrl);
    });
    return bMemory ? rv : CM_ERROR_OUT_OF_MEMORY;
}

// The end of a search that another thread waits for. The thread may have given up.
struct CWait {
    void End(CmResult aResult, const CCmString& aRoute) {
        if (!talvo::WithMemory([&] { m_strRoute = aRoute; }))
            aResult = CM_ERROR_OUT_OF_MEMORY;
        m_Result = aResult;
        m_Over.Signal();
    }

    CCmEventThread m_Over;
    CmResult m_Result = CM_OK;
    CCmString m_strRoute;
};

// Network thread.
void Search(const CCmString& aUrl, const std::shared_ptr<CWait>& aWait) {
    DWORD dwId = 0;
    const auto report = [aWait](DWORD, CmResult aResult, const CCmString& aRoute) { aWait->End(aResult, aRoute); };
    const CmResult rv = CProxySearches::Instance().Start(aUrl, report, dwId);
    if (rv != CM_OK)
        aWait->End(rv, {});
}

CmResult FindAndWait(const CCmString& aUrl, uint32_t aMs, CCmString& aRoute) {
    CCmThreadManager& threads = *CCmThreadManager::Instance();
    ACmThread* pNetwork = threads.GetThread(CCmThreadManager::TT_NETWORK);
    if (!pNetwork || threads.GetThread(CCmThreadManager::TT_CURRENT))
        return CM_ERROR_NOT_AVAILABLE;
    // The first question reads the environment, and must do so here: not while the caller's next line sets a variable.
    CCmRefPtrT<CCmProxyAnswer> pKept;
    CCmProxyDiscovery* pDiscovery = CCmProxyDiscovery::Instance();
    const CmResult begun = pDiscovery ? pDiscovery->Find(pKept.ParaOut(), aUrl) : CM_ERROR_OUT_OF_MEMORY;
    if (begun != CM_OK && begun != CM_ERROR_WOULD_BLOCK)
        return begun;
    const auto pWait = std::make_shared<CWait>();
    const CmResult rv = pNetwork->GetLink().Post([strUrl = aUrl, pWait] { Search(strUrl, pWait); });
    if (rv != CM_OK)
        return rv == CM_ERROR_OUT_OF_MEMORY ? rv : CM_ERROR_NOT_AVAILABLE;
    CCmTimeValue tvTimeout = CCmTimeValue::FromUsec(int64_t{aMs} * 1000);
    if (pWait->m_Over.Wait(&tvTimeout) != CM_OK)
        return CM_ERROR_TIMEOUT;
    aRoute = pWait->m_strRoute;
    return pWait->m_Result;
}

}  // namespace

int32_t cm_proxy_find(const char* url, cm_proxy_found callback, void* arg, uint32_t* id) {
    if (!url || !callback || !id)
        return CM_ERROR_INVALID_ARG;
    const auto report = [callback, arg](DWORD aId, CmResult aResult, const CCmString& aRoute) {
        callback(arg, aId, aResult, aRoute.c_str());
    };
    return CallWithOrigin(url, [&](const CCmString& aUrl) { return CProxySearches::Instance().Start(aUrl, report, *id); });
}

int32_t cm_proxy_cancel(uint32_t id) { return CProxySearches::Instance().Cancel(id); }

int32_t cm_proxy_find_wait(const char* url, char* buffer, uint32_t size, uint32_t milliseconds) {
    if (!url || !buffer || size == 0)
        return CM_ERROR_INVALID_ARG;
    *buffer = 0;
    CCmString strRoute;
    const CmResult rv = CallWithOrigin(url, [&](const CCmString& aUrl) { return FindAndWait(aUrl, milliseconds, strRoute); });
    if (rv != CM_OK)
        return rv;
    if (strRoute.size() >= size)
        return CM_ERROR_PARTIAL_DATA;
    std::memcpy(buffer, strRoute.c_str(), strRoute.size() + 1);
    return CM_OK;
}

int32_t cm_proxy_set_settings(const char* text) { return CallDiscovery(text, &CCmProxyDiscovery::SetSettings); }

int32_t cm_proxy_refresh(void) {
    CCmProxyDiscovery* pDiscovery = CCmProxyDiscovery::Instance();
    if (pDiscovery)
        pDiscovery->Refresh();
    return pDiscovery ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

int32_t cm_proxy_report_bad(const char* server) { return CallDiscovery(server, &CCmProxyDiscovery::ReportBad); }
