#include "talvo/event/thread_manager.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>

#include "talvo/base/atomic_operation.h"
#include "talvo/base/config.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/reactor_epoll.h"
#include "talvo/event/thread_reactor.h"
#include "talvo/event/thread_task.h"

namespace {

std::atomic<CCmThreadManager*> s_pInstance{nullptr};
alignas(CCmThreadManager) unsigned char s_Memory[sizeof(CCmThreadManager)];  // for the instance, so that its creation needs no
                                                                             // memory

std::atomic<bool> s_bMainThreadClaimed{false};

// The number of registered threads that have come and gone. Changes under the mutex.
std::atomic<uint64_t> s_ullChanges{1};

// The calling thread's own object, when it was found last. It is the same until the number changes.
[[gnu::tls_model("initial-exec")]] constinit thread_local struct {
    ACmThread* m_pThread;
    uint64_t m_ullChanges;
} t_Found = {};

using Guard = CCmMutexGuardT<CCmMutexThread>;
using SingletonGuard = CCmMutexGuardT<CCmMutexThreadRecursive>;

}  // namespace

CCmThreadManager* CCmThreadManager::Instance() {
    if (CCmThreadManager* pInstance = s_pInstance.load(std::memory_order_acquire))
        return pInstance;
    SingletonGuard guard(GetSingletonMutex());
    if (!s_pInstance) {
        CCmTrace::ReadConfigurationOnce();
        CM_INFO_TRACE("CCmThreadManager::Instance, new CCmThreadManager.");
        s_pInstance = new (s_Memory) CCmThreadManager;
        static const int s_nAtExit = atexit(CleanupOnlyOne);
        if (s_nAtExit != 0)
            CM_ERROR_TRACE("CCmThreadManager::Instance, atexit() failed. err=" << errno);
    }
    return s_pInstance;
}

CCmThreadManager::CCmThreadManager() { CM_INFO_TRACE_THIS("CCmThreadManager::CCmThreadManager,"); }

CCmThreadManager::~CCmThreadManager() = default;

void CCmThreadManager::CleanupOnlyOne() {
    CM_INFO_TRACE("CCmThreadManager::CleanupOnlyOne,");
    if (ACmThread::IsAnyRunning())
        return;
    CCmThreadManager* pInstance = s_pInstance;
    if (pInstance) {
        Guard guard(pInstance->m_Mutex);
        if (!pInstance->m_Threads.empty())
            return;
    }
    s_pInstance = nullptr;
    if (pInstance)
        pInstance->~CCmThreadManager();
    CCmCleanUpBase::CleanupAll();
}

CmResult CCmThreadManager::InitMainThread(int, char**) {
    CM_INFO_TRACE_THIS("CCmThreadManager::InitMainThread,");
    {
        Guard guard(m_Mutex);
        if (!m_Threads.empty()) {
            CM_WARNING_TRACE("CCmThreadManager::InitMainThread, You should InitMainThread before creating other thread!");
            return CM_ERROR_ALREADY_INITIALIZED;
        }
    }
    CCmAtomicFunctions::init_functions();
    SocketStartup();
    GetNetworkThreadMode();  // read once here, so that GetThread finds the network thread
    ACmThread* pThread = nullptr;
    if (ICmReactor* pReactor = CreateNetworkReactor())
        return CreateReactorThread(TT_MAIN, pReactor, pThread);
    return CreateUserTaskThread(pThread, TF_JOINABLE, TRUE, TT_MAIN);
}

CmResult CCmThreadManager::ClaimMainThread() {
    return s_bMainThreadClaimed.exchange(true) ? CM_ERROR_ALREADY_INITIALIZED : CM_OK;
}

void CCmThreadManager::ReleaseMainThread() { s_bMainThreadClaimed = false; }

CmResult CCmThreadManager::SetNetworkThreadMode(ENetworkThreadMode aMode) {
    Guard guard(m_Mutex);
    if (Find_l(TT_NETWORK))
        return CM_ERROR_ALREADY_INITIALIZED;
    m_NetworkThreadMode = aMode;
    return CM_OK;
}

