#include "talvo/proxy/process/child_process.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/home_reactor.h"
#include "talvo/event/thread_link.h"
#include "talvo/event/thread_manager.h"
#include "talvo/proxy/process/child_start.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CChildProcess");

// Reads the status of an ended child. FALSE: it still runs. Waits for it if aWaits.
BOOL Reap(HANDLE aProcess, BOOL aWaits, CChildEnd& aEnd) {
    siginfo_t info{};
    int nRv = 0;
    do {
        nRv = waitid(P_PIDFD, static_cast<id_t>(aProcess), &info, WEXITED | __WALL | (aWaits ? 0 : WNOHANG));
    } while (nRv == -1 && errno == EINTR);
    if (nRv == -1)
        return TRUE;  // reaped by other code
    if (info.si_pid == 0)
        return FALSE;
    aEnd.m_bKnown = TRUE;
    if (info.si_code == CLD_EXITED)
        aEnd.m_nExit = info.si_status;
    else
        aEnd.m_nSignal = info.si_status;
    return TRUE;
}

CmResult ResultOf(int aErrno) {
    switch (aErrno) {
    case ENOENT:
    case ENOTDIR:
    case EACCES:
    case ENOEXEC:
    case EISDIR:
    case ELOOP:
        return CM_ERROR_NOT_FOUND;
    case ENOMEM:
        return CM_ERROR_OUT_OF_MEMORY;
    default:
        return CM_ERROR_FAILURE;
    }
}

}  // namespace

// Watches one child until it is reaped, also after its CChildProcess has gone.
class CChildWatch final : private ACmEventHandler, private CCmThreadTenant {
public:
    explicit CChildWatch(ICmReactor& aReactor) : m_Reactor(&aReactor) { ++s_Live; }

    // Deletes this object unless it returns CM_OK.
    CmResult Start(const CChildProgram& aProgram, CChildProcess& aOwner, IChildProcessSink& aSink) {
        int nError = 0;
        if (!WithMemory([&] { nError = StartChild(aProgram, m_Process); }))
            nError = ENOMEM;
        if (nError != 0)
            return Fail_i(aProgram, nError);
        if (m_Reactor->RegisterHandler(this, READ_MASK | DATAGRAM_MASK) != CM_OK) {  // as datagrams: its hang-up is no close
            Kill();
            CChildEnd end;
            Reap(m_Process, TRUE, end);
            return Fail_i(aProgram, EMFILE);
        }
        JoinCurrentThread();
        m_pOwner = &aOwner;
        m_pSink = &aSink;
        return CM_OK;
    }

    void Kill() { syscall(SYS_pidfd_send_signal, m_Process, SIGKILL, nullptr, 0); }

    void Abandon() {
        m_pOwner = nullptr;
        m_pSink = nullptr;
        Kill();
    }

    HANDLE GetHandle() const override { return m_Process; }

private:
    ~CChildWatch() override {
        if (m_Process != CM_INVALID_HANDLE)
            close(m_Process);
        --s_Live;
    }

    CmResult Fail_i(const CChildProgram& aProgram, int aErrno) {
        CM_WARNING_TRACE("CChildProcess::Start, the program cannot be started. path=" << aProgram.m_strPath
                                                                                      << " err=" << aErrno);
        delete this;
        return ResultOf(aErrno);
    }

    int OnInput(HANDLE) override {
        CChildEnd end;
        if (Reap(m_Process, FALSE, end))
            Finish_i(end);
        return 0;
    }
    int OnClose(HANDLE, long) override {
        Kill();
        CChildEnd end;
        Reap(m_Process, TRUE, end);
        Finish_i(end);
        return 0;
    }

    void Finish_i(const CChildEnd& aEnd) {
        m_Reactor->RemoveHandler(this, ALL_EVENTS_MASK);
        IChildProcessSink* pSink = m_pSink;
        if (m_pOwner)
            m_pOwner->m_pWatch = nullptr;
        delete this;
        if (pSink)
            pSink->OnChildEnd(aEnd);
    }

    // A killed child ends at once, so the wait for it is short.
    void OnThreadEnd() override {
        Kill();
        CChildEnd end;
        Reap(m_Process, TRUE, end);
        Finish_i(end);
    }

    CHomeReactor m_Reactor;
    HANDLE m_Process = CM_INVALID_HANDLE;
    CChildProcess* m_pOwner = nullptr;     // not owned; null: abandoned
    IChildProcessSink* m_pSink = nullptr;  // not owned; likewise
};

CChildProcess::~CChildProcess() {
    if (m_pWatch)
        m_pWatch->Abandon();
}

CmResult CChildProcess::Start(const CChildProgram& aProgram, IChildProcessSink& aSink) {
    if (m_pWatch)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (!aProgram.m_strPath.starts_with('/'))
        return CM_ERROR_INVALID_ARG;
    ICmReactor* pReactor = CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_CURRENT);
    if (!pReactor)
        return CM_ERROR_NULL_POINTER;
    auto* pWatch = new (std::nothrow) CChildWatch(*pReactor);
    if (!pWatch)
        return CM_ERROR_OUT_OF_MEMORY;
    const CmResult rv = pWatch->Start(aProgram, *this, aSink);
    if (rv == CM_OK)
        m_pWatch = pWatch;
    return rv;
}

void CChildProcess::Kill() {
    if (m_pWatch)
        m_pWatch->Kill();
}

}  // namespace talvo
