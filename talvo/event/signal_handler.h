// Signals as calls from a reactor's loop.
#pragma once

#include <initializer_list>
#include <memory>
#include <span>

#include "talvo/base/export.h"
#include "talvo/base/result.h"

class ICmReactor;

namespace talvo {
class CSignalWatch;
}

// Receives signals from a CCmSignalHandler.
class TALVO_API ICmSignalSink {
public:
    // aSignal has arrived. Called by the reactor's loop, in its thread and with no lock held, so that every call of the library
    // is allowed; it may close or delete the handler. It must not throw. A standard signal that arrives again before its call
    // is reported once; real-time signals are queued by the system.
    virtual void OnSignal(int aSignal) = 0;
    virtual ~ICmSignalSink();
};

// Reads signals of the process through a descriptor (signalfd) in a reactor. A signal gets there only if every thread blocks
// it, and a thread inherits the block from its creator. So the order in main() is:
//
//    CCmSignalHandler::Block({SIGINT, SIGTERM});        before the first thread of any library starts
//    InitMainThread, CCmConnectionManager::Instance(), threads of the application
//    handler.Open(pMainReactor, {SIGINT, SIGTERM}, &sink);
//    ... the loop runs ...
//    handler.Close();                                   before the reactor is closed
//
// The signals stay blocked after Close and after the destructor: one that arrives is pending until a later Open. A child
// process inherits the block; unblock the signals in it before exec. A signal with the disposition "ignore", such as SIGHUP
// under nohup, is reported all the same: leave it out to keep it ignored.
//
// Refused are SIGKILL and SIGSTOP, which cannot be blocked, the signals of faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP,
// SIGSYS, SIGABRT), which concern the thread that caused them, and SIGCHLD, since other code of the process may wait for its
// children by it.
class TALVO_API CCmSignalHandler {
public:
    CCmSignalHandler();
    // As Close. In another thread than the reactor's it returns at once; a call of the sink that runs meanwhile completes.
    ~CCmSignalHandler();
    CCmSignalHandler(const CCmSignalHandler&) = delete;
    CCmSignalHandler& operator=(const CCmSignalHandler&) = delete;

    // Blocks the signals in the calling thread. CM_OK. CM_ERROR_INVALID_ARG: a refused or unknown signal, or none; nothing is
    // blocked. CM_ERROR_NOT_AVAILABLE: too late. The signals are blocked, but another thread of the process does not block
    // them, so that they may still take their default effect there; a trace line has the thread.
    static CmResult Block(std::span<const int> aSignals);
    static CmResult Block(std::initializer_list<int> aSignals) { return Block(std::span(aSignals.begin(), aSignals.size())); }

    // Blocks the signals in the calling thread, which must be the reactor's, and starts to report them, also those that are
    // pending. aSink is not owned and must outlive the handler. CM_OK. CM_ERROR_INVALID_ARG: null, a refused or unknown signal,
    // or none. CM_ERROR_ALREADY_INITIALIZED: it is open. CM_ERROR_FOUND: another open handler has one of the signals.
    // CM_ERROR_NOT_AVAILABLE: a thread of the process does not block them, as in Block. CM_ERROR_FAILURE: another thread than
    // the reactor's. CM_ERROR_UNEXPECTED: no descriptor. CM_ERROR_OUT_OF_MEMORY. After a failure nothing has changed.
    CmResult Open(ICmReactor* aReactor, std::span<const int> aSignals, ICmSignalSink* aSink);
    CmResult Open(ICmReactor* aReactor, std::initializer_list<int> aSignals, ICmSignalSink* aSink) {
        return Open(aReactor, std::span(aSignals.begin(), aSignals.size()), aSink);
    }

    // No call of the sink follows. CM_OK, also if it is not open or the reactor has ended. CM_ERROR_FAILURE: another thread
    // than the reactor's; it stays open.
    CmResult Close();

    CmBool IsOpen() const { return m_pWatch != nullptr; }  // after Open and before Close

private:
    std::unique_ptr<talvo::CSignalWatch> m_pWatch;  // null: closed
};
