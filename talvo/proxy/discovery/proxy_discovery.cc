#include "talvo/proxy/discovery/proxy_discovery.h"

#include <atomic>
#include <new>

#include "talvo/base/with_memory.h"
#include "talvo/proxy/discovery/discovery_state.h"
#include "talvo/transport/bad_proxies.h"

namespace {

using SingletonGuard = CCmMutexGuardT<CCmMutexThreadRecursive>;

std::atomic<CCmProxyDiscovery*> s_pInstance{nullptr};

// In the slot of the process from the start, so that the first connector that asks creates the discovery.
class CInstalledSource final : public ICmProxySource {
public:
    CInstalledSource() { Set(this); }
    CmResult Ask(const CCmString& aUrl, ICmProxySourceSink& aSink, CCmProxyRoute& aRoute) override {
        CCmProxyDiscovery* pDiscovery = CCmProxyDiscovery::Instance();
        return pDiscovery ? pDiscovery->Ask(aUrl, aSink, aRoute) : CM_ERROR_OUT_OF_MEMORY;
    }
    void Cancel(ICmProxySourceSink& aSink) override {
        if (CCmProxyDiscovery* pDiscovery = s_pInstance)
            pDiscovery->Cancel(aSink);
    }
} s_Installed;

// Asks for the origin of aUrl. CM_OK: aAnswer (out) is the kept answer.
CmResult FindByUrl(talvo::CDiscoveryState& aState, const CCmString& aUrl, const talvo::CProxyAskers::CTarget& aTarget,
                   ACmThread* aThread, CCmRefPtrT<CCmProxyAnswer>& aAnswer) {
    CmResult rv = CM_OK;
    const BOOL bMemory = talvo::WithMemory([&] {
        talvo::CProxyOrigin origin;
        rv = talvo::CProxyOrigin::Parse(aUrl, origin);
        if (rv == CM_OK)
            rv = aState.Find(origin, aTarget, aThread, aAnswer);
    });
    return bMemory ? rv : CM_ERROR_OUT_OF_MEMORY;
}

}  // namespace

CCmProxyDiscovery::CCmProxyDiscovery() : m_pState(new talvo::CDiscoveryState) {}

CCmProxyDiscovery::~CCmProxyDiscovery() {
    SingletonGuard guard(GetSingletonMutex());
    s_pInstance = nullptr;
}

CCmProxyDiscovery* CCmProxyDiscovery::Instance() {
    if (CCmProxyDiscovery* pInstance = s_pInstance.load(std::memory_order_acquire))
        return pInstance;
    SingletonGuard guard(GetSingletonMutex());
    if (!s_pInstance)
        talvo::WithMemory([] { s_pInstance = new CCmProxyDiscovery; });
    return s_pInstance;
}

CmResult CCmProxyDiscovery::Find(CCmProxyAnswer*& aAnswer, const CCmString& aUrl, ICmObserver* aObserver, ACmThread* aThread) {
    CCmRefPtrT<CCmProxyAnswer> pAnswer;
    const CmResult rv = FindByUrl(*m_pState, aUrl, {aObserver, nullptr}, aThread, pAnswer);
    aAnswer = pAnswer.Detach();
    return rv;
}

CmResult CCmProxyDiscovery::FindSettings(ICmObserver* aObserver, ACmThread* aThread) {
    if (!aObserver)
        return CM_ERROR_INVALID_ARG;
    CCmRefPtrT<CCmProxyAnswer> pAnswer;
    CmResult rv = CM_OK;
    const BOOL bMemory = talvo::WithMemory([&] { rv = m_pState->Find({}, {aObserver, nullptr}, aThread, pAnswer); });
    return bMemory ? rv : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmProxyDiscovery::CancelFind(ICmObserver* aObserver) {
    return aObserver ? m_pState->Cancel(aObserver) : CM_ERROR_INVALID_ARG;
}

CmResult CCmProxyDiscovery::SetSettings(const CCmString& aText) {
    CmResult rv = CM_OK;
    const BOOL bMemory = talvo::WithMemory([&] {
        std::shared_ptr<talvo::CApplicationSettings> pSettings;
        if (!aText.empty()) {
            pSettings = std::make_shared<talvo::CApplicationSettings>();
            rv = talvo::CApplicationSettings::Parse(aText, *pSettings);
        }
        if (rv == CM_OK)
            m_pState->SetSettings(std::move(pSettings));
    });
    return bMemory ? rv : CM_ERROR_OUT_OF_MEMORY;
}

void CCmProxyDiscovery::Refresh() {
    talvo::WithMemory([this] { m_pState->Refresh(); });
}

CmResult CCmProxyDiscovery::ReportBad(const CCmString& aServer) {
    CCmProxyRoute route;
    const CmResult rv = CCmProxyRoute::FromUris(aServer, route);
    if (rv != CM_OK)
        return rv;
    if (route.GetServers().size() != 1 || route.IsDirect())
        return CM_ERROR_INVALID_ARG;
    talvo::CBadProxies::Instance().Note(route.GetServers()[0]);
    return CM_OK;
}

CmResult CCmProxyDiscovery::Ask(const CCmString& aUrl, ICmProxySourceSink& aSink, CCmProxyRoute& aRoute) {
    CCmRefPtrT<CCmProxyAnswer> pAnswer;
    const CmResult rv = FindByUrl(*m_pState, aUrl, {nullptr, &aSink}, nullptr, pAnswer);
    if (rv != CM_OK)
        return rv;
    aRoute = pAnswer->GetRoute();
    return pAnswer->GetResult();
}

void CCmProxyDiscovery::Cancel(ICmProxySourceSink& aSink) { m_pState->Cancel(&aSink); }
