// Memory for events that one thread allocates and another frees.
#pragma once

#include <cstddef>

namespace talvo {

// In a general allocator two threads contend for every such block. It also scatters the events of a long queue, so that the
// thread that runs them waits for the memory of each. Here a thread takes its blocks one after another from a slab of 4 KiB.
// The slab is reused when all its blocks were freed, in any thread. So events that are posted together are adjacent, and
// allocating and freeing are a few instructions. A few free slabs are kept for all threads.
//
// A block that is kept for long keeps its whole slab. Null: out of memory.
void* take_event_memory(size_t aSize) noexcept;

// Frees a block. Any thread; null does nothing. Inside a batch of events the blocks of one slab are counted together.
void give_event_memory(void* aMemory) noexcept;

// Ends the counting of the calling thread's batch.
void flush_event_memory() noexcept;

}  // namespace talvo
