// Readiness of handles, reported to handlers: the interfaces.
#pragma once

#include "talvo/event/event_queue.h"
#include "talvo/event/timer_queue.h"

// Handles the readiness of one handle. The operations are called in the reactor's thread, with no lock held, and must not
// throw: an exception is traced and ends the process. A handler may remove, replace or delete itself or another from inside.
// What OnInput and OnOutput return steers the reactor:
//    0   go on: if there is still something to read, report again
//   -2   the handler would block: wait for the next readiness
//   else remove the handler; its OnClose follows
class TALVO_API ACmEventHandler {
public:
    enum : long {
        NULL_MASK = 0,
        ACCEPT_MASK = 0x1,        // a listening handle has a connection to accept
        CONNECT_MASK = 0x2,       // a connecting handle has finished, well or not
        READ_MASK = 0x4,          // data can be read
        WRITE_MASK = 0x8,         // data can be written
        DATAGRAM_MASK = 0x10,     // never reported: says that the handle carries datagrams, see RegisterHandler
        HALF_CLOSE_MASK = 0x20,   // never reported: says that the handler learns of the peer's end by reading, and may go on
        SHOULD_CALL_MASK = 0x40,  // internal: on removal, call OnClose
        CLOSE_MASK = 0x80,        // the handle was closed or failed
        EVENTQUEUE_MASK = 0x100,  // the event queue has work
        ALL_EVENTS_MASK = 0x3F    // what is kept as a handle's registered mask
    };

    virtual HANDLE GetHandle() const;     // CM_INVALID_HANDLE unless overridden
    virtual int OnInput(HANDLE aFd);      // read or accept readiness
    virtual int OnOutput(HANDLE aFd);     // write or connect readiness
    virtual int OnException(HANDLE aFd);  // these three ask for removal unless overridden
    // The reactor has removed the handler, because of a failure, a close by the peer or its own wish. aMask is what it was
    // registered for. The result is not looked at. Not called for RemoveHandler.
    virtual int OnClose(HANDLE aFd, long aMask) = 0;
    virtual ~ACmEventHandler();
};

// Demultiplexes readiness to handlers, and is its thread's event queue and timer queue as well. All calls come from its own
// thread, except PostEvent, SendEvent, NotifyHandler and StopEventLoop, which may come from any. From another thread
// RegisterHandler, RemoveHandler, RunEventLoop and the timer operations change nothing and return CM_ERROR_FAILURE; before Open
// the constructing thread is the reactor's.
class TALVO_API ICmReactor : public ICmEventQueue, public ICmTimerQueue {
public:
    // Properties of a reactor.
    enum : DWORD {
        // Write interest is registered only while somebody waits for it. Clear for reactors that report write readiness when
        // it changes, so that a handler can stay registered for it.
        PROPERTY_WRITE_ON_DEMAND = 0x1
    };

    ICmReactor();

    // Makes the calling thread the owner. CM_ERROR_ALREADY_INITIALIZED: open already. CM_ERROR_NOT_AVAILABLE: was closed.
    // CM_ERROR_OUT_OF_MEMORY.
    virtual CmResult Open() = 0;

    // Watches aEh->GetHandle() for what aMask says; always for close. The handler is not owned and must be removed before it
    // dies or closes its handle. Registering a handle again changes its mask or its handler; readiness that is there already is
    // then reported for the kinds that are new. With DATAGRAM_MASK a failure that the system has noted is reported as readiness
    // to read, for OnInput to fetch, and never as a close; and OnInput is called again while there is something to read,
    // whatever it returned. CM_OK: new, or nothing to change. CM_ERROR_FOUND: changed; also a success. CM_ERROR_INVALID_ARG:
    // aEh is null or the mask is empty. CM_ERROR_UNEXPECTED: the system refuses the handle. CM_ERROR_OUT_OF_MEMORY.
    virtual CmResult RegisterHandler(ACmEventHandler* aEh, long aMask) = 0;

    // Takes the kinds in aMask away, and the handler when none is left; never calls OnClose. CM_OK: gone, or it had none of
    // them. CM_ERROR_FOUND: it stays registered for the rest; also a success. CM_ERROR_NOT_FOUND: the handle is not
    // registered. CM_ERROR_INVALID_ARG: aEh is null, its handle invalid or the mask empty.
    virtual CmResult RemoveHandler(ACmEventHandler* aEh, long aMask) = 0;

    // Reports aMask to aEh from the loop as if it had become ready; nothing happens if aEh is no longer registered then. Any
    // thread; from another than the reactor's the caller must know that aEh is alive during the call. CM_OK, or
    // CM_ERROR_OUT_OF_MEMORY.
    virtual CmResult NotifyHandler(ACmEventHandler* aEh, long aMask) = 0;

    // Runs until StopEventLoop. CM_ERROR_NOT_INITIALIZED: not open. CM_ERROR_ALREADY_INITIALIZED: from inside a callback.
    virtual CmResult RunEventLoop() = 0;

    // Any thread: ends the loop after its current turn; one that does not run yet ends as soon as it starts. CM_OK.
    virtual CmResult StopEventLoop() = 0;

    // Forgets all handlers without a call to them, ends the timers and refuses further events; there is no way back. Objects
    // whose deletion waits for a timer or an event are deleted. CM_ERROR_NOT_AVAILABLE: from inside a callback. From another
    // thread only when the reactor's has ended.
    virtual CmResult Close() = 0;

    // Bits of PROPERTY_...
    virtual DWORD GetProperty() const;

    // As PostEvent, but need not wake the loop, which runs the event with its next wake-up. As PostEvent unless overridden.
    virtual CmResult PostEventQuietly(ICmEvent* aEvent);

    // Whether aReactor still exists. Objects that may outlive their thread ask before they touch its reactor. Any thread.
    static BOOL IsAlive(const ICmReactor* aReactor);

    ~ICmReactor() override;

private:
    // In the list of all reactors, which has to take every one.
    ICmReactor* m_pNextAlive = nullptr;
    ICmReactor** m_ppBackAlive = nullptr;
};
