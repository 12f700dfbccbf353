// The timer of an awaiting coroutine.
#pragma once

#include <chrono>

#include "talvo/event/timer_wrapper_id.h"

namespace talvo::detail {

// Never early: microseconds, rounded up. More than 68 years is the longest time.
inline CCmTimeValue time_of(std::chrono::nanoseconds time) {
    return CCmTimeValue::FromUsec(std::chrono::ceil<std::chrono::microseconds>(time).count());
}

// Calls its owner from the loop of the thread that starts it: after a time, or in the next turn of the loop. Destroying it
// cancels it. After the end of the thread no call comes.
class loop_timer : private CCmTimerWrapperIDSink {
public:
    loop_timer() = default;
    // Before start() only: a started timer has its place.
    loop_timer(loop_timer&&) noexcept {}

    // The result is that of CCmTimerWrapperID::Schedule, with CM_OK for a replaced timer.
    CmResult start(std::chrono::nanoseconds time) {
        const CmResult code = timer_.Schedule(this, time_of(time), 1);
        return code == CM_ERROR_FOUND ? CM_OK : code;
    }
    CmResult start_soon() { return start(std::chrono::nanoseconds(0)); }
    void cancel() { timer_.Cancel(); }

protected:
    ~loop_timer() override = default;
    virtual void on_time() = 0;

private:
    void OnTimer(CCmTimerWrapperID*) override { on_time(); }

    CCmTimerWrapperID timer_;
};

}  // namespace talvo::detail
