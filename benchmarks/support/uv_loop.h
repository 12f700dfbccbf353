// A thread that runs a libuv loop, with the queue that libuv leaves to its users: a locked vector and one uv_async.
#pragma once

#include <uv.h>

#include <thread>
#include <utility>

#include "benchmarks/support/system.h"
#include "benchmarks/support/task_queue.h"

namespace bench {

class CUvLoop {
public:
    explicit CUvLoop(int aCore) {
        uv_loop_init(&m_Loop);
        uv_async_init(&m_Loop, &m_Async, [](uv_async_t* aAsync) { static_cast<CUvLoop*>(aAsync->data)->m_Tasks.Run(); });
        m_Async.data = this;
        m_Thread = std::thread([this, aCore] {
            PinThisThread(aCore);
            uv_run(&m_Loop, UV_RUN_DEFAULT);
        });
    }
    // Ends the thread. Open handles of its user are abandoned, because the program ends afterwards.
    ~CUvLoop() {
        Post([this] { uv_stop(&m_Loop); });
        m_Thread.join();
    }
    CUvLoop(const CUvLoop&) = delete;
    CUvLoop& operator=(const CUvLoop&) = delete;

    // Any thread. Wakes the loop only if the queue was empty.
    template <class Function>
    void Post(Function&& aFunction) {
        if (m_Tasks.Push(std::forward<Function>(aFunction)))
            uv_async_send(&m_Async);
    }

    uv_loop_t* Get() { return &m_Loop; }

private:
    uv_loop_t m_Loop;
    uv_async_t m_Async;
    CTaskQueue m_Tasks;
    std::thread m_Thread;
};

}  // namespace bench
