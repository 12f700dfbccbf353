// Handling of exceptions that leave a callback.
#pragma once

#include "talvo/base/export.h"

namespace talvo {

// Traces the current exception, flushes the trace and ends the process through std::terminate.
[[noreturn]] TALVO_API void end_by_exception() noexcept;

// Marks a scope in which the calling thread runs callbacks. Scopes may be nested.
class TALVO_API CCallbackScope {
public:
    CCallbackScope();
    ~CCallbackScope();
    CCallbackScope(const CCallbackScope&) = delete;
    CCallbackScope& operator=(const CCallbackScope&) = delete;

    static bool IsInside();
};

// Runs a function that calls back into the application. Callbacks must not throw: an exception would leave an unknown state, so
// it ends the process.
template <class Function>
void guard_callbacks(const Function& aFunction) {
    const CCallbackScope scope;
    try {
        aFunction();
    } catch (...) {
        end_by_exception();
    }
}

}  // namespace talvo
