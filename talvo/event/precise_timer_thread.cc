#include "talvo/event/precise_timer_thread.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <ctime>
#include <iterator>
#include <utility>

namespace talvo {

namespace {

constexpr long BEAT_NSEC = 10'000'000;
constexpr long SECOND_NSEC = 1'000'000'000;

// The next multiple of the beat on the system's monotonic clock.
timespec NextBeat() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long lNext = (now.tv_nsec / BEAT_NSEC + 1) * BEAT_NSEC;
    return {now.tv_sec + lNext / SECOND_NSEC, lNext % SECOND_NSEC};
}

}  // namespace

CPreciseTimerThread::CPreciseTimerThread(std::function<void(uint64_t)> aOnBeat)
    : m_OnBeat(std::move(aOnBeat)),
      m_nTimer(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      m_nStop(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

CPreciseTimerThread::~CPreciseTimerThread() {
    m_bStopped = true;
    if (m_bStarted) {
        eventfd_write(m_nStop, 1);
        pthread_join(m_Thread, nullptr);
    }
    for (const int nFd : {m_nTimer, m_nStop})
        if (nFd >= 0)
            close(nFd);
}

BOOL CPreciseTimerThread::Start() {
    const auto run = [](void* aThread) -> void* {
        static_cast<CPreciseTimerThread*>(aThread)->Run_i();
        return nullptr;
    };
    m_bStarted = m_nTimer >= 0 && m_nStop >= 0 && pthread_create(&m_Thread, nullptr, run, this) == 0;
    return m_bStarted;
}

void CPreciseTimerThread::Beat(BOOL aBeat) {
    const itimerspec spec = aBeat ? itimerspec{{0, BEAT_NSEC}, NextBeat()} : itimerspec{};
    timerfd_settime(m_nTimer, TFD_TIMER_ABSTIME, &spec, nullptr);
}

void CPreciseTimerThread::Run_i() {
    pollfd fds[] = {{m_nTimer, POLLIN, 0}, {m_nStop, POLLIN, 0}};
    while (!m_bStopped) {
        poll(fds, std::size(fds), -1);
        uint64_t ullBeats = 0;
        if (read(m_nTimer, &ullBeats, sizeof ullBeats) == sizeof ullBeats)
            m_OnBeat(ullBeats);
    }
}

}  // namespace talvo
