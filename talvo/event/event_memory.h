// Memory for events, which one thread takes and another gives back.
#pragma once

#include <cstddef>
#include <cstdint>

namespace talvo {

// The general allocator makes two threads meet at every such block, and lets each wait for what the other wrote last. Here a
// thread keeps what it is given on a shelf of its own, hands it on by the batch, and has the next blocks on their way to its
// processor before they are asked for. A few hundred kilobytes are kept at most in all threads together.
//
// Throws std::bad_alloc.
void* take_event_memory(size_t aSize);

// A block is one of the general allocator's, whichever way it went, and goes back there when its size is not known.
constexpr size_t UNKNOWN_EVENT_SIZE = SIZE_MAX;

// aSize is what it was taken with. Any thread.
void give_event_memory(void* aMemory, size_t aSize) noexcept;

}  // namespace talvo
