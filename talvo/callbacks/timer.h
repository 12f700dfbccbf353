// Timers with callbacks.
#pragma once

#include "talvo/callbacks/callable.h"
#include "talvo/callbacks/home.h"
#include "talvo/co/loop_timer.h"

namespace talvo {
inline namespace callbacks {

namespace impl {

// The state of a timer.
class alarm final : public resident, private CCmTimerWrapperIDSink {
public:
    template <class Function>
    CmResult start(std::chrono::nanoseconds time, uint32_t count, Function function) {
        if (has_home() && !is_home())
            return CM_ERROR_FAILURE;
        const CmResult code = timer_.Schedule(this, talvo::detail::time_of(time), count);
        if (code != CM_OK && code != CM_ERROR_FOUND)
            return code;
        function_ = std::move(function);
        running_ = true;
        once_ = count == 1;
        return CM_OK;
    }
    void cancel() {
        if (has_home() && !is_home())
            return;
        abandon();
    }
    bool is_running() const noexcept { return running_; }

    void abandon() override {
        timer_.Cancel();
        running_ = false;
        function_.clear();
    }

private:
    ~alarm() override = default;

    // The callable may start the timer again, which replaces it.
    void OnTimer(CCmTimerWrapperID*) override {
        const CCmRefPtrT<alarm> guard(this);
        const callable<> function = function_;
        if (once_) {
            running_ = false;
            function_.clear();
        }
        if (const call_scope scope(*this); scope)
            function();
    }

    void OnThreadEnd() override {
        const CCmRefPtrT<alarm> guard(this);
        running_ = false;
        function_.clear();
    }

    CCmTimerWrapperID timer_;
    callable<> function_;
    bool running_ = false;
    bool once_ = true;
};

}  // namespace impl

// Calls a function from the loop of the thread that starts it, on the library's clock. Never early. Its destruction cancels it,
// also inside the function; so does the end of the thread.
//
//    talvo::timer retry;
//    retry.after(200ms, [&] { connect(); });
class timer {
public:
    timer() noexcept = default;

    // Both replace a running timer. CM_ERROR_NULL_POINTER: the thread has no timers of the library. CM_ERROR_INVALID_ARG: every
    // with a period below a microsecond. CM_ERROR_OUT_OF_MEMORY. CM_ERROR_FAILURE: it was started in another thread, or
    // before the end of this one.
    template <class Function>
    std::error_code after(std::chrono::nanoseconds time, Function function) {
        return start(time, 1, std::move(function));
    }
    template <class Function>
    std::error_code every(std::chrono::nanoseconds period, Function function) {
        return start(period, 0, std::move(function));
    }

    // No call follows. In another thread than that of the start it has no effect.
    void cancel() {
        if (alarm_)
            alarm_->cancel();
    }
    bool is_running() const noexcept { return alarm_ && alarm_->is_running(); }

private:
    template <class Function>
    std::error_code start(std::chrono::nanoseconds time, uint32_t count, Function function) {
        if (!alarm_)
            alarm_ = impl::handle<impl::alarm>(new impl::alarm);
        return make_error_code(alarm_->start(time, count, std::move(function)));
    }

    impl::handle<impl::alarm> alarm_;
};

}  // namespace callbacks
}  // namespace talvo
