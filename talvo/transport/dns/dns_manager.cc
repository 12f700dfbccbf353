#include "talvo/transport/dns/dns_manager.h"

#include <algorithm>
#include <atomic>
#include <new>

#include "talvo/base/ascii.h"
#include "talvo/base/inet_addr.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/dns/dns_state.h"

namespace {

using SingletonGuard = CCmMutexGuardT<CCmMutexThreadRecursive>;

std::atomic<CCmDnsManager*> s_pInstance{nullptr};

// A name may have bytes above 127, but no character that would end it or is invisible.
BOOL IsName(const CCmString& aName) {
    const size_t stLength = aName.size() - (aName.ends_with('.') ? 1 : 0);
    return stLength > 0 && stLength <= CCmDnsManager::MAX_NAME_LENGTH &&
           std::none_of(aName.begin(), aName.end(), [](char c) { return c == ' ' || talvo::is_control(c); });
}

// No address: aName is a host name.
talvo::CIpBytes ParseLiteral(const CCmString& aName) {
    CCmInetAddr addr;
    const CmResult rv = addr.SetIpAddrByString(aName.c_str());
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    return rv == CM_OK ? addr.GetIpBytes() : talvo::CIpBytes();
}

}  // namespace

CCmDnsManager::CCmDnsManager() : m_pState(new talvo::CDnsState) {}

CCmDnsManager::~CCmDnsManager() {
    SingletonGuard guard(GetSingletonMutex());
    if (ICmNameResolver::Get() == this)
        ICmNameResolver::Set(nullptr);
    s_pInstance = nullptr;
}

CCmDnsManager* CCmDnsManager::Instance() {
    if (CCmDnsManager* pInstance = s_pInstance.load(std::memory_order_acquire))
        return pInstance;
    SingletonGuard guard(GetSingletonMutex());
    if (!s_pInstance)
        talvo::WithMemory([] { s_pInstance = new CCmDnsManager; });
    return s_pInstance;
}

CmResult CCmDnsManager::AsyncResolve(CCmDnsRecord*& aRecord, const CCmString& aHostName, ICmObserver* aObserver, BOOL aForced,
                                     ACmThread* aThread) {
    return Resolve_i(aRecord, aHostName, aObserver, aForced ? talvo::EDnsWait::FORCED : talvo::EDnsWait::READY, aThread);
}

CmResult CCmDnsManager::Resolve_i(CCmDnsRecord*& aRecord, const CCmString& aHostName, ICmObserver* aObserver,
                                  talvo::EDnsWait aWait, ACmThread* aThread) {
    aRecord = nullptr;
    if (!IsName(aHostName))
        return CM_ERROR_INVALID_ARG;
    CCmRefPtrT<CCmDnsRecord> pRecord;
    CmResult rv = CM_OK;
    const BOOL bMemory = talvo::WithMemory([&] {
        const CCmString strName = talvo::to_lower(aHostName);
        const talvo::CIpBytes ip = ParseLiteral(strName);
        if (!ip && strName.find(':') != CCmString::npos)  // an address that was misspelled
            rv = CM_ERROR_INVALID_ARG;
        else if (ip)
            pRecord = new CCmDnsRecord(strName, talvo::CDnsAnswers::Of({ip}, talvo::CDnsAnswer::MAX_TTL));
        else
            rv = m_pState->Resolve(pRecord, strName, aObserver, aWait, aThread);
    });
    aRecord = pRecord.Detach();
    return bMemory ? rv : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmDnsManager::CancelResolve(ICmObserver* aObserver) {
    return aObserver ? m_pState->Cancel(aObserver) : CM_ERROR_INVALID_ARG;
}

void CCmDnsManager::Refresh() {
    talvo::WithMemory([this] { m_pState->Refresh(); });
}

CmResult CCmDnsManager::ResolveFromCache(const CCmString& aName, talvo::CIpBytes& aIp) {
    CCmRefPtrT<CCmDnsRecord> pRecord;
    const CmResult rv = AsyncResolve(pRecord.ParaOut(), aName);
    if (pRecord)
        aIp = pRecord->GetFirstIp();
    return rv;
}
