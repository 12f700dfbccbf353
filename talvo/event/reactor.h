// The interfaces of the reactor, which reports the readiness of handles to handlers.
#pragma once

#include "talvo/event/event_queue.h"
#include "talvo/event/timer_queue.h"

namespace talvo {
class CHomeReactor;
}

// Handles the readiness of one handle. The reactor's thread calls it, with no lock held. It must not throw: an exception is
// traced and ends the process. A handler may remove, replace or delete itself or another handler inside. The results of OnInput
// and OnOutput control the reactor:
//    0   continue: if there is more to read, report again
//   -2   the handler would block: wait for the next readiness
//   else remove the handler; its OnClose follows
class TALVO_API ACmEventHandler {
public:
    // The kinds of readiness, bits of a mask.
    enum : long {
        NULL_MASK = 0,
        ACCEPT_MASK = 0x1,        // a listening handle has a connection to accept
        CONNECT_MASK = 0x2,       // the connect of a handle has succeeded or failed
        READ_MASK = 0x4,          // data can be read
        WRITE_MASK = 0x8,         // data can be written
        DATAGRAM_MASK = 0x10,     // never reported: the handle carries datagrams, see RegisterHandler
        HALF_CLOSE_MASK = 0x20,   // never reported: the handler itself reads the peer's end of stream, and may continue to send
        SHOULD_CALL_MASK = 0x40,  // internal: call OnClose on removal
        CLOSE_MASK = 0x80,        // the handle was closed or failed
        EVENTQUEUE_MASK = 0x100,  // the event queue has work
        CLOSES_MASK = 0x200,      // never reported: the handler closes the handle next, see RegisterHandler
        ONE_EACH_MASK = 0x400,    // never reported: each OnInput accepts one connection, see RegisterHandler
        ALL_EVENTS_MASK = 0x3F    // the bits of a handle's registered mask
    };

    virtual CmHandle GetHandle() const;     // the default returns CM_INVALID_HANDLE
    virtual int OnInput(CmHandle aFd);      // ready to read or to accept
    virtual int OnOutput(CmHandle aFd);     // ready to write, or the connect has ended
    virtual int OnException(CmHandle aFd);  // the defaults of these three request removal
    // The reactor has removed the handler after a failure, a close by the peer, or a result of the handler. aMask is its
    // registered mask. The result is ignored. Not called for RemoveHandler.
    virtual int OnClose(CmHandle aFd, long aMask) = 0;
    virtual ~ACmEventHandler();
};

// Demultiplexes readiness to handlers, and is also the event queue and timer queue of its thread. Call it in its own thread;
// only PostEvent, SendEvent, NotifyHandler and StopEventLoop are for any thread. In another thread RegisterHandler,
// RemoveHandler, RunEventLoop and the timer operations change nothing and return CM_ERROR_FAILURE. Before Open the reactor's
// thread is the constructing one.
class TALVO_API ICmReactor : public ICmEventQueue, public ICmTimerQueue {
public:
    // Properties of a reactor.
    enum : CmDword {
        // Handlers register for writing only while data waits to be sent. Clear for reactors that report changes of write
        // readiness, so that a handler can stay registered for writing.
        PROPERTY_WRITE_ON_DEMAND = 0x1
    };

    ICmReactor();  // of the calling thread; not open

    // Makes the calling thread the owner. CM_ERROR_ALREADY_INITIALIZED: it is open already. CM_ERROR_NOT_AVAILABLE: it was
    // closed. CM_ERROR_OUT_OF_MEMORY.
    virtual CmResult Open() = 0;

    // Watches aEh->GetHandle() for the kinds in aMask, and always for close. The handler is not owned: remove it before it is
    // deleted or closes its handle. A second registration of a handle changes its mask or its handler; readiness of the new
    // kinds that exists already is then reported. With DATAGRAM_MASK a pending failure of the system is reported as readiness
    // to read, for OnInput to fetch, and never as a close. OnInput is then called while there is more to read, whatever its
    // result. With CLOSES_MASK the handler's OnClose closes the handle or registers it again: the system ends the watch of a
    // closed handle by itself, which saves a call. With ONE_EACH_MASK beside ACCEPT_MASK a turn of the loop may report up to 16
    // waiting connections, one each. CM_OK: new, or nothing to change. CM_ERROR_FOUND: changed; also a success.
    // CM_ERROR_INVALID_ARG: aEh is null or the mask is empty. CM_ERROR_UNEXPECTED: the system refuses the handle or the change
    // to another handler; the handle has no handler then. CM_ERROR_OUT_OF_MEMORY.
    virtual CmResult RegisterHandler(ACmEventHandler* aEh, long aMask) = 0;

    // Removes the kinds in aMask, and the handler if no kind is left. Never calls OnClose. With CLOSES_MASK the caller closes
    // the handle next. CM_OK: removed, or it had none of these kinds. CM_ERROR_FOUND: it stays registered for the other kinds;
    // also a success. CM_ERROR_NOT_FOUND: the handle is not registered. CM_ERROR_INVALID_ARG: aEh is null, its handle is
    // invalid or the mask is empty.
    virtual CmResult RemoveHandler(ACmEventHandler* aEh, long aMask) = 0;

    // The loop reports aMask to aEh as if it had become ready, unless aEh is no longer registered then. Any thread; a caller in
    // another thread must keep aEh alive during the call. CM_OK or CM_ERROR_OUT_OF_MEMORY.
    virtual CmResult NotifyHandler(ACmEventHandler* aEh, long aMask) = 0;

    // Runs until StopEventLoop. CM_ERROR_NOT_INITIALIZED: not open. CM_ERROR_ALREADY_INITIALIZED: called inside a callback.
    virtual CmResult RunEventLoop() = 0;

    // Any thread: ends the loop after its current turn. A loop that does not run yet ends as soon as it starts. CM_OK.
    virtual CmResult StopEventLoop() = 0;

    // Unregisters all handlers without calling them, ends the timers and refuses further events. This is final. Objects whose
    // deletion waits for a timer or an event are deleted. CM_ERROR_NOT_AVAILABLE: called inside a callback. Another thread may
    // call it only after the reactor's thread has ended.
    virtual CmResult Close() = 0;

    // Bits of PROPERTY_...
    virtual CmDword GetProperty() const;

    // Inside OnClose. TRUE: the peer has ended the connection in good order, and no byte is left to read. FALSE: perhaps not.
    virtual CmBool IsOrderlyEnd() const;

    // As PostEvent, but it may leave the loop asleep until its next wake-up, which runs the event. The default is PostEvent.
    virtual CmResult PostEventQuietly(ICmEvent* aEvent);

    // TRUE: aReactor still exists. An object that may outlive its thread checks this before it uses the reactor. Any thread.
    static CmBool IsAlive(const ICmReactor* aReactor);

    ~ICmReactor() override;

private:
    friend class talvo::CHomeReactor;

    // TRUE: aReactor still exists, and is no newer than aSeen. aSeen (in, out): the last result of this function for the same
    // reactor; at first UINT64_MAX. Cheap while no reactor begins or ends.
    static CmBool IsAlive_i(const ICmReactor* aReactor, uint64_t& aSeen);

    uint64_t m_ullBorn;  // no two reactors have the same; separates a reactor from an older one at its address
    // Links the list of all reactors. It is a member because that list must never fail.
    ICmReactor* m_pNextAlive = nullptr;
    ICmReactor** m_ppBackAlive = nullptr;
};