CCmThreadManager::ENetworkThreadMode CCmThreadManager::GetNetworkThreadMode() {
    if (m_NetworkThreadMode == -1) {
        const BOOL bMain = get_string_param("Thread", "NetworkThread", "own") == "main";
        int nNotChosen = -1;
        m_NetworkThreadMode.compare_exchange_strong(nNotChosen, bMain ? NETWORK_THREAD_MAIN : NETWORK_THREAD_OWN);
    }
    return static_cast<ENetworkThreadMode>(m_NetworkThreadMode.load());
}

ICmReactor* CCmThreadManager::CreateNetworkReactor() { return new (std::nothrow) CCmReactorEpoll; }

CmResult CCmThreadManager::CreateReactorThread(int aType, ICmReactor* aReactor, ACmThread*& aThread) {
    aThread = nullptr;
    if (!aReactor)
        return CM_ERROR_INVALID_ARG;
    std::unique_ptr<ICmReactor> pReactor(aReactor);
    auto* pThread = new (std::nothrow) CCmThreadReactor;
    if (!pThread)
        return CM_ERROR_OUT_OF_MEMORY;
    pThread->AttachReactor(pReactor.release());
    const CmResult rv = pThread->Create(aType, TF_JOINABLE);
    if (rv == CM_OK)
        aThread = pThread;
    else
        pThread->Destory(rv);
    return rv;
}

CmResult CCmThreadManager::CreateUserTaskThread(ACmThread*& aThread, TFlag aFlag, BOOL aWithTimerQueue, int aType) {
    aThread = nullptr;
    ACmThread* pThread = nullptr;
    if (aWithTimerQueue)
        pThread = new (std::nothrow) CCmThreadTask;
    else
        pThread = new (std::nothrow) CCmThreadTaskWithEventQueueOnly;
    if (!pThread)
        return CM_ERROR_OUT_OF_MEMORY;
    const CmResult rv = pThread->Create(aType == TT_UNKNOWN ? GetAndIncreamUserType() : aType, aFlag);
    if (rv == CM_OK)
        aThread = pThread;
    else
        pThread->Destory(rv);
    return rv;
}

int CCmThreadManager::GetAndIncreamUserType() {
    Guard guard(m_Mutex);
    return ++m_LastUserType;
}

