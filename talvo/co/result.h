// A value, or the error that took its place.
#pragma once

#include <optional>
#include <system_error>
#include <type_traits>
#include <utility>

#include "talvo/base/error_category.h"

// Names in lower case are for applications; classes that begin with C, I or A are parts of the library.
namespace talvo {

template <class T = void>
class result;

namespace detail {

template <class T>
constexpr bool is_result = false;
template <class T>
constexpr bool is_result<result<T>> = true;

}  // namespace detail

// The outcome of an operation: a value; or an error; or neither, with an error of 0, which is an orderly end. Errors of the
// library are of category() and compare with std::errc. Any thread, like the value itself.
//
//    auto message = co_await peer.receive();
//    if (!message && message.error() == std::errc::timed_out) ...
template <class T>
class result {
public:
    using value_type = T;  // of the value

    result() noexcept = default;  // an orderly end
    // An error; 0: an orderly end.
    result(std::error_code error) noexcept : error_(error) {}
    // A value, from anything that converts to one.
    template <class U = T>
    requires(std::is_constructible_v<T, U&&> && !detail::is_result<std::remove_cvref_t<U>> &&
             !std::is_same_v<std::remove_cvref_t<U>, std::error_code>) result(U&& value)
        : value_(std::in_place, std::forward<U>(value)) {}
    // The value or the error of a result of another type.
    template <class U>
    requires(!std::is_same_v<T, U> && std::is_constructible_v<T, const U&>) result(const result<U>& other)
        : error_(other.error()) {
        if (other)
            value_.emplace(*other);
    }

    // There is a value.
    bool has_value() const noexcept { return value_.has_value(); }
    explicit operator bool() const noexcept { return has_value(); }
    std::error_code error() const noexcept { return error_; }  // 0 with a value, and at an orderly end

    // Undefined without a value, as with std::optional.
    T& operator*() & noexcept { return *value_; }
    const T& operator*() const& noexcept { return *value_; }
    T&& operator*() && noexcept { return std::move(*value_); }
    T* operator->() noexcept { return &*value_; }
    const T* operator->() const noexcept { return &*value_; }

    // Throws std::system_error without a value; at an orderly end its code is 0.
    T& value() & { return check(), *value_; }
    const T& value() const& { return check(), *value_; }
    T&& value() && { return check(), std::move(*value_); }

    // The value, or other without one.
    template <class U>
    T value_or(U&& other) const& {
        return value_ ? *value_ : static_cast<T>(std::forward<U>(other));
    }
    template <class U>
    T value_or(U&& other) && {
        return value_ ? std::move(*value_) : static_cast<T>(std::forward<U>(other));
    }

private:
    void check() const {
        if (!value_)
            throw std::system_error(error_, error_ ? "talvo" : "talvo: the end");
    }

    std::optional<T> value_;
    std::error_code error_;
};

// Success, or an error.
template <>
class result<void> {
public:
    using value_type = void;  // there is no value

    result() noexcept = default;                               // success
    result(std::error_code error) noexcept : error_(error) {}  // 0: success

    // Success.
    bool has_value() const noexcept { return !error_; }
    explicit operator bool() const noexcept { return has_value(); }
    std::error_code error() const noexcept { return error_; }  // 0: success
    // Throws std::system_error with an error.
    void value() const {  // throws std::system_error with an error
        if (error_)
            throw std::system_error(error_, "talvo");
    }

private:
    std::error_code error_;
};

namespace detail {

// The result of an operation that adds its own errors to those of T: result<T>, and a result stays as it is.
template <class T>
struct as_result {
    using type = result<T>;
};
template <class T>
struct as_result<result<T>> {
    using type = result<T>;
};
template <class T>
using as_result_t = typename as_result<T>::type;

}  // namespace detail
}  // namespace talvo
