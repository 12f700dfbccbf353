// Threads that run libev loops, each with a locked vector and one ev_async.
#include <ev.h>

#include <thread>
#include <utility>

#include "benchmarks/support/task_queue.h"
#include "benchmarks/threads/threads.h"

namespace {

class CEvLoop {
public:
    explicit CEvLoop(int aCore) {
        ev_async_init(&m_Async,
                      [](struct ev_loop*, ev_async* aAsync, int) { static_cast<CEvLoop*>(aAsync->data)->m_Tasks.Run(); });
        m_Async.data = this;
        ev_async_start(m_pLoop, &m_Async);
        m_Thread = std::thread([this, aCore] {
            bench::PinThisThread(aCore);
            ev_run(m_pLoop, 0);
        });
    }
    ~CEvLoop() {
        Post([this] { ev_break(m_pLoop, EVBREAK_ALL); });
        m_Thread.join();
        ev_loop_destroy(m_pLoop);
    }
    CEvLoop(const CEvLoop&) = delete;
    CEvLoop& operator=(const CEvLoop&) = delete;

    template <class Function>
    void Post(Function&& aFunction) {
        if (m_Tasks.Push(std::forward<Function>(aFunction)))
            ev_async_send(m_pLoop, &m_Async);
    }

private:
    struct ev_loop* const m_pLoop = ev_loop_new(EVFLAG_AUTO);
    ev_async m_Async;
    bench::CTaskQueue m_Tasks;
    std::thread m_Thread;
};

}  // namespace

int main() { return bench::RunThreads<CEvLoop>(); }
