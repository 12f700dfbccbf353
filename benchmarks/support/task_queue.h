// The queue that loops without one leave to their users: a locked vector of functions.
#pragma once

#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace bench {

class CTaskQueue {
public:
    // Any thread. True: the queue was empty, so the loop must be woken.
    template <class Function>
    bool Push(Function&& aFunction) {
        const std::lock_guard guard(m_Mutex);
        m_Tasks.emplace_back(std::forward<Function>(aFunction));
        return m_Tasks.size() == 1;
    }

    // The loop's thread.
    void Run() {
        {
            const std::lock_guard guard(m_Mutex);
            m_Running.swap(m_Tasks);
        }
        for (const std::function<void()>& task : m_Running)
            task();
        m_Running.clear();
    }

private:
    std::mutex m_Mutex;
    std::vector<std::function<void()>> m_Tasks;    // under the mutex
    std::vector<std::function<void()>> m_Running;  // the loop's; keeps its memory from turn to turn
};

}  // namespace bench
