// Small helpers for the tests of the event room.
#pragma once

#include "talvo/event/event_queue.h"
#include "talvo/event/reactor_epoll.h"
#include "talvo/event/thread.h"
#include "talvo/event/thread_manager.h"
#include "talvo/event/timer_queue.h"
#include "tests/support/test.h"

// The fate of an event, counted from any thread.
struct CEventFate {
    std::atomic<int> m_nFired{0};
    std::atomic<int> m_nDestroyed{0};
};

// An event made of a callable.
class CTestEvent : public ICmEvent {
public:
    explicit CTestEvent(std::function<CmResult()> aRun, CEventFate* aFate = nullptr) : m_Run(std::move(aRun)), m_pFate(aFate) {}
    explicit CTestEvent(CEventFate& aFate) : m_pFate(&aFate) {}
    ~CTestEvent() override {
        if (m_pFate)
            ++m_pFate->m_nDestroyed;
    }

    CmResult OnEventFire() override {
        if (m_pFate)
            ++m_pFate->m_nFired;
        return m_Run ? m_Run() : CM_OK;
    }

private:
    std::function<CmResult()> m_Run;
    CEventFate* m_pFate;  // not owned; may be null
};

// Posts a callable that returns nothing.
inline CmResult PostTo(ICmEventQueue& aQueue, std::function<void()> aRun) {
    return aQueue.PostEvent(new CTestEvent([run = std::move(aRun)] {
        run();
        return CM_OK;
    }));
}

// A timer made of a callable; counts its firings.
class CTestTimer : public ICmTimerHandler {
public:
    explicit CTestTimer(std::function<void()> aRun = nullptr) : m_Run(std::move(aRun)) {}
    void OnTimeout(const CCmTimeValue&, void*) override {
        ++m_nFired;
        if (m_Run)
            m_Run();
    }

    int m_nFired = 0;
    std::function<void()> m_Run;
};

// Takes turns until the condition holds; each turn returns its cost. After some minutes' worth of turns the wait is abandoned,
// as a failure of the waiting line.
template <class Condition, class Turn>
void TakeTurnsUntil(Condition aCondition, Turn aTurn, const char* aFile, int aLine) {
    long lCost = 0;
    while (!aCondition()) {
        if (lCost > 100'000'000) {
            ADD_FAILURE_AT(aFile, aLine) << "waited in vain for this";
            return;
        }
        lCost += aTurn();
    }
}

// Lets other threads run until the condition holds.
template <class Condition>
void YieldUntil(Condition aCondition, const char* aFile = __builtin_FILE(), int aLine = __builtin_LINE()) {
    const auto turn = [] {
        std::this_thread::yield();
        return 1;
    };
    TakeTurnsUntil(aCondition, turn, aFile, aLine);
}

// Turns of a reactor until the condition holds, also if the loop has other work. A turn without work costs a tick.
template <class Condition>
void RunUntil(CCmReactorEpoll& aReactor, Condition aCondition, const char* aFile = __builtin_FILE(),
              int aLine = __builtin_LINE()) {
    const auto turn = [&aReactor] {
        const auto countWork = [&counters = aReactor.GetCounters()] {
            return counters.m_ullReports + counters.m_ullEvents + counters.m_ullTimers;
        };
        const uint64_t ullBefore = countWork();
        EXPECT_EQ(CM_OK, aReactor.RunOnce(nullptr));
        return countWork() == ullBefore ? 10'000 : 1;
    };
    TakeTurnsUntil(aCondition, turn, aFile, aLine);
}

// The calling thread as the library's main thread while in scope.
class CMainThread {
public:
    CMainThread() { EXPECT_EQ(CM_OK, CCmThreadManager::Instance()->InitMainThread(0, nullptr)); }
    ~CMainThread() { Get()->Destory(CM_OK); }
    CMainThread(const CMainThread&) = delete;
    CMainThread& operator=(const CMainThread&) = delete;

    ACmThread* Get() const { return CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_MAIN); }
    CCmReactorEpoll& GetReactor() const { return static_cast<CCmReactorEpoll&>(*Get()->GetReactor()); }
    void RunOnce() const { EXPECT_EQ(CM_OK, GetReactor().RunOnce(&CCmTimeValue::s_tvZero)); }
};

// A thread of the library with a type of its own, ended with the scope.
class CScopedThread {
public:
    enum EKind { REACTOR, TASK, EVENT_QUEUE_ONLY };

    explicit CScopedThread(EKind aKind) {
        if (aKind == REACTOR)
            Run(CCmThreadManager::CreateNetworkReactor());
        else
            EXPECT_EQ(CM_OK, CCmThreadManager::Instance()->CreateUserTaskThread(m_pThread, CCmThreadManager::TF_JOINABLE,
                                                                                aKind == TASK));
    }
    explicit CScopedThread(ICmReactor* aReactor) { Run(aReactor); }
    ~CScopedThread() { End(); }
    CScopedThread(const CScopedThread&) = delete;
    CScopedThread& operator=(const CScopedThread&) = delete;

    void End() {
        if (ACmThread* pThread = std::exchange(m_pThread, nullptr)) {
            pThread->Stop();
            YieldUntil([=] { return pThread->Join() != CM_ERROR_TIMEOUT; });
            pThread->Destory(CM_OK);
        }
    }

    ACmThread* operator->() const { return m_pThread; }
    ACmThread* Get() const { return m_pThread; }

private:
    void Run(ICmReactor* aReactor) {
        CCmThreadManager* pManager = CCmThreadManager::Instance();
        EXPECT_EQ(CM_OK, pManager->CreateReactorThread(pManager->GetAndIncreamUserType(), aReactor, m_pThread));
    }

    ACmThread* m_pThread = nullptr;
};
