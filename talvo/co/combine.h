// Several operations at once, and one with a limit. Each operation is anything that can be awaited, passed as a temporary or
// moved. All of them run in the awaiting thread; those that lose are cancelled before the awaiting coroutine resumes.
#pragma once

#include <array>
#include <cerrno>
#include <functional>
#include <stop_token>
#include <tuple>
#include <variant>
#include <vector>

#include "talvo/co/loop_timer.h"
#include "talvo/co/result.h"
#include "talvo/co/runner.h"
#include "talvo/co/sleep.h"
#include "talvo/co/stop_watch.h"

namespace talvo {

namespace detail {

// Starts operations and resumes the awaiting coroutine when enough of them have ended.
template <class Derived>
class combination : protected runner_owner {
public:
    bool await_ready() const noexcept { return false; }
    TALVO_CO_AWAIT bool await_suspend(std::coroutine_handle<> awaiting) {
        awaiting_ = awaiting;
        return !static_cast<Derived*>(this)->start_all();
    }

protected:
    combination() = default;
    combination(combination&&) noexcept {}  // before it is awaited only
    ~combination() = default;

    std::coroutine_handle<> awaiting_;
};

template <class... T>
class [[nodiscard]] all_awaiter final : public combination<all_awaiter<T...>> {
public:
    explicit all_awaiter(runner<T>... runners) : runners_(std::move(runners)...) {}

    std::tuple<stored_t<T>...> await_resume() {
        return std::apply([](auto&... each) { return std::tuple<stored_t<T>...>{each.take()...}; }, runners_);
    }

private:
    friend combination<all_awaiter>;

    bool start_all() {
        std::size_t ended = 0;
        std::apply([&](auto&... each) { ((ended += each.start(*this, 0)), ...); }, runners_);
        return (left_ -= ended) == 0;
    }
    void on_end(std::size_t) noexcept override {
        if (--left_ == 0)
            this->awaiting_.resume();
    }

    std::tuple<runner<T>...> runners_;
    std::size_t left_ = sizeof...(T);  // that have not ended
};

template <class T>
class [[nodiscard]] all_of_awaiter final : public combination<all_of_awaiter<T>> {
public:
    explicit all_of_awaiter(std::vector<runner<T>> runners) : runners_(std::move(runners)), left_(runners_.size()) {}

    std::vector<stored_t<T>> await_resume() {
        std::vector<stored_t<T>> values;
        values.reserve(runners_.size());
        for (runner<T>& each : runners_)
            values.push_back(each.take());
        return values;
    }

private:
    friend combination<all_of_awaiter>;

    bool start_all() {
        std::size_t ended = 0;
        for (runner<T>& each : runners_)
            ended += each.start(*this, 0);
        return (left_ -= ended) == 0;
    }
    void on_end(std::size_t) noexcept override {
        if (--left_ == 0)
            this->awaiting_.resume();
    }

    std::vector<runner<T>> runners_;
    std::size_t left_;
};

template <class... T>
class [[nodiscard]] any_awaiter final : public combination<any_awaiter<T...>> {
public:
    explicit any_awaiter(runner<T>... runners) : runners_(std::move(runners)...) {}

    std::variant<stored_t<T>...> await_resume() { return take(std::index_sequence_for<T...>()); }

private:
    friend combination<any_awaiter>;

    bool start_all() {
        const bool ended = std::apply(
            [this](auto&... each) {
                std::size_t index = 0;
                return (this->start_one(each, index++) || ...);
            },
            runners_);
        starting_ = false;
        return ended && end_with(winner_);
    }
    template <class Runner>
    bool start_one(Runner& each, std::size_t index) {
        if (each.start(*this, index) && winner_ == NONE)
            winner_ = index;
        return winner_ != NONE;
    }
    // The start of one operation may end an earlier one. The others are cancelled when it has returned.
    void on_end(std::size_t index) noexcept override {
        if (starting_) {
            winner_ = winner_ == NONE ? index : winner_;
            return;
        }
        end_with(index);
        this->awaiting_.resume();
    }
    bool end_with(std::size_t winner) noexcept {
        winner_ = winner;
        std::size_t index = 0;
        std::apply([&](auto&... each) { ((index++ == winner ? void() : each.cancel()), ...); }, runners_);
        return true;
    }
    template <std::size_t... I>
    std::variant<stored_t<T>...> take(std::index_sequence<I...>) {
        std::variant<stored_t<T>...> (*const takes[])(any_awaiter&) = {[](any_awaiter& a) {
            return std::variant<stored_t<T>...>(std::in_place_index<I>, std::get<I>(a.runners_).take());
        }...};
        return takes[winner_](*this);
    }

