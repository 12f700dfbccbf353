// The thread with the beat of the precise timers.
#pragma once

#include <pthread.h>

#include <atomic>
#include <functional>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// Waits for an absolute timer of the system every 10 ms while it beats, and without wake-ups while it does not. A plain thread,
// not one of the thread manager's: StopAllThreads and JoinAllThreads would end the beat before the threads that use it, and the
// end of any of those may end it, even while JoinAllThreads waits.
class TALVO_API CPreciseTimerThread final {
public:
    // aOnBeat: called in this thread with the number of beats since the last call.
    explicit CPreciseTimerThread(std::function<void(uint64_t)> aOnBeat);
    // Ends the thread and waits for its end.
    ~CPreciseTimerThread();
    CPreciseTimerThread(const CPreciseTimerThread&) = delete;
    CPreciseTimerThread& operator=(const CPreciseTimerThread&) = delete;

    // Once. FALSE: no descriptor or no thread is left.
    BOOL Start();
    // Any thread, one at a time.
    void Beat(BOOL aBeat);

private:
    void Run_i();

    const std::function<void(uint64_t)> m_OnBeat;
    const int m_nTimer;
    const int m_nStop;
    pthread_t m_Thread{};
    BOOL m_bStarted = FALSE;
    std::atomic<bool> m_bStopped{false};
};

}  // namespace talvo
