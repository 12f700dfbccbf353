// Tasks that run at the same time.
#pragma once

#include <algorithm>
#include <functional>
#include <stop_token>

#include "talvo/co/combine.h"
#include "talvo/co/loop_timer.h"
#include "talvo/co/runner.h"

namespace talvo {

// Runs tasks beside its owner, all in the thread of the owner. Its destruction cancels those that have not ended, in any order.
// Not from inside one of them.
//
//    talvo::task_group group;
//    for (const std::string& url : urls) {
//        co_await group.below(100);
//        group.spawn(fetch(url));
//    }
//    co_await group.all();
class task_group {
public:
    // Gets the exception of each task that fails, in the thread of the group; must not throw. Without one the first
    // exception is rethrown by all(), and others are dropped.
    explicit task_group(std::function<void(std::exception_ptr)> handler = {}) : handler_(std::move(handler)) {}
    task_group(const task_group&) = delete;
    task_group& operator=(const task_group&) = delete;
    ~task_group() { cancel(); }

    // Starts the task at once, until it first waits. Throws std::bad_alloc.
    void spawn(task<> work) {
        node added = run_node(*this, std::move(work));
        added.insert();
    }

    // Passes on an exception as that of a task: of the code that would have made one. In the thread of the group.
    void fail(std::exception_ptr exception) noexcept {
        if (handler_)
            handler_(std::move(exception));
        else if (!exception_)
            exception_ = std::move(exception);
    }

    // The tasks that have not ended.
    std::size_t size() const noexcept { return size_; }

    // co_await resumes from the loop as soon as fewer than that many tasks run, at least 1; at once if they do already. Several
    // coroutines may wait.
    auto below(std::size_t count) { return wait_awaiter(*this, std::max<std::size_t>(count, 1), false); }
    // co_await resumes when all tasks have ended, and rethrows as above.
    auto all() { return wait_awaiter(*this, 1, true); }
    // The same with a stop token give a result<>: std::errc::operation_canceled. The tasks continue.
    auto below(std::size_t count, std::stop_token token) { return with_stop(std::move(token), below(count)); }
    auto all(std::stop_token token) { return with_stop(std::move(token), all()); }

    // Asks the tasks to end: those that observe the token.
    void request_stop() { stop_.request_stop(); }
    std::stop_token stop_token() const { return stop_.get_token(); }

    // Destroys all tasks now.
    void cancel() noexcept {
        while (first_)
            first_->erase();
    }

private:
    // The frame of a spawned task: a link of the group's list.
    class node {
    public:
        class promise_type final : public detail::promise_base {
        public:
            promise_type(task_group& group, task<>&) : group_(group) {}
            node get_return_object() noexcept { return {*this}; }
            void return_void() noexcept {}
            void unhandled_exception() noexcept { group_.fail(std::current_exception()); }
            auto final_suspend() noexcept {
                struct end_awaiter {
                    bool await_ready() noexcept { return false; }
                    TALVO_CO_AWAIT void await_suspend(std::coroutine_handle<promise_type> ended) noexcept {
                        ended.promise().erase();
                    }
                    void await_resume() noexcept {}
                };
                return end_awaiter{};
            }
            // Destroys the frame.
            void erase() noexcept {
                task_group& group = group_;
                (previous_ ? previous_->next_ : group.first_) = next_;
                if (next_)
                    next_->previous_ = previous_;
                --group.size_;
                std::coroutine_handle<promise_type>::from_promise(*this).destroy();
                group.wake();
            }

            task_group& group_;
            promise_type* next_ = nullptr;
            promise_type* previous_ = nullptr;
        };

        void insert() {
            task_group& group = promise_.group_;
            promise_.next_ = group.first_;
            if (group.first_)
                group.first_->previous_ = &promise_;
            group.first_ = &promise_;
            ++group.size_;
            std::coroutine_handle<promise_type>::from_promise(promise_).resume();
        }

        promise_type& promise_;
    };

    static node run_node(task_group&, task<> work) { co_await work; }

    class [[nodiscard]] wait_awaiter final : private detail::loop_timer {
    public:
        wait_awaiter(task_group& group, std::size_t count, bool rethrows) : group_(group), count_(count), rethrows_(rethrows) {}
        wait_awaiter(wait_awaiter&&) = default;  // before it is awaited only
        ~wait_awaiter() override {
            for (wait_awaiter** link = &group_.waiters_; *link; link = &(*link)->next_) {
                if (*link == this) {
                    *link = next_;
                    return;
                }
            }
        }

        bool await_ready() const noexcept { return group_.size_ < count_; }
        void await_suspend(std::coroutine_handle<> awaiting) noexcept {
            awaiting_ = awaiting;
            next_ = std::exchange(group_.waiters_, this);
        }
        void await_resume() {
            if (rethrows_ && group_.exception_)
                std::rethrow_exception(std::exchange(group_.exception_, nullptr));
        }

    private:
        friend class task_group;
        // The condition may have changed since the wake-up.
        void on_time() override {
            if (await_ready())
                awaiting_.resume();
        }

        task_group& group_;
        std::size_t count_;
        bool rethrows_;
        wait_awaiter* next_ = nullptr;
        std::coroutine_handle<> awaiting_;
    };

    // From the loop, because a task may end inside a call of another one.
    void wake() noexcept {
        for (wait_awaiter* waiter = waiters_; waiter; waiter = waiter->next_) {
            if (waiter->await_ready())
                waiter->start_soon();
        }
    }

    std::function<void(std::exception_ptr)> handler_;
    std::exception_ptr exception_;  // the first one, without a handler
    std::stop_source stop_;
    node::promise_type* first_ = nullptr;
    std::size_t size_ = 0;
    wait_awaiter* waiters_ = nullptr;
};

}  // namespace talvo
