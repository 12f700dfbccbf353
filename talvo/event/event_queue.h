// Work handed to a thread: the event and the queue it waits in.
#pragma once

#include <cstddef>
#include <new>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

namespace talvo {
class CEventList;
}

// A piece of work for the thread that owns a queue. Made on the heap by the thread that hands it over; belongs to the queue
// from the moment it is posted or sent, whatever the result.
class TALVO_API ICmEvent {
public:
    ICmEvent() = default;
    // A copy waits in no queue, whatever the original does.
    ICmEvent(const ICmEvent&) {}
    ICmEvent& operator=(const ICmEvent&) { return *this; }

    // Does the work, in the owning thread, with no lock held. Its result goes to a sender and is dropped for a post. Must not
    // throw: an exception is traced and ends the process. The same goes for OnDestorySelf.
    virtual CmResult OnEventFire() = 0;
    // Called exactly once, after OnEventFire, or instead of it when the queue refuses the event or dies first: then perhaps in
    // another thread. Deletes the event unless overridden.
    virtual void OnDestorySelf();
    virtual ~ICmEvent();

    // The memory of events is made for going from thread to thread and coming back soon: one that is kept keeps up to 4 KiB.
    // A class whose events live long had better have its own operators.
    static void* operator new(size_t aSize);
    static void* operator new(size_t aSize, const std::nothrow_t&) noexcept;
    static void* operator new(size_t aSize, std::align_val_t aAlign) { return ::operator new(aSize, aAlign); }
    static void* operator new(size_t aSize, std::align_val_t aAlign, const std::nothrow_t& aNoThrow) noexcept {
        return ::operator new(aSize, aAlign, aNoThrow);
    }
    static void* operator new(size_t, void* aPlace) noexcept { return aPlace; }
    static void operator delete(void* aMemory) noexcept;
    static void operator delete(void* aMemory, std::align_val_t aAlign) noexcept { ::operator delete(aMemory, aAlign); }
    // The others are for constructors that throw.
    static void operator delete(void* aMemory, const std::nothrow_t&) noexcept;
    static void operator delete(void* aMemory, std::align_val_t aAlign, const std::nothrow_t&) noexcept {
        ::operator delete(aMemory, aAlign);
    }
    static void operator delete(void*, void*) noexcept {}

private:
    friend class talvo::CEventList;
    ICmEvent* m_pNext = nullptr;  // in the queue that it waits in: to post it takes no memory
};

// The queue of one thread, which lives as long as the thread: objects that may outlive it post through its CCmThreadLink.
class TALVO_API ICmEventQueue {
public:
    // Accepted and ignored: all events run in the order in which they were posted.
    enum EPriority { EPRIORITY_HIGH = 0, EPRIORITY_NORMAL = 1, EPRIORITY_LOW = 2 };

    // Hands aEvent over and returns at once; needs no memory. Any thread. CM_ERROR_INVALID_ARG: null.
    // CM_ERROR_ALREADY_INITIALIZED: it waits in a queue, and goes on waiting. CM_ERROR_NOT_INITIALIZED: the queue has been
    // stopped and has destroyed the event; do not touch it again.
    virtual CmResult PostEvent(ICmEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) = 0;

    // Runs aEvent in the owning thread and returns what its OnEventFire returned. From the owning thread it runs at once, ahead
    // of everything pending; from any other it waits, without limit. Results as PostEvent, and CM_ERROR_NOT_AVAILABLE when the
    // queue stopped or died before the event ran; CM_ERROR_INVALID_ARG also when there was no memory, and the event was
    // destroyed. Two threads that send to each other at the same time wait for ever.
    //
    // Slow to a reactor, on purpose: a sent event wakes nobody and runs with the loop's next wake-up, so on an idle reactor it
    // takes up to the tick (10 ms). Where an answer must come fast use CCmThreadLink::Call, which wakes the thread and takes
    // microseconds.
    virtual CmResult SendEvent(ICmEvent* aEvent) = 0;

    // How many wait; a hint, read without a lock.
    virtual DWORD GetPendingEventsCount() = 0;

    virtual ~ICmEventQueue();
};
