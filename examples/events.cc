// Work for another thread: posted (without waiting for it) or sent (waiting for its result).
#include <cstdio>

#include "talvo/talvo.h"

// In the main thread: prints a result, and ends the loop after the last one.
class ResultEvent : public ICmEvent {
public:
    ResultEvent(int aNumber, int aSquare, bool aLast) : m_nNumber(aNumber), m_nSquare(aSquare), m_bLast(aLast) {}
    CmResult OnEventFire() override {
        std::printf("%d squared is %d\n", m_nNumber, m_nSquare);
        if (m_bLast)
            CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop();
        return CM_OK;
    }

private:
    const int m_nNumber, m_nSquare;
    const bool m_bLast;
};

// In the worker: computes, and posts the result to the main thread.
class SquareEvent : public ICmEvent {
public:
    SquareEvent(int aNumber, bool aLast) : m_nNumber(aNumber), m_bLast(aLast) {}
    CmResult OnEventFire() override {
        ICmEventQueue* pMain = CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_MAIN);
        return pMain->PostEvent(new ResultEvent(m_nNumber, m_nNumber * m_nNumber, m_bLast));
    }

private:
    const int m_nNumber;
    const bool m_bLast;
};

// A question: the sender waits for the answer, which the event stores in a variable of the sender.
class ThreadIdEvent : public ICmEvent {
public:
    explicit ThreadIdEvent(DWORD& aAnswer) : m_dwAnswer(aAnswer) {}
    CmResult OnEventFire() override {
        m_dwAnswer = CCmThreadManager::GetThreadSelfId();
        return CM_OK;
    }

private:
    DWORD& m_dwAnswer;
};

int main(int argc, char** argv) {
    CCmThreadManager* pThreads = CCmThreadManager::Instance();
    ACmThread* pWorker = nullptr;
    if (pThreads->InitMainThread(argc, argv) != CM_OK || pThreads->CreateUserTaskThread(pWorker) != CM_OK)
        return 1;

    // A posted event belongs to the queue. Events run in the order of their posts.
    for (int i = 1; i <= 3; ++i)
        pWorker->GetEventQueue()->PostEvent(new SquareEvent(i, i == 3));
    pThreads->GetThreadReactor(CCmThreadManager::TT_MAIN)->RunEventLoop();

    DWORD dwWorkerId = 0;
    const CmResult rv = pWorker->GetEventQueue()->SendEvent(new ThreadIdEvent(dwWorkerId));
    std::printf("the worker %s another thread\n", dwWorkerId != CCmThreadManager::GetThreadSelfId() ? "is" : "is not");

    pWorker->Stop();
    pWorker->Join();
    pWorker->Destory(CM_OK);
    pThreads->GetThread(CCmThreadManager::TT_MAIN)->Destory(CM_OK);
    return rv == CM_OK ? 0 : 1;
}
