// What becomes of an exception that leaves a callback.
#pragma once

#include "talvo/base/export.h"

namespace talvo {

// Traces the exception that is being handled, writes the trace out and ends the process through std::terminate.
[[noreturn]] TALVO_API void end_by_exception() noexcept;

// The calling thread runs what calls back; may be nested.
class TALVO_API CCallbackScope {
public:
    CCallbackScope();
    ~CCallbackScope();
    CCallbackScope(const CCallbackScope&) = delete;
    CCallbackScope& operator=(const CCallbackScope&) = delete;

    static bool IsInside();
};

// Runs what calls back into the application. Callbacks must not throw: the state that an exception leaves behind is unknown, so
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
