// Handles lack of memory in this room: at its public calls, and where the loop or a transport calls into it. The code between
// may use strings and containers as if memory never ran out.
#pragma once

#include "talvo/base/result.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/callback_guard.h"

namespace talvo {

// Returns the result of aCall; CM_ERROR_OUT_OF_MEMORY if memory ran out inside.
template <class Call>
[[gnu::always_inline]] inline CmResult ResultWithMemory(const Call& aCall) {
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    WithMemory([&] { rv = aCall(); });
    return rv;
}

// Calls the application. Its exceptions must not count as lack of memory in this room: they end the process here.
template <class Call>
void Upcall(const Call& aCall) {
    try {
        aCall();
    } catch (...) {
        end_by_exception();
    }
}

}  // namespace talvo
