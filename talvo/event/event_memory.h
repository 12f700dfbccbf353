// Memory for events, which one thread takes and another gives back.
#pragma once

#include <cstddef>

namespace talvo {

// A general allocator lets two threads meet at every such block, and scatters the events of a long queue over the memory, so
// that the thread which runs them waits for each. Here a thread cuts its blocks off a slab of 4 KiB, one behind the other, and
// a slab is used again when the last of its blocks has come back, from whatever threads. So events that are posted together
// lie together, and taking and giving are a few instructions. A few slabs are kept for all threads.
//
// A block that is kept for long keeps its slab. Null: out of memory.
void* take_event_memory(size_t aSize) noexcept;

// Any thread; null does nothing.
void give_event_memory(void* aMemory) noexcept;

}  // namespace talvo