CmResult CCmThreadManager::RegisterThread(ACmThread* aThread) {
    if (!aThread)
        return CM_ERROR_INVALID_ARG;
    const int nType = aThread->GetThreadType();
    Guard guard(m_Mutex);
    const auto isSame = [=](ACmThread* a) { return a == aThread || a->GetThreadType() == nType; };
    if (std::any_of(m_Threads.begin(), m_Threads.end(), isSame)) {
        CM_WARNING_TRACE_THIS("CCmThreadManager::RegisterThread, have registered. aThread="
                              << static_cast<const void*>(aThread) << " type=" << nType << " tid=" << aThread->GetThreadId());
        return CM_ERROR_FOUND;
    }
    auto* const pThreads = &m_Threads;
    ++s_ullChanges;
    return talvo::WithMemory([&] { pThreads->push_back(aThread); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmThreadManager::UnregisterThread(ACmThread* aThread) {
    if (!aThread)
        return CM_ERROR_INVALID_ARG;
    const int nType = aThread->GetThreadType();
    Guard guard(m_Mutex);
    const auto itThread = std::find_if(m_Threads.begin(), m_Threads.end(),
                                       [=](ACmThread* a) { return a == aThread || a->GetThreadType() == nType; });
    if (itThread == m_Threads.end())
        return CM_ERROR_NOT_FOUND;
    m_Threads.erase(itThread);
    ++s_ullChanges;
    return CM_OK;
}

ACmThread* CCmThreadManager::Find_l(int aType) {
    const DWORD dwSelf = cm_thread_self_id();
    // In the main-thread mode the main thread is also the network thread.
    if (aType == TT_NETWORK && m_NetworkThreadMode == NETWORK_THREAD_MAIN)
        aType = TT_MAIN;
    for (ACmThread* pThread : m_Threads) {
        if (aType == TT_CURRENT ? pThread->GetThreadId() == dwSelf : pThread->GetThreadType() == aType)
            return pThread;
    }
    return nullptr;
}

ACmThread* CCmThreadManager::GetThread(int aType) {
    if (aType == TT_CURRENT && t_Found.m_ullChanges == s_ullChanges.load(std::memory_order_acquire))
        return t_Found.m_pThread;
    Guard guard(m_Mutex);
    ACmThread* pThread = Find_l(aType);
    if (aType == TT_CURRENT && pThread)
        t_Found = {pThread, s_ullChanges.load(std::memory_order_relaxed)};
    return pThread;
}

ICmReactor* CCmThreadManager::GetThreadReactor(int aType) {
    ACmThread* pThread = GetThread(aType);
    return pThread ? pThread->GetReactor() : nullptr;
}

ICmEventQueue* CCmThreadManager::GetThreadEventQueue(int aType) {
    ACmThread* pThread = GetThread(aType);
    return pThread ? pThread->GetEventQueue() : nullptr;
}

ICmTimerQueue* CCmThreadManager::GetThreadTimerQueue(int aType) {
    ACmThread* pThread = GetThread(aType);
    return pThread ? pThread->GetTimerQueue() : nullptr;
}

void CCmThreadManager::ForEachLink(const std::function<void(CCmThreadLink&)>& aVisit) {
    Guard guard(m_Mutex);
    for (ACmThread* pThread : m_Threads)
        aVisit(pThread->GetLink());
}

// Returns the thread registered after aThread (null: the first), which was at aIndex. The calls on threads come without the
// lock, so that a thread may unregister meanwhile.
ACmThread* CCmThreadManager::GetNextThread_i(const ACmThread* aThread, size_t& aIndex) {
    Guard guard(m_Mutex);
    const auto itThread = std::find(m_Threads.begin(), m_Threads.end(), aThread);
    if (itThread != m_Threads.end())
        aIndex = static_cast<size_t>(itThread - m_Threads.begin()) + 1;
    return aIndex < m_Threads.size() ? m_Threads[aIndex] : nullptr;
}

template <class Function>
CmResult CCmThreadManager::CallThreads_i(Function aFunction) {
    ACmThread* pMain = GetThread(TT_MAIN);
    if (pMain && pMain->GetThreadId() != cm_thread_self_id())
        return CM_ERROR_FAILURE;
    size_t nIndex = 0;
    for (ACmThread* pThread = GetNextThread_i(nullptr, nIndex); pThread; pThread = GetNextThread_i(pThread, nIndex))
        aFunction(*pThread);
    return CM_OK;
}

CmResult CCmThreadManager::StopAllThreads(CCmTimeValue* aTimeout) {
    return CallThreads_i([&](ACmThread& aThread) {
        CM_INFO_TRACE_THIS("Thread stop type =" << aThread.GetThreadType());
        if (aThread.GetThreadType() != TT_MAIN)
            aThread.Stop(aTimeout);
    });
}

CmResult CCmThreadManager::JoinAllThreads() {
    const CmResult rv = CallThreads_i([](ACmThread& aThread) {
        if (aThread.GetThreadType() != TT_MAIN)
            aThread.Join();
    });
    if (rv == CM_OK && GetNetworkThreadMode() == NETWORK_THREAD_MAIN && IsEqualCurrentThread(TT_MAIN))
        GetThread(TT_MAIN)->Linger();
    return rv;
}

CmResult CCmThreadManager::SocketStartup() { return CM_OK; }
CmResult CCmThreadManager::SocketCleanup() { return CM_OK; }

DWORD CCmThreadManager::GetThreadSelfId() { return cm_thread_self_id(); }
BOOL CCmThreadManager::IsThreadEqual(DWORD aLeft, DWORD aRight) { return aLeft == aRight; }
BOOL CCmThreadManager::IsEqualCurrentThread(DWORD aId) { return aId == cm_thread_self_id(); }

BOOL CCmThreadManager::IsEqualCurrentThread(int aType) {
    CCmThreadManager* pThis = Instance();
    Guard guard(pThis->m_Mutex);
    ACmThread* pThread = pThis->Find_l(aType);
    return pThread && pThread->GetThreadId() == cm_thread_self_id();
}

void ms_sleep(unsigned long aMilliSeconds) {
    timespec left{static_cast<time_t>(aMilliSeconds / 1000), static_cast<long>(aMilliSeconds % 1000 * 1000000)};
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}
