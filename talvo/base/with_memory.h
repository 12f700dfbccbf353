// Converts std::bad_alloc into a result.
#pragma once

#include <new>

#include "talvo/base/types.h"

namespace talvo {

// Runs aCallable, which uses containers and strings of the standard library. TRUE: it returned. FALSE: memory ran out inside.
// Its earlier effects remain, so it should do one thing. It costs nothing while there is memory.
template <class Callable>
[[gnu::always_inline]] inline CmBool WithMemory(Callable&& aCallable) {
    try {
        aCallable();
        return CM_TRUE;
    } catch (const std::bad_alloc&) {
        return CM_FALSE;
    }
}

}  // namespace talvo
