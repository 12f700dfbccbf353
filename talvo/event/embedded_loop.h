// A reactor inside another event loop.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

class ICmReactor;

// Lets another loop, such as that of a user interface, run a reactor: in place of RunEventLoop that loop polls one descriptor,
// waits no longer than a time-out, and calls RunOnce. All calls come from the reactor's thread, mostly the main thread, and
// the reactor is open. docs/embedding.md has the order of start and end, and complete programs.
//
//    poll(GetPollHandle() for POLLIN, GetTimeout());  RunOnce();  and again
class TALVO_API ICmEmbeddedLoop {
public:
    // A descriptor that is readable when a handle of the reactor is ready, another thread has posted an event, or RunOnce has
    // left work. Poll it level-triggered, for reading only; do not read, close or register it in the reactor itself. It is the
    // same until the reactor is destroyed. It also becomes readable at each tick (10 ms; key "TickMs"), for events that were
    // sent and not posted. CM_INVALID_HANDLE: the reactor has no descriptor.
    virtual CmHandle GetPollHandle() const = 0;

    // Milliseconds until RunOnce has work even if the descriptor is not readable: until the first timer, rounded up; 0: work is
    // pending; -1: there is no timer, or the reactor is not open, or another thread calls. Read it before each wait. A timer
    // that is scheduled afterwards makes the descriptor readable, so that the wait ends and the value is read again.
    virtual int GetTimeout() = 0;

    // Runs the ready handlers, the events and the due timers, without a wait; callbacks come inside. CM_OK.
    // CM_ERROR_NOT_AVAILABLE: likewise, and StopEventLoop has been called since the last RunOnce: the other loop should end.
    // CM_ERROR_NOT_INITIALIZED: not open. CM_ERROR_ALREADY_INITIALIZED: called inside a callback of the reactor, as by a nested
    // loop; nothing runs. CM_ERROR_FAILURE: called in another thread.
    virtual CmResult RunOnce() = 0;

protected:
    virtual ~ICmEmbeddedLoop();
};

// The interface of a reactor, valid as long as the reactor. Null for null, and for a reactor without the interface.
TALVO_API ICmEmbeddedLoop* cm_get_embedded_loop(ICmReactor* aReactor);
