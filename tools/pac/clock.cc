#include "tools/pac/clock.h"

#include <sys/time.h>

#include <cstdlib>

namespace pac {

namespace {

int64_t s_llOffset = 0;  // from the monotonic clock to the script's, microseconds

int64_t GetMonotonicUsec() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

}  // namespace

void SetClock(int64_t aUsec, const std::string& aZone) {
    s_llOffset = aUsec - GetMonotonicUsec();
    setenv("TZ", aZone.empty() ? "UTC0" : aZone.c_str(), 1);
    tzset();
}

tm GetTime(bool aInUtc) {
    const auto seconds = static_cast<time_t>((GetMonotonicUsec() + s_llOffset) / 1'000'000);
    tm time{};
    if (aInUtc)
        gmtime_r(&seconds, &time);
    else
        localtime_r(&seconds, &time);
    return time;
}

}  // namespace pac

// The engine calls this function for its Date, and finds it here before that of the C library.
extern "C" [[gnu::visibility("default")]] int gettimeofday(timeval* aTime, void*) noexcept {
    const int64_t llUsec = pac::GetMonotonicUsec() + pac::s_llOffset;
    aTime->tv_sec = static_cast<time_t>(llUsec / 1'000'000);
    aTime->tv_usec = static_cast<suseconds_t>(llUsec % 1'000'000);
    return 0;
}
