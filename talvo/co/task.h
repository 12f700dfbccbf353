// The coroutine type of this layer.
#pragma once

#include <coroutine>
#include <exception>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "talvo/co/frame_store.h"

// Clang before 17 may keep locals of an inlined await_suspend in the frame, which that function can have given away.
#if defined(__clang__) && __clang_major__ < 17
#define TALVO_CO_AWAIT [[gnu::noinline]]
#else
#define TALVO_CO_AWAIT
#endif

namespace talvo {

template <class T>
class task;

namespace detail {

// The common part of all promises: the frame's memory, a lazy start, and an end that resumes the awaiting coroutine.
class promise_base {
public:
    static void* operator new(std::size_t size) { return frame_store::allocate(size); }
    static void operator delete(void* memory, std::size_t size) noexcept { frame_store::release(memory, size); }

    std::suspend_always initial_suspend() noexcept { return {}; }

    void unhandled_exception() noexcept { exception_ = std::current_exception(); }

    // Null while the awaiting coroutine still runs: a task that ends then completes without a resumption, so that a loop of
    // such tasks needs no stack.
    std::coroutine_handle<> continuation_;

protected:
    struct final_awaiter {
        bool await_ready() noexcept { return false; }
        template <class Promise>
        TALVO_CO_AWAIT void await_suspend(std::coroutine_handle<Promise> ended) noexcept {
            if (const std::coroutine_handle<> continuation = ended.promise().continuation_)
                continuation.resume();  // destroys the ended frame
        }
        void await_resume() noexcept {}
    };

    void rethrow() {
        if (exception_)
            std::rethrow_exception(std::move(exception_));
    }

public:
    final_awaiter final_suspend() noexcept { return {}; }

private:
    std::exception_ptr exception_;
};

// GCC 12 lays out the frame of a coroutine wrongly if the outermost block of the function declares no variable and the
// condition of an `if` or a `while` in it awaits. Such a frame is noticed here, before it runs.
template <class Promise>
std::coroutine_handle<Promise> handle_of(Promise& promise) {
    const auto handle = std::coroutine_handle<Promise>::from_promise(promise);
#ifndef __clang__
    if (handle.address() != frame_store::newest())
        throw std::logic_error("talvo: miscompiled by GCC 12: name the result of co_await before an if or a while tests it");
#endif
    return handle;
}

template <class T>
class task_promise final : public promise_base {
public:
    task<T> get_return_object();
    template <class U = T>
    void return_value(U&& value) {
        value_.emplace(std::forward<U>(value));
    }
    T take() {
        rethrow();
        if (!value_)
            throw std::logic_error("talvo: a task has ended without the value of its type");
        return std::move(*value_);
    }

private:
    std::optional<T> value_;
};

template <>
class task_promise<void> final : public promise_base {
public:
    task<void> get_return_object();
    void return_void() noexcept {}
    void take() { rethrow(); }
};

}  // namespace detail

// A coroutine that returns a T. It does nothing until it is awaited, once; its exception is rethrown there, and
// std::logic_error if its body ends without a `co_return value`. A task and all that it awaits stay in the thread that awaits
// it. Destroying a task cancels the operation that it waits for and destroys its locals, at once; not from inside the task
// itself.
//
//    talvo::task<int> add(talvo::connection& peer);
//    const int sum = co_await add(peer);
//
// The compiler warns of a task, and of every other operation here, that is neither awaited nor kept.
template <class T = void>
class [[nodiscard]] task {
public:
    using promise_type = detail::task_promise<T>;  // for the compiler

    // The coroutine moves; the other task is empty then.
    task(task&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)), started_(other.started_) {}
    task& operator=(task&& other) noexcept {
        task taken(std::move(other));
        std::swap(handle_, taken.handle_);
        std::swap(started_, taken.started_);
        return *this;
    }
    ~task() {
        if (handle_)
            handle_.destroy();
    }

    // Throws std::logic_error if the task was moved away or has been awaited before.
    bool await_ready() const {
        if (!handle_ || started_)
            throw std::logic_error("talvo: a task can be awaited once");
        return false;
    }
    TALVO_CO_AWAIT bool await_suspend(std::coroutine_handle<> awaiting) {
        started_ = true;
        handle_.resume();
        if (handle_.done())
            return false;
        handle_.promise().continuation_ = awaiting;
        return true;
    }
    T await_resume() { return handle_.promise().take(); }

private:
    friend promise_type;
    explicit task(std::coroutine_handle<promise_type> handle) noexcept : handle_(handle) {}

    std::coroutine_handle<promise_type> handle_;
    bool started_ = false;
};

namespace detail {

template <class T>
task<T> task_promise<T>::get_return_object() {
    return task<T>(handle_of(*this));
}
inline task<void> task_promise<void>::get_return_object() { return task<void>(handle_of(*this)); }

}  // namespace detail

}  // namespace talvo
