#include "talvo/connection/connection_manager.h"

#include <new>

#include "talvo/base/name_resolver.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/connection/connection_factory.h"
#include "talvo/connection/drain.h"
#include "talvo/event/thread.h"
#include "talvo/event/thread_linger.h"
#include "talvo/transport/dns/dns_manager.h"
#include "talvo/transport/tls/default_context.h"

namespace {

using SingletonGuard = CCmMutexGuardT<CCmMutexThreadRecursive>;

std::atomic<CCmConnectionManager*> s_pInstance{nullptr};

CCmThreadManager& Threads() { return *CCmThreadManager::Instance(); }

// The calling thread, if it can receive callbacks.
ACmThread* CallingThread() {
    ACmThread* pThread = Threads().GetThread(CCmThreadManager::TT_CURRENT);
    return pThread && pThread->GetEventQueue() ? pThread : nullptr;
}

}  // namespace

CCmConnectionManager* CCmConnectionManager::Instance() {
    if (CCmConnectionManager* pInstance = s_pInstance.load(std::memory_order_acquire))
        return pInstance;
    SingletonGuard guard(GetSingletonMutex());
    if (s_pInstance)
        return s_pInstance;
    CCmDnsManager* pDnsManager = nullptr;
    CCmConnectionManager* pInstance = nullptr;
    talvo::WithMemory([&] {
        pDnsManager = CCmDnsManager::Instance();  // the older of the two is cleaned up last
        if (pDnsManager)
            pInstance = new CCmConnectionManager;
    });
    const CmResult rv = pInstance ? pInstance->SpawnNetworkThread_i() : CM_ERROR_OUT_OF_MEMORY;
    if (rv != CM_OK) {
        CM_ERROR_TRACE("CCmConnectionManager::Instance, SpawnNetworkThread_i() failed! rv=" << rv);
        delete pInstance;
        return nullptr;
    }
    if (!ICmNameResolver::Get())
        ICmNameResolver::Set(pDnsManager);
    return s_pInstance = pInstance;
}

void CCmConnectionManager::CleanupInstance() {
    SingletonGuard guard(GetSingletonMutex());
    if (CCmConnectionManager* pInstance = s_pInstance.exchange(nullptr))
        delete pInstance;
    talvo::CDefaultContext::Instance().Clear();
}

void CCmConnectionManager::CleanUp() { CleanupInstance(); }

// If the application itself has destroyed the network thread, it is no longer registered, and not accessed.
CCmConnectionManager::~CCmConnectionManager() {
    if (!m_pThreadNetwork && CCmThreadManager::IsEqualCurrentThread(CCmThreadManager::TT_NETWORK))
        Threads().GetThread(CCmThreadManager::TT_NETWORK)->Linger();
    if (!m_pThreadNetwork || Threads().GetThread(CCmThreadManager::TT_NETWORK) != m_pThreadNetwork)
        return;
    m_pThreadNetwork->Stop(nullptr);
    m_pThreadNetwork->Join();
    m_pThreadNetwork->Destory(CM_OK);
}

CmResult CCmConnectionManager::SpawnNetworkThread_i() {
    if (m_pThreadNetwork)
        return CM_OK;
    if (Threads().GetNetworkThreadMode() == CCmThreadManager::NETWORK_THREAD_MAIN)
        return Threads().GetThreadReactor(CCmThreadManager::TT_MAIN) ? CM_OK : CM_ERROR_NOT_INITIALIZED;
    ICmReactor* pReactor = CCmThreadManager::CreateNetworkReactor();
    if (!pReactor)
        return CM_ERROR_OUT_OF_MEMORY;
    const CmResult rv = Threads().CreateReactorThread(CCmThreadManager::TT_NETWORK, pReactor, m_pThreadNetwork);
    // A thread whose reactor did not open exists, but has ended or will end soon.
    return rv == CM_OK ? m_pThreadNetwork->GetLink().Call([] { return CM_OK; }) : rv;
}

CmResult CCmConnectionManager::Drain(CCmTimeValue* aTimeout, ICmDrainSink* aSink) {
    const CCmTimeValue tvTime = aTimeout ? *aTimeout : talvo::GetLingerTime();
    ACmThread* pNetwork = Threads().GetThread(CCmThreadManager::TT_NETWORK);
    ACmThread* pUser = CallingThread();
    if (!pNetwork || !pUser)
        return CM_ERROR_NULL_POINTER;
    if (!aSink) {
        if (pUser->GetThreadType() != CCmThreadManager::TT_MAIN || !pUser->GetReactor())
            return CM_ERROR_FAILURE;
        return talvo::CDrainWait(*pUser->GetReactor()).Run(pUser->GetLink(), pNetwork->GetLink(), tvTime);
    }
    using talvo::CDrain;
    const CCmRefPtrT<CDrain> pDrain(new (std::nothrow) CDrain(pNetwork->GetLink(), pUser->GetLink(), *aSink, tvTime, FALSE));
    if (!pDrain)
        return CM_ERROR_OUT_OF_MEMORY;
    CmResult rv = pDrain->Claim();
    if (rv != CM_OK)
        return rv;
    rv = pDrain->Start();
    if (rv != CM_OK)
        pDrain->Withdraw();
    return rv;
}

CmResult CCmConnectionManager::CreateConnectionClient(DWORD aType, ICmConnector*& aConnector) {
    return talvo::CreateClient(aType, aConnector);
}

CmResult CCmConnectionManager::CreateConnectionServer(DWORD aType, ICmAcceptor*& aAcceptor) {
    return talvo::CreateServer(aType, aAcceptor);
}

CmResult CCmConnectionManager::CreateDetectionConnectionClient(ICmDetectionConnector*& aConnector) {
    return talvo::CreateRace(aConnector);
}

CmResult CCmConnectionManager::CreateConnectionClient_i(DWORD aType, ICmConnector*& aConnector) {
    return talvo::CreateClient_i(aType, aConnector);
}

CmResult CCmConnectionManager::CreateConnectionServer_i(DWORD aType, ICmAcceptor*& aAcceptor) {
    return talvo::CreateServer_i(aType, aAcceptor);
}

CmResult CCmConnectionManager::CreateCsConnectionClient(DWORD& aType, ICmConnector*& aConnector) {
    return talvo::CreateCsClient(aType, aConnector);
}

CmResult CCmConnectionManager::CreateCsConnectionServer(DWORD& aType, ICmAcceptor*& aAcceptor) {
    return talvo::CreateCsServer(aType, aAcceptor);
}
