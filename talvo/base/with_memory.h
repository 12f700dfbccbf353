// The border that std::bad_alloc does not cross.
#pragma once

#include <new>

#include "talvo/base/types.h"

namespace talvo {

// Runs aCallable, which uses the standard library's containers and strings. TRUE: it has returned. FALSE: memory ran out
// inside; what it had done until then stays done, so it should do one thing. Costs nothing while there is memory.
template <class Callable>
BOOL WithMemory(Callable&& aCallable) {
    try {
        aCallable();
        return TRUE;
    } catch (const std::bad_alloc&) {
        return FALSE;
    }
}

}  // namespace talvo
