// Counts the objects of a class that are alive, in every build.
#pragma once

#include <atomic>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// Each counted class has one static counter, which its constructor increments and its destructor decrements. Any thread. Dump
// shows an application the objects that it has not released.
class TALVO_API CCmLiveCounter {
public:
    // aName must stay valid until the process ends.
    explicit CCmLiveCounter(const char* aName);
    CCmLiveCounter(const CCmLiveCounter&) = delete;
    CCmLiveCounter& operator=(const CCmLiveCounter&) = delete;

    // For the counted class.
    void operator++() { m_lValue.fetch_add(1, std::memory_order_relaxed); }
    void operator--() { m_lValue.fetch_sub(1, std::memory_order_relaxed); }

    // One line "name count" for every class with live objects, sorted by name; empty if there are none.
    static CCmString Dump();

private:
    const char* const m_szName;
    std::atomic<int32_t> m_lValue{0};
    const CCmLiveCounter* m_pNext;  // the list of all counters, which live until the process ends
};
