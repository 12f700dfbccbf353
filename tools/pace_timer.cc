#include "tools/pace_timer.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

namespace tool {

namespace {

constexpr int64_t SECOND = 1000000000;

ICmReactor& MainReactor() { return *CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN); }

}  // namespace

int64_t GetNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * SECOND + now.tv_nsec;
}

PaceTimer::PaceTimer(std::function<void()> aDue)
    : m_nFd(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      m_Due(std::move(aDue)),
      m_bRegistered(m_nFd >= 0 && MainReactor().RegisterHandler(this, READ_MASK) == CM_OK) {}

PaceTimer::~PaceTimer() {
    if (m_bRegistered)
        MainReactor().RemoveHandler(this, ALL_EVENTS_MASK);
    if (m_nFd >= 0)
        close(m_nFd);
}

void PaceTimer::CallAt(int64_t aNanoseconds) {
    const int64_t llAt = std::max<int64_t>(aNanoseconds, 1);  // 0 would stop it
    const itimerspec spec{{0, 0}, {llAt / SECOND, llAt % SECOND}};
    timerfd_settime(m_nFd, TFD_TIMER_ABSTIME, &spec, nullptr);
}

int PaceTimer::OnInput(HANDLE) {
    uint64_t ullTimes = 0;
    if (read(m_nFd, &ullTimes, sizeof(ullTimes)) == sizeof(ullTimes))
        m_Due();
    return 0;
}

}  // namespace tool
