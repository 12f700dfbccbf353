// A thread that runs a libuv loop, with the queue that libuv leaves to its users: a locked vector and one uv_async.
#pragma once

#include <uv.h>

#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "benchmarks/support/system.h"

namespace bench {

class CUvLoop {
public:
    using Task = std::function<void()>;

    explicit CUvLoop(int aCore) {
        uv_loop_init(&m_Loop);
        uv_async_init(&m_Loop, &m_Async, [](uv_async_t* aAsync) { static_cast<CUvLoop*>(aAsync->data)->RunTasks(); });
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
        bool bWasEmpty;
        {
            const std::lock_guard guard(m_Mutex);
            bWasEmpty = m_Tasks.empty();
            m_Tasks.emplace_back(std::forward<Function>(aFunction));
        }
        if (bWasEmpty)
            uv_async_send(&m_Async);
    }

    uv_loop_t* Get() { return &m_Loop; }

private:
    void RunTasks() {
        {
            const std::lock_guard guard(m_Mutex);
            m_Running.swap(m_Tasks);
        }
        for (Task& task : m_Running)
            task();
        m_Running.clear();
    }

    uv_loop_t m_Loop;
    uv_async_t m_Async;
    std::mutex m_Mutex;
    std::vector<Task> m_Tasks;    // under the mutex
    std::vector<Task> m_Running;  // the loop's; keeps its memory from turn to turn
    std::thread m_Thread;
};

}  // namespace bench
