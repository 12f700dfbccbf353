// Threads that wait on a condition variable, and for nothing else.
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "benchmarks/threads/threads.h"

namespace {

class CCondvarLoop {
public:
    explicit CCondvarLoop(int aCore)
        : m_Thread([this, aCore] {
              bench::PinThisThread(aCore);
              while (!m_bStopped)
                  Take()();
          }) {}
    ~CCondvarLoop() {
        Post([this] { m_bStopped = true; });
        m_Thread.join();
    }
    CCondvarLoop(const CCondvarLoop&) = delete;
    CCondvarLoop& operator=(const CCondvarLoop&) = delete;

    template <class Function>
    void Post(Function&& aFunction) {
        {
            const std::lock_guard guard(m_Mutex);
            m_Tasks.emplace_back(std::forward<Function>(aFunction));
        }
        m_Condition.notify_one();
    }

private:
    std::function<void()> Take() {
        std::unique_lock lock(m_Mutex);
        m_Condition.wait(lock, [this] { return !m_Tasks.empty(); });
        std::function<void()> task = std::move(m_Tasks.front());
        m_Tasks.pop_front();
        return task;
    }

    std::mutex m_Mutex;
    std::condition_variable m_Condition;
    std::deque<std::function<void()>> m_Tasks;  // under the mutex
    bool m_bStopped = false;                    // its own thread's
    std::thread m_Thread;
};

}  // namespace

int main() { return bench::RunThreads<CCondvarLoop>(); }
