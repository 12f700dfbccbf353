// Buffers that belong to a thread.
#pragma once

#include <pthread.h>

#include <new>

namespace talvo {

// Makes the calling thread's Buffers, and stores them in its thread-local aBuffers. Null: memory ran out. A key frees them at
// the thread's end. A thread-local object with a destructor would end the process if its registration ran out of memory.
template <class Buffers>
[[gnu::noinline]] Buffers* MakeThreadBuffers(Buffers*& aBuffers) {
    static pthread_key_t s_Key;
    static const bool s_bKey = pthread_key_create(&s_Key, [](void* a) { delete static_cast<Buffers*>(a); }) == 0;
    auto* pBuffers = s_bKey ? new (std::nothrow) Buffers : nullptr;
    if (pBuffers && pthread_setspecific(s_Key, pBuffers) != 0) {
        delete pBuffers;
        return nullptr;
    }
    return aBuffers = pBuffers;
}

}  // namespace talvo
