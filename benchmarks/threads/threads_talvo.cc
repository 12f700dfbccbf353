// Reactor threads of this library, which may have sockets. rt_cross and rt_same are round trips between two of them on two
// cores and on one, with the times that half of them, and 99 of 100, do not exceed. post16 and post64 are the cost of one post
// of that many bytes when a million go one way.
#include "benchmarks/support/talvo_process.h"
#include "benchmarks/threads/threads.h"

namespace {

class CReactorLoop {
public:
    explicit CReactorLoop(int aCore) {
        CCmThreadManager* pManager = CCmThreadManager::Instance();
        if (pManager->CreateReactorThread(pManager->GetAndIncreamUserType(), CCmThreadManager::CreateNetworkReactor(),
                                          m_pThread) != CM_OK)
            std::exit(1);
        m_pQueue = m_pThread->GetEventQueue();
        Post([aCore] { bench::PinThisThread(aCore); });
    }
    ~CReactorLoop() {
        m_pThread->Stop();
        m_pThread->Join();
        m_pThread->Destory(CM_OK);
    }
    CReactorLoop(const CReactorLoop&) = delete;
    CReactorLoop& operator=(const CReactorLoop&) = delete;

    template <class Function>
    void Post(Function aFunction) {
        bench::Post(*m_pQueue, std::move(aFunction));
    }

private:
    ACmThread* m_pThread = nullptr;     // owned, until Destory
    ICmEventQueue* m_pQueue = nullptr;  // the thread's
};

}  // namespace

int main(int argc, char** argv) {
    bench::CTalvoProcess process(argc, argv);
    return bench::RunThreads<CReactorLoop>();
}