    std::tuple<runner<T>...> runners_;
    static constexpr std::size_t NONE = sizeof...(T);
    std::size_t winner_ = NONE;
    bool starting_ = true;
};

inline std::error_code cancelled() noexcept { return {ECANCELED, category()}; }

// One operation with a limit.
template <class T>
class [[nodiscard]] limited : public combination<limited<T>>, private loop_timer, private stop_watch {
public:
    limited(runner<T> work, std::optional<std::chrono::nanoseconds> time, std::stop_token token)
        : work_(std::move(work)), time_(time), token_(std::move(token)) {}
    limited(limited&&) = default;  // before it is awaited only

    as_result_t<T> await_resume() {
        if (error_)
            return error_;
        if constexpr (std::is_void_v<T>) {
            work_.take();
            return {};
        } else {
            return work_.take();
        }
    }

private:
    friend combination<limited>;

    bool start_all() {
        if (token_.stop_requested())
            return end_with(cancelled());
        if (work_.start(*this, 0))
            return true;
        const CmResult code = time_ ? loop_timer::start(*time_) : CM_OK;
        if (code != CM_OK)
            return end_with(make_error_code(code));
        watch(token_);
        return false;
    }
    bool end_with(std::error_code error) noexcept {
        error_ = error;
        work_.cancel();
        return true;
    }
    void on_end(std::size_t) noexcept override {
        loop_timer::cancel();
        unwatch();
        this->awaiting_.resume();
    }
    void on_time() override {
        unwatch();
        end_with(make_error_code(CM_ERROR_TIMEOUT));
        this->awaiting_.resume();
    }
    void on_stop() override {
        loop_timer::cancel();
        end_with(cancelled());
        this->awaiting_.resume();
    }

    runner<T> work_;
    std::optional<std::chrono::nanoseconds> time_;  // none: no limit
    std::stop_token token_;
    std::error_code error_;
};

template <class A>
auto limit(A&& operation, std::optional<std::chrono::nanoseconds> time, std::stop_token token) {
    return limited<std::remove_cvref_t<await_result_t<A>>>(run(std::forward<A>(operation)), time, std::move(token));
}

}  // namespace detail

// co_await gives the operation's result, of type result<T>: of a result<T> or of a T. CM_ERROR_TIMEOUT (std::errc::timed_out):
// the time passed first, and the operation was cancelled. Errors of sleep.
//
//    auto message = co_await talvo::with_timeout(3s, peer.receive());
template <class A>
auto with_timeout(std::chrono::nanoseconds time, A&& operation) {
    return detail::limit(std::forward<A>(operation), time, {});
}

// The same without a time: std::errc::operation_canceled: a stop was requested, by any thread, and the operation was cancelled.
template <class A>
auto with_stop(std::stop_token token, A&& operation) {
    return detail::limit(std::forward<A>(operation), std::nullopt, std::move(token));
}

// A sleep that a stop ends.
inline auto sleep(std::chrono::nanoseconds time, std::stop_token token) { return with_stop(std::move(token), sleep(time)); }

// co_await gives a std::tuple of all results when the last operation has ended; std::monostate for void. If operations fail
// with exceptions, it rethrows that of the first argument among them, also when the last one has ended.
template <class... A>
auto when_all(A&&... operations) {
    return detail::all_awaiter<std::remove_cvref_t<detail::await_result_t<A>>...>(detail::run(std::forward<A>(operations))...);
}

// The same for operations of one type, with a std::vector of the results.
template <class A>
auto when_all(std::vector<A> operations) {
    using value = std::remove_cvref_t<detail::await_result_t<A>>;
    std::vector<detail::runner<value>> runners;
    runners.reserve(operations.size());
    for (A& operation : operations)
        runners.push_back(detail::run(std::move(operation)));
    return detail::all_of_awaiter<value>(std::move(runners));
}

// co_await gives a std::variant with the result of the operation that ended first, whose place is index(), or rethrows its
// exception. The other operations were cancelled.
template <class... A>
auto when_any(A&&... operations) {
    return detail::any_awaiter<std::remove_cvref_t<detail::await_result_t<A>>...>(detail::run(std::forward<A>(operations))...);
}

}  // namespace talvo
