// The callables of an application. Not for applications.
#pragma once

#include <cstdint>
#include <type_traits>
#include <utility>

#include "talvo/base/ref_ptr.h"

namespace talvo {
inline namespace callbacks {
namespace impl {

// Calls function with all arguments, without the first, with the first only, or with none: the first of these that it takes.
template <class Function>
void call_with(Function& function) {
    function();
}
template <class Function, class First, class... Rest>
void call_with(Function& function, First& first, Rest&... rest) {
    if constexpr (std::is_invocable_v<Function&, First&, Rest&...>)
        function(first, rest...);
    else if constexpr (std::is_invocable_v<Function&, Rest&...>)
        function(rest...);
    else if constexpr (std::is_invocable_v<Function&, First&>)
        function(first);
    else
        function();
}

// A callable that need not be copyable, or none. It lives until its call returns, even if it is replaced or the owner of this
// object is destroyed inside. One thread.
template <class... Arguments>
class callable {
public:
    callable() = default;
    template <class Function>
    requires(!std::is_same_v<std::remove_cvref_t<Function>, callable>) callable(Function&& function)
        : held_(new holder<std::decay_t<Function>>(std::forward<Function>(function))) {}

    explicit operator bool() const noexcept { return static_cast<bool>(held_); }
    void clear() { held_.Reset(); }

    // Does nothing without a callable. this may be destroyed inside.
    void operator()(Arguments... arguments) const {
        const CCmRefPtrT<base> running = held_;
        if (running)
            running->call(arguments...);
    }

private:
    struct base {
        virtual void call(Arguments&... arguments) = 0;
        virtual ~base() = default;
        void AddReference() noexcept { ++references; }
        void ReleaseReference() noexcept {
            if (--references == 0)
                delete this;
        }
        uint32_t references = 0;
    };
    template <class Function>
    struct holder final : base {
        template <class Given>
        explicit holder(Given&& given) : function(std::forward<Given>(given)) {}
        void call(Arguments&... arguments) override { call_with(function, arguments...); }
        Function function;
    };

    CCmRefPtrT<base> held_;
};

}  // namespace impl
}  // namespace callbacks
}  // namespace talvo
