// Where want of memory ends in this room: at its public calls, and where the loop or a transport calls into it. What lies
// between may use strings and containers as if there were always memory.
#pragma once

#include "talvo/base/result.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/callback_guard.h"

namespace talvo {

// What aCall returns; CM_ERROR_OUT_OF_MEMORY when memory ran out inside.
template <class Call>
[[gnu::always_inline]] inline CmResult ResultWithMemory(const Call& aCall) {
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    WithMemory([&] { rv = aCall(); });
    return rv;
}

// Calls the application. What it throws must not pass for want of memory of this room's: it ends the process here.
template <class Call>
void Upcall(const Call& aCall) {
    try {
        aCall();
    } catch (...) {
        end_by_exception();
    }
}

}  // namespace talvo
