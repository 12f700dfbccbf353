// A plain queue under a mutex, whose thread sleeps in epoll until an eventfd wakes it: the floor of a thread that may also have
// sockets. The queue holds tasks by value; a post wakes the thread only if the queue was empty.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <mutex>
#include <thread>
#include <type_traits>
#include <vector>

#include "benchmarks/threads/threads.h"

namespace {

struct CTask {
    static constexpr size_t ROOM = 64;

    void (*m_pRun)(const void*);
    alignas(std::max_align_t) std::byte m_Function[ROOM];
};

class CEventfdLoop {
public:
    explicit CEventfdLoop(int aCore) {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        if (epoll_ctl(m_Epoll, EPOLL_CTL_ADD, m_Wake, &event) == -1)
            bench::Fail("epoll_ctl");
        m_Thread = std::thread([this, aCore] {
            bench::PinThisThread(aCore);
            while (!m_bStopped)
                RunTasks();
        });
    }
    ~CEventfdLoop() {
        Post([this] { m_bStopped = true; });
        m_Thread.join();
        close(m_Wake);
        close(m_Epoll);
    }
    CEventfdLoop(const CEventfdLoop&) = delete;
    CEventfdLoop& operator=(const CEventfdLoop&) = delete;

    template <class Function>
    void Post(Function aFunction) {
        static_assert(sizeof(Function) <= CTask::ROOM && std::is_trivially_copyable_v<Function>);
        bool bWasEmpty;
        {
            const std::lock_guard guard(m_Mutex);
            bWasEmpty = m_Tasks.empty();
            CTask& task = m_Tasks.emplace_back();
            task.m_pRun = [](const void* aTask) { (*static_cast<const Function*>(aTask))(); };
            std::memcpy(task.m_Function, &aFunction, sizeof(Function));
        }
        const uint64_t ullOne = 1;
        if (bWasEmpty && write(m_Wake, &ullOne, sizeof(ullOne)) == -1)
            bench::Fail("write to an eventfd");
    }

private:
    void RunTasks() {
        epoll_event event;
        epoll_wait(m_Epoll, &event, 1, -1);
        {
            const std::lock_guard guard(m_Mutex);
            m_Running.swap(m_Tasks);
        }
        for (const CTask& task : m_Running)
            task.m_pRun(task.m_Function);
        m_Running.clear();
    }

    const int m_Epoll = epoll_create1(EPOLL_CLOEXEC);
    const int m_Wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::mutex m_Mutex;
    std::vector<CTask> m_Tasks;    // under the mutex
    std::vector<CTask> m_Running;  // the loop's; keeps its memory from turn to turn
    bool m_bStopped = false;       // its own thread's
    std::thread m_Thread;
};

}  // namespace

int main() { return bench::RunThreads<CEventfdLoop>(); }
