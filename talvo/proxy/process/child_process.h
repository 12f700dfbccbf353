// Child processes that the host's other code does not notice.
#pragma once

#include <vector>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"

namespace talvo {

class CChildWatch;

// The program of a child and its surroundings.
struct CChildProgram {
    CCmString m_strPath;                   // absolute; never looked up in PATH
    std::vector<CCmString> m_Arguments;    // behind the program's name
    std::vector<CCmString> m_Environment;  // all of it, as "NAME=value"
    HANDLE m_Input = CM_INVALID_HANDLE;    // descriptor 0 and descriptor 1 of the child. Not owned. Invalid: /dev/null, which
    HANDLE m_Output = CM_INVALID_HANDLE;   // is descriptor 2 in any case
};

// The end of a child.
struct CChildEnd {
    BOOL m_bKnown = FALSE;  // FALSE: the host has reaped the child, or ignores SIGCHLD, and the status is lost
    int m_nExit = -1;       // the exit code; -1: a signal ended it
    int m_nSignal = 0;      // the signal; 0: it has exited
};

class TALVO_API IChildProcessSink {
public:
    // The child has ended; called once from the loop of the starting thread. The sink may destroy the process inside.
    virtual void OnChildEnd(const CChildEnd& aEnd) = 0;

protected:
    virtual ~IChildProcessSink() = default;
};

// One child process, used in one thread that has a reactor. A process descriptor reports the end and kills, so the library
// needs no SIGCHLD, no signal handler and no wait for the host's other children. The host may reap all children or ignore
// SIGCHLD. The system kills the child if the starting thread ends.
//
// The child has the descriptors 0 to 2 only, "/" as its working directory, a session of its own and the default action of every
// signal.
class TALVO_API CChildProcess {
public:
    CChildProcess() = default;
    // Kills a running child without a report. The reactor reaps it later.
    ~CChildProcess();
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    // Starts the program and returns when it has been loaded. aSink is not owned. CM_OK: one OnChildEnd follows.
    // CM_ERROR_NOT_FOUND: there is no such program, or it cannot be executed. CM_ERROR_FAILURE: no process or descriptor is
    // available (traced). CM_ERROR_NULL_POINTER: the calling thread has no reactor. CM_ERROR_ALREADY_INITIALIZED: a child runs.
    // CM_ERROR_INVALID_ARG: the path is not absolute. CM_ERROR_OUT_OF_MEMORY.
    CmResult Start(const CChildProgram& aProgram, IChildProcessSink& aSink);

    // Ends the child by force; OnChildEnd follows. Does nothing without a child.
    void Kill();

    BOOL IsRunning() const { return m_pWatch != nullptr; }

private:
    friend class CChildWatch;

    CChildWatch* m_pWatch = nullptr;  // deletes itself when the child is reaped; null: no child
};

}  // namespace talvo
