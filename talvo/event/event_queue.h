// Events, which carry work to a thread, and the queue of a thread.
#pragma once

#include <cstddef>
#include <new>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

namespace talvo {
class CEventList;
}

// A piece of work for the thread that owns a queue. The posting thread allocates it with new. It belongs to
// the queue from the post or send on, with any result.
class TALVO_API ICmEvent {
public:
    ICmEvent() = default;
    // A copy is in no queue, whether or not the original is.
    ICmEvent(const ICmEvent&) {}
    ICmEvent& operator=(const ICmEvent&) { return *this; }

    // Does the work, in the owning thread, with no lock held. Its result goes to the sender, and is ignored for a post. This
    // and OnDestorySelf must not throw: an exception is traced and ends the process.
    virtual CmResult OnEventFire() = 0;
    // Called exactly once: after OnEventFire, or instead of it if the queue refuses the event or ends first. In the second case
    // the thread may be another one. The default deletes the event.
    virtual void OnDestorySelf();
    virtual ~ICmEvent();

    // The memory of events is optimised for a short life between threads: an event that is kept keeps up to 4 KiB. A class with
    // long-lived events should have its own operators.
    static void* operator new(size_t aSize);
    static void* operator new(size_t aSize, const std::nothrow_t&) noexcept;
    static void* operator new(size_t aSize, std::align_val_t aAlign) { return ::operator new(aSize, aAlign); }
    static void* operator new(size_t aSize, std::align_val_t aAlign, const std::nothrow_t& aNoThrow) noexcept {
        return ::operator new(aSize, aAlign, aNoThrow);
    }

    // In memory of the caller.
    static void* operator new(size_t, void* aPlace) noexcept { return aPlace; }

    // The counterparts.
    static void operator delete(void* aMemory) noexcept;
    static void operator delete(void* aMemory, std::align_val_t aAlign) noexcept { ::operator delete(aMemory, aAlign); }
    // For constructors that throw.
    static void operator delete(void* aMemory, const std::nothrow_t&) noexcept;
    static void operator delete(void* aMemory, std::align_val_t aAlign, const std::nothrow_t&) noexcept {
        ::operator delete(aMemory, aAlign);
    }
    static void operator delete(void*, void*) noexcept {}  // of the operator with a place

private:
    friend class talvo::CEventList;
    ICmEvent* m_pNext = nullptr;  // in the queue that holds it, so that a post takes no memory
};

// The queue of one thread. It lives as long as the thread: objects that may outlive it must post through its CCmThreadLink.
class TALVO_API ICmEventQueue {
public:
    // Accepted and ignored: all events run in the order of their posts.
    enum EPriority { EPRIORITY_HIGH = 0, EPRIORITY_NORMAL = 1, EPRIORITY_LOW = 2 };

    // Queues aEvent and returns at once; needs no memory. Any thread. CM_ERROR_INVALID_ARG: null. CM_ERROR_ALREADY_INITIALIZED:
    // it is in a queue and stays there. CM_ERROR_NOT_INITIALIZED: the queue has been stopped and has destroyed the event; do
    // not use it again.
    virtual CmResult PostEvent(ICmEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) = 0;

    // Runs aEvent in the owning thread and returns the result of its OnEventFire. In the owning thread it runs at once, before
    // all pending events; any other thread waits without limit. Results as PostEvent. CM_ERROR_NOT_AVAILABLE: the queue was
    // stopped or ended before the event ran. CM_ERROR_INVALID_ARG also if memory ran out; the event was destroyed. Two threads
    // that send to each other at the same time deadlock.
    //
    // Slow with a reactor, on purpose: a sent event does not wake the loop and runs after its next wake-up. On an idle reactor
    // that takes up to one tick (10 ms). For a fast answer use CCmThreadLink::Call, which wakes the thread and takes
    // microseconds.
    virtual CmResult SendEvent(ICmEvent* aEvent) = 0;

    // The number of pending events; a hint, read without a lock.
    virtual CmDword GetPendingEventsCount() = 0;

    virtual ~ICmEventQueue();
};
