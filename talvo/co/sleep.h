// Waits for time.
#pragma once

#include "talvo/co/loop_timer.h"
#include "talvo/co/result.h"
#include "talvo/co/task.h"

namespace talvo {

namespace detail {

class [[nodiscard]] sleep_awaiter final : private loop_timer {
public:
    explicit sleep_awaiter(std::chrono::nanoseconds time) : time_(time) {}
    sleep_awaiter(sleep_awaiter&&) = default;

    bool await_ready() noexcept { return false; }
    TALVO_CO_AWAIT bool await_suspend(std::coroutine_handle<> awaiting) {
        awaiting_ = awaiting;
        code_ = start(time_);
        return code_ == CM_OK;
    }
    result<> await_resume() noexcept { return make_error_code(code_); }

private:
    void on_time() override { awaiting_.resume(); }

    std::chrono::nanoseconds time_;
    CmResult code_ = CM_OK;
    std::coroutine_handle<> awaiting_;
};

}  // namespace detail

// Suspends the coroutine for that time, on the library's clock. Zero or less: until the next turn of the loop, after the events
// that are due. CM_ERROR_NULL_POINTER: the thread has no timers. CM_ERROR_OUT_OF_MEMORY.
//
//    co_await talvo::sleep(200ms);
inline auto sleep(std::chrono::nanoseconds time) { return detail::sleep_awaiter(time); }

}  // namespace talvo
