// A call that runs in another thread for an awaiting coroutine. Not for applications.
#pragma once

#include <atomic>
#include <exception>
#include <optional>

#include "talvo/co/result.h"
#include "talvo/co/runner.h"
#include "talvo/co/stop_watch.h"
#include "talvo/co/stream.h"

namespace talvo::detail {

// Shared by the awaiting coroutine, the other thread and the queues between them. A derived class runs the work and calls
// answer(); the answer then resumes the coroutine in its own thread, unless that coroutine was destroyed. No memory is needed
// after the construction.
class far_call {
public:
    void add_reference() noexcept { ++references_; }
    void release() noexcept {
        if (--references_ == 0)
            delete this;
    }

    // In the thread of the coroutine.
    void await(std::coroutine_handle<> awaiting) noexcept { awaiting_ = awaiting; }
    void abandon() noexcept {
        awaiting_ = nullptr;
        abandoned_ = true;
    }

protected:
    // A step of the call in one of the threads. It keeps the call while it is in a queue.
    class step final : public ICmEvent {
    public:
        using function = void (far_call::*)();

        // lost: called instead of run if the thread ends first; may be null.
        step(far_call& call, function run, function lost) noexcept : call_(call), run_(run), lost_(lost) {}

        // The call may have ended in the other thread before the return.
        void post(CCmRefPtrT<CCmThreadLink> link) {
            call_.add_reference();
            if (link)
                link->PostEvent(this);
            else
                OnDestorySelf();
        }

    private:
        CmResult OnEventFire() override {
            (call_.*std::exchange(run_, nullptr))();
            return CM_OK;
        }
        void OnDestorySelf() override {
            if (run_ && lost_)
                (call_.*lost_)();
            call_.release();
        }

        far_call& call_;
        function run_;
        const function lost_;
    };

    far_call() : home_(current_link()) {}
    virtual ~far_call() = default;

    // In any thread, once, after the outcome is complete.
    void answer() { answer_.post(home_); }
    bool is_abandoned() const noexcept { return abandoned_; }

private:
    void resume() {
        if (awaiting_)
            std::exchange(awaiting_, nullptr).resume();
    }

    const CCmRefPtrT<CCmThreadLink> home_;
    step answer_{*this, &far_call::resume, nullptr};
    std::coroutine_handle<> awaiting_;  // used in its own thread only
    std::atomic<bool> abandoned_{false};
    std::atomic<int> references_{1};
};

// GCC 12 destroys the captures of a lambda twice if it is made inside an awaiting expression.
template <class F>
constexpr void check_work() {
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ < 13
    static_assert(std::is_lvalue_reference_v<F> || std::is_trivially_destructible_v<F>,
                  "GCC 12 destroys this lambda twice: name it before the awaiting expression, and pass the name");
#endif
}
// Work from a name is copied, or moved if it cannot be copied.
template <class F>
auto take_work(F&& work) {
    check_work<F>();
    if constexpr (std::is_copy_constructible_v<std::decay_t<F>>)
        return std::decay_t<F>(std::forward<F>(work));
    else
        return std::decay_t<F>(std::move(work));
}

// The value that passes between the threads for a result of type R: a copy of what a reference refers to.
template <class R>
struct far_value {
    static_assert(std::is_void_v<R> || std::is_constructible_v<std::remove_cvref_t<R>, R>,
                  "the work returns a reference to an object that cannot be copied for the other thread");
    using type = std::remove_cvref_t<R>;
};
template <class R>
using far_value_t = typename far_value<R>::type;

// The outcome of a call, written before answer() and read behind it.
template <class T>
class far_outcome {
public:
    template <class F>
    void set(F&& make) noexcept {
        try {
            if constexpr (std::is_void_v<T>) {
                make();
                value_.emplace();
            } else {
                value_.emplace(make());
            }
        } catch (...) {
            exception_ = std::current_exception();
        }
    }
    // Without a value and an exception: the thread has ended.
    as_result_t<T> take() {
        if (exception_)
            std::rethrow_exception(exception_);
        if (!value_)
            return make_error_code(CM_ERROR_NOT_AVAILABLE);
        if constexpr (std::is_void_v<T>)
            return {};
        else
            return std::move(*value_);
    }

private:
    std::optional<stored_t<T>> value_;
    std::exception_ptr exception_;
};

// Awaits a call. Call has begin(), which gives false if the call cannot begin, cancel() and take().
template <class Call>
class [[nodiscard]] far_awaiter {
public:
    explicit far_awaiter(Call* call) noexcept : call_(call) {}
    far_awaiter(far_awaiter&& other) noexcept : call_(std::exchange(other.call_, nullptr)) {}
    ~far_awaiter() {
        if (!call_)
            return;
        if (begun_) {
            call_->abandon();
            call_->cancel();
        }
        call_->release();
    }

    bool await_ready() {
        loan_scope::end_all();
        begun_ = call_->begin();
        return !begun_;
    }
    void await_suspend(std::coroutine_handle<> awaiting) noexcept { call_->await(awaiting); }
    auto await_resume() {
        begun_ = false;
        return call_->take();
    }

private:
    Call* call_;
    bool begun_ = false;  // the answer is due
};

}  // namespace talvo::detail
