// Events, timers and threads, and the life of the library from its start to the documented end.
#include <array>

#include "talvo/event/timer_wrapper_id.h"
#include "tests/memory/scenario.h"

namespace {

// Those that were taken fire once each.
class CTimers : public CCmTimerWrapperIDSink {
public:
    bool RunAll(CWorld& aWorld) {
        int nTaken = 0;
        for (CCmTimerWrapperID& timer : m_Timers)
            nTaken += CWorld::Do([&] { return timer.Schedule(this, CCmTimeValue(1), 1); }) == CM_OK;
        Require(aWorld.Run([&] { return m_nFired >= nTaken; }), "a timer does not fire");
        Require(m_nFired == nTaken, "a refused timer fires");
        return nTaken == static_cast<int>(m_Timers.size());
    }
    void OnTimer(CCmTimerWrapperID*) override { ++m_nFired; }

private:
    std::array<CCmTimerWrapperID, 40> m_Timers;
    int m_nFired = 0;
};

// A posted call, a call and a sent event. Those that were taken run.
bool CallThread(ACmThread& aThread) {
    std::atomic<int> nPosted{0};
    CEventFate sent;
    CCmThreadLink& link = aThread.GetLink();
    const CmResult rvPost = CWorld::Do([&] { return link.Post([&] { ++nPosted; }); });
    auto* pEvent = new CTestEvent(sent);
    const CmResult rvSend = CWorld::Do([&] { return aThread.GetEventQueue()->SendEvent(pEvent); });
    int nCalled = 0;
    const CmResult rvCall = CWorld::Do([&] {
        return link.Call([&] {
            ++nCalled;
            return CM_OK;
        });
    });
    Require(nCalled == (rvCall == CM_OK), "called and run differ");
    // What a thread has taken whose reactor did not open is destroyed unrun.
    Require(nPosted == (rvPost == CM_OK) || (nPosted == 0 && rvCall != CM_OK), "posted and run differ");
    Require(sent.m_nFired == (rvSend == CM_OK) && sent.m_nDestroyed == 1, "sent and run differ");
    return rvPost == CM_OK && rvSend == CM_OK && rvCall == CM_OK;
}

class CEnded : public ICmDrainSink {
public:
    void OnDrained(CmResult aReason, const CCmUndrained&) override {
        Require(m_nCalls++ == 0, "two ends of a drain");
        m_Reason = aReason;
    }
    int m_nCalls = 0;
    CmResult m_Reason = CM_OK;
};

// Both ends are here and end together, so one may lose what the other no longer receives.
bool IsDrained(CmResult aResult) { return aResult == CM_OK || aResult == CM_ERROR_NETWORK_SOCKET_ERROR; }

bool DrainWithSink(CWorld& aWorld) {
    CEnded ended;
    if (CWorld::Do([&] { return CTestNetwork::Manager().Drain(nullptr, &ended); }) != CM_OK)
        return false;
    Require(aWorld.Run([&] { return ended.m_nCalls > 0; }), "a drain has no end");
    return IsDrained(ended.m_Reason);
}

}  // namespace

bool UseThreads(CWorld& aWorld) {
    bool bAll = CTimers().RunAll(aWorld);
    for (const BOOL bReactor : {FALSE, TRUE}) {
        ACmThread* pThread = nullptr;
        const CmResult rv = CWorld::Do([&] {
            CCmThreadManager* pManager = CCmThreadManager::Instance();
            return bReactor ? pManager->CreateReactorThread(1001, CCmThreadManager::CreateNetworkReactor(), pThread)
                            : pManager->CreateUserTaskThread(pThread);
        });
        Require((rv == CM_OK) == (pThread != nullptr), "a result without a thread");
        if (!pThread)
            return false;
        bAll = CallThread(*pThread) && bAll;
        CWorld::Do([&] {
            pThread->Stop();
            pThread->Join();
            pThread->Destory(CM_OK);
        });
    }
    return bAll;
}

bool LiveAndEnd(CWorld& aWorld, CCmThreadManager::ENetworkThreadMode aMode) {
    CCmThreadManager& threads = *CCmThreadManager::Instance();
    CServer server;
    CClient client;
    bool bAll = CWorld::Do([&] {
        threads.SetNetworkThreadMode(aMode);
        return threads.InitMainThread(0, nullptr) == CM_OK && threads.GetThreadReactor(CCmThreadManager::TT_MAIN) &&
               CCmConnectionManager::Instance();
    });
    const CTimeGoesOn time;
    if (bAll) {
        constexpr DWORD TYPE = CCmConnectionManager::CTYPE_TCP | CCmConnectionManager::CTYPE_PDU_LENGTH;
        bAll = server.Start(TYPE) == CM_OK && client.Connect(aWorld, TYPE, server.m_Addr);
        client.m_End.m_ToSend = {Pattern(40000)};
        client.m_End.Flush();
        bAll = DrainWithSink(aWorld) && IsDrained(CWorld::Do([] { return CTestNetwork::Manager().Drain(nullptr); })) && bAll;
    }
    CWorld::Do([&] {
        threads.StopAllThreads();
        threads.JoinAllThreads();
        CCmConnectionManager::CleanupInstance();
        if (ACmThread* pMain = threads.GetThread(CCmThreadManager::TT_MAIN))
            pMain->Destory(CM_OK);
    });
    return bAll;
}
