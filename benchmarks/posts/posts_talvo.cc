// Posts to reactor threads of this library.
#include "benchmarks/posts/posts.h"
#include "benchmarks/support/talvo_process.h"

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
    CReactorLoop near(1), far(0);
    bench::RunPosts(near, far);
    return 0;
}
