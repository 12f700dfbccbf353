// The common part of all programs on this library: a main thread, calls to other threads, and the orderly end.
#pragma once

#include <signal.h>

#include <cstdlib>
#include <type_traits>
#include <utility>

#include "talvo/talvo.h"

namespace bench {

// Adopts the main thread during its life; ends all threads of the library afterwards.
class CTalvoProcess {
public:
    CTalvoProcess(int aArgc, char** aArgv) {
        if (CCmThreadManager::Instance()->InitMainThread(aArgc, aArgv) != CM_OK)
            std::exit(1);
    }
    ~CTalvoProcess() {
        CCmThreadManager* pManager = CCmThreadManager::Instance();
        pManager->StopAllThreads();
        pManager->JoinAllThreads();
        CCmConnectionManager::CleanupInstance();
        pManager->GetThread(CCmThreadManager::TT_MAIN)->Destory(CM_OK);
    }
    CTalvoProcess(const CTalvoProcess&) = delete;
    CTalvoProcess& operator=(const CTalvoProcess&) = delete;
};

// Blocks the signals before the first thread starts, so that only Wait receives them.
class CTermination {
public:
    CTermination() {
        sigemptyset(&m_Signals);
        sigaddset(&m_Signals, SIGTERM);
        sigaddset(&m_Signals, SIGINT);
        pthread_sigmask(SIG_BLOCK, &m_Signals, nullptr);
    }
    void Wait() {
        int nSignal = 0;
        sigwait(&m_Signals, &nSignal);
    }

private:
    sigset_t m_Signals;
};

// An event that calls a function, which returns CmResult or nothing.
template <class Function>
class CCallEvent : public ICmEvent {
public:
    explicit CCallEvent(Function aFunction) : m_Function(std::move(aFunction)) {}

    CmResult OnEventFire() override {
        if constexpr (std::is_void_v<std::invoke_result_t<Function>>) {
            m_Function();
            return CM_OK;
        } else {
            return m_Function();
        }
    }

private:
    Function m_Function;
};

template <class Function>
void Post(ICmEventQueue& aQueue, Function aFunction) {
    aQueue.PostEvent(new CCallEvent<Function>(std::move(aFunction)));
}

// Waits for the result.
template <class Function>
CmResult Call(ICmEventQueue& aQueue, Function aFunction) {
    return aQueue.SendEvent(new CCallEvent<Function>(std::move(aFunction)));
}

}  // namespace bench
