// Work in other threads of the library.
#pragma once

#include "talvo/co/combine.h"
#include "talvo/co/far_call.h"
#include "talvo/co/user_thread.h"

namespace talvo {

// A thread with a loop of its own, for coroutines and connections that live there. Made and destroyed in one thread, after the
// application and before it. The destruction stops the loop, so that no task is resumed there, and waits at most 100 ms for the
// thread. A function that takes longer continues, and the thread ends by itself.
class thread final : private detail::user_thread {
public:
    using user_thread::error;          // CM_ERROR_UNEXPECTED: the system has no thread. CM_ERROR_OUT_OF_MEMORY
    using user_thread::native;         // the library's type; null: it has not started
    using user_thread::operator bool;  // it has started
};

namespace detail {

// The value that a callable gives in the end: that of its task, or its own.
template <class R>
constexpr bool can_await = requires(R (*make)()) {
    awaiter_of(make()).await_resume();
};
template <>
inline constexpr bool can_await<void> = false;
template <class F>
constexpr bool makes_task = can_await<std::invoke_result_t<F&>>;
template <class R, bool Task>
struct outcome_of {
    using type = far_value_t<R>;
};
template <class R>
struct outcome_of<R, true> {
    using type = far_value_t<await_result_t<R>>;
};
template <class F>
using outcome_of_t = typename outcome_of<std::invoke_result_t<F&>, makes_task<F>>::type;

// The callable and its task live in the other thread, and end there: with the task, by a cancellation, or with the thread.
template <class F>
class thread_call final : public far_call, private runner_owner, private CCmThreadTenant {
public:
    using value = outcome_of_t<F>;

    thread_call(ACmThread* thread, F work) : link_(thread ? &thread->GetLink() : nullptr), work_(std::move(work)) {}

    bool begin() {
        if (!link_)
            return false;
        start_.post(link_);
        return true;
    }
    // A call that has ended ignores it.
    void cancel() { cancel_.post(link_); }
    as_result_t<value> take() { return outcome_.take(); }

private:
    void run_here() {
        if (is_abandoned())
            return end();
        if constexpr (makes_task<F>) {
            JoinCurrentThread();
            outcome_of_start();
        } else {
            outcome_.set([this]() -> decltype(auto) { return (*work_)(); });
            finish();
        }
    }

    void outcome_of_start() {
        try {
            runner_.emplace(run((*work_)()));
            if (runner_->start(*this, 0))
                on_end(0);
        } catch (...) {
            outcome_.set([]() -> value { throw; });
            finish();
        }
    }

    void on_end(std::size_t) noexcept override {
        outcome_.set([this]() -> value {
            if constexpr (std::is_void_v<value>)
                runner_->take();
            else
                return runner_->take();
        });
        finish();
    }

    void finish() {
        end();
        answer();
    }
    void end() {
        LeaveThread();
        runner_.reset();
        work_.reset();
    }
    void cancel_here() {
        if (runner_)
            end();
    }
    void OnThreadEnd() override { finish(); }
    void never_begun() { answer(); }

    const CCmRefPtrT<CCmThreadLink> link_;
    std::optional<F> work_;  // outlives its coroutine
    std::optional<runner<value>> runner_;
    far_outcome<value> outcome_;
    step start_{*this, static_cast<step::function>(&thread_call::run_here),
                static_cast<step::function>(&thread_call::never_begun)};
    step cancel_{*this, static_cast<step::function>(&thread_call::cancel_here), nullptr};
};

}  // namespace detail

// Calls work in that thread; if it makes a task, runs the task there. co_await gives its value as a result<T>, in the awaiting
// thread, and rethrows its exception. What work holds is destroyed in that thread, also if the awaiting coroutine is destroyed
// first. The value passes between the threads; of a reference it is a copy. CM_ERROR_NOT_AVAILABLE: the thread has ended. With
// a stop token also std::errc::operation_canceled; a task ends in its thread then. GCC 12 needs a name for work with captures
// that have destructors; a copy of it is called, or it is moved.
//
//    talvo::thread other;
//    const auto work = [name] { return read_lines(name); };
//    auto lines = co_await talvo::on(other, work);
template <class F>
auto on(ACmThread* where, F&& work) {
    return detail::far_awaiter(new detail::thread_call<std::decay_t<F>>(where, detail::take_work(std::forward<F>(work))));
}
// Likewise.
template <class F>
auto on(const thread& where, F&& work) {
    return on(where.native(), std::forward<F>(work));
}
// Likewise; where is a thread or an ACmThread*.
template <class Thread, class F>
auto on(const Thread& where, F&& work, std::stop_token token) {
    return with_stop(std::move(token), on(where, std::forward<F>(work)));
}

}  // namespace talvo
