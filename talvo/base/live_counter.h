// How many objects of a class are alive, in every build.
#pragma once

#include <atomic>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// One static object a counted class, whose constructor and destructor count it up and down. Any thread. Applications look at
// Dump to see what they have not released.
class TALVO_API CCmLiveCounter {
public:
    // aName must stay valid for ever.
    explicit CCmLiveCounter(const char* aName);
    CCmLiveCounter(const CCmLiveCounter&) = delete;
    CCmLiveCounter& operator=(const CCmLiveCounter&) = delete;

    void operator++() { m_lValue.fetch_add(1, std::memory_order_relaxed); }
    void operator--() { m_lValue.fetch_sub(1, std::memory_order_relaxed); }

    // A line "name count" for every class of which there are objects, in order of name; empty when there are none.
    static CCmString Dump();

private:
    const char* const m_szName;
    std::atomic<int32_t> m_lValue{0};
    const CCmLiveCounter* m_pNext;  // the list of all counters, which are never destroyed before the process ends
};
