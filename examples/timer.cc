// A timer in a user thread: prints three ticks and ends.
#include <cstdio>

#include "talvo/talvo.h"

class Ticker : public CCmTimerWrapperIDSink {
public:
    // Call it in the thread that shall get the ticks: a timer belongs to the thread that schedules it first.
    void Start() { m_Timer.Schedule(this, CCmTimeValue(0, 100000), 3); }

    void OnTimer(CCmTimerWrapperID*) override {
        std::printf("tick %d\n", ++m_nTicks);
        if (m_nTicks < 3)
            return;
        m_Timer.Cancel();
        m_Done.Signal();
    }

    void WaitUntilDone() { m_Done.Wait(); }

private:
    CCmTimerWrapperID m_Timer;
    CCmEventThread m_Done;
    int m_nTicks = 0;
};

// Starts the ticker in its thread.
class StartEvent : public ICmEvent {
public:
    explicit StartEvent(Ticker& aTicker) : m_Ticker(aTicker) {}
    CmResult OnEventFire() override {
        m_Ticker.Start();
        return CM_OK;
    }

private:
    Ticker& m_Ticker;
};

int main(int argc, char** argv) {
    CCmThreadManager* pThreads = CCmThreadManager::Instance();
    Ticker ticker;
    ACmThread* pThread = nullptr;
    if (pThreads->InitMainThread(argc, argv) != CM_OK || pThreads->CreateUserTaskThread(pThread) != CM_OK)
        return 1;
    pThread->GetEventQueue()->PostEvent(new StartEvent(ticker));
    ticker.WaitUntilDone();

    pThread->Stop();
    pThread->Join();
    pThread->Destory(CM_OK);
    pThreads->GetThread(CCmThreadManager::TT_MAIN)->Destory(CM_OK);
    return 0;
}
