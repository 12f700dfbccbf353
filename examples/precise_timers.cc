// Timers in a thread that has neither a reactor nor timers of its own: three lamps blink at different rates.
#include <cstdio>

#include "talvo/talvo.h"

class Lamp : public ICmTimerHandler {
public:
    Lamp(const char* aName, CCmEventThread* aDone = nullptr) : m_pName(aName), m_pDone(aDone) {}

    void OnTimeout(const CCmTimeValue&, void*) override {
        std::printf("%s %s\n", m_pName, ++m_nBlinks % 2 ? "on" : "off");
        if (m_nBlinks == 6 && m_pDone)
            m_pDone->Signal();
    }

private:
    const char* m_pName;
    CCmEventThread* m_pDone;
    int m_nBlinks = 0;
};

int main(int argc, char** argv) {
    CCmThreadManager* pThreads = CCmThreadManager::Instance();
    ACmThread* pThread = nullptr;
    if (pThreads->InitMainThread(argc, argv) != CM_OK ||
        pThreads->CreateUserTaskThread(pThread, CCmThreadManager::TF_JOINABLE, FALSE) != CM_OK)
        return 1;
    CCmEventThread done;
    Lamp red("red"), green("green"), blue("blue", &done);
    CCmPreciseTimerQueue* pTimers = CCmPreciseTimerManager::Instance()->GetTimerQueue(pThread->GetEventQueue());
    if (!pTimers)
        return 1;
    pThread->GetLink().Post([&] {  // timers are scheduled in their thread
        pTimers->ScheduleTimer(&red, nullptr, CCmTimeValue(0, 30000), 0);
        pTimers->ScheduleTimer(&green, nullptr, CCmTimeValue(0, 40000), 2);
        pTimers->ScheduleTimer(&blue, nullptr, CCmTimeValue(0, 50000), 6);
    });
    done.Wait();

    pThread->Stop();  // the thread's end drops the timers that are left
    pThread->Join();
    pTimers->ReleaseReference();
    pThread->Destory(CM_OK);
    pThreads->GetThread(CCmThreadManager::TT_MAIN)->Destory(CM_OK);
    return 0;
}
