// Awaitable types, and a coroutine that runs one of them for an owner.
#pragma once

#include <concepts>
#include <optional>
#include <utility>
#include <variant>

#include "talvo/co/task.h"

namespace talvo::detail {

template <class A>
decltype(auto) awaiter_of(A&& awaitable) {
    if constexpr (requires { std::forward<A>(awaitable).operator co_await(); })
        return std::forward<A>(awaitable).operator co_await();
    else if constexpr (requires { operator co_await(std::forward<A>(awaitable)); })
        return operator co_await(std::forward<A>(awaitable));
    else
        return std::forward<A>(awaitable);
}

// The type of `co_await std::move(awaitable)`.
template <class A>
using await_result_t = decltype(awaiter_of(std::declval<A>()).await_resume());

// The same as a value that can be stored.
template <class T>
using stored_t = std::conditional_t<std::is_void_v<T>, std::monostate, std::remove_cvref_t<T>>;

// Is called when a runner has ended on its own. It may destroy the runner. Not called inside start().
class runner_owner {
public:
    virtual void on_end(std::size_t index) noexcept = 0;

protected:
    ~runner_owner() = default;
};

// Owns a coroutine that awaits something and keeps the outcome. Its destruction cancels that.
template <class T>
class runner {
public:
    class promise_type final : public promise_base {
    public:
        runner get_return_object() noexcept { return runner(std::coroutine_handle<promise_type>::from_promise(*this)); }
        auto final_suspend() noexcept {
            struct end_awaiter {
                bool await_ready() noexcept { return false; }
                TALVO_CO_AWAIT void await_suspend(std::coroutine_handle<promise_type> ended) noexcept {
                    const promise_type& promise = ended.promise();
                    if (promise.owner_)
                        promise.owner_->on_end(promise.index_);  // may destroy the frame
                }
                void await_resume() noexcept {}
            };
            return end_awaiter{};
        }
        void return_value(stored_t<T> value) { value_.emplace(std::move(value)); }

        stored_t<T> take() {
            rethrow();
            return std::move(*value_);
        }

        runner_owner* owner_ = nullptr;  // null inside start()
        std::size_t index_ = 0;

    private:
        std::optional<stored_t<T>> value_;
    };

    runner(runner&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    runner& operator=(runner&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~runner() { cancel(); }

    // true: it has ended inside. Otherwise owner.on_end(index) follows, unless it is destroyed before.
    bool start(runner_owner& owner, std::size_t index) {
        handle_.resume();
        if (handle_.done())
            return true;
        handle_.promise().owner_ = &owner;
        handle_.promise().index_ = index;
        return false;
    }

    bool is_done() const { return handle_ && handle_.done(); }
    stored_t<T> take() { return handle_.promise().take(); }  // the value, or rethrows the exception
    void cancel() noexcept {
        if (const auto old = std::exchange(handle_, nullptr))
            old.destroy();
    }

private:
    explicit runner(std::coroutine_handle<promise_type> handle) noexcept : handle_(handle) {}

    std::coroutine_handle<promise_type> handle_;
};

template <class A>
runner<std::remove_cvref_t<await_result_t<A>>> run(A awaitable) {
    if constexpr (std::is_void_v<await_result_t<A>>) {
        co_await std::move(awaitable);
        co_return std::monostate();
    } else {
        co_return co_await std::move(awaitable);
    }
}

}  // namespace talvo::detail
