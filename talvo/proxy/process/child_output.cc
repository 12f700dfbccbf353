#include "talvo/proxy/process/child_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "talvo/base/with_memory.h"
#include "talvo/event/thread_manager.h"

namespace talvo {

namespace {

ICmReactor* CurrentReactor() { return CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_CURRENT); }

}  // namespace

CChildOutput::~CChildOutput() { ClosePipe_i(); }

CmResult CChildOutput::Start(CChildProgram aProgram, const CCmTimeValue& aLimit, size_t aMaxOutput, IChildOutputSink& aSink) {
    if (m_pSink)
        return CM_ERROR_ALREADY_INITIALIZED;
    ICmReactor* pReactor = CurrentReactor();
    if (!pReactor)
        return CM_ERROR_NULL_POINTER;
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) == -1)
        return CM_ERROR_FAILURE;
    fcntl(pipe[0], F_SETFL, O_NONBLOCK);  // only this end: the child's writes may wait
    aProgram.m_Output = pipe[1];
    CmResult rv = m_Process.Start(aProgram, *this);
    close(pipe[1]);
    m_Pipe = pipe[0];
    if (rv == CM_OK)
        rv = m_Timer.Schedule(this, aLimit, 1);
    if (rv == CM_OK)
        rv = pReactor->RegisterHandler(this, READ_MASK);
    if (rv != CM_OK) {
        ClosePipe_i();
        return rv;
    }
    m_stMax = aMaxOutput;
    m_pSink = &aSink;
    return CM_OK;
}

int CChildOutput::OnInput(HANDLE) {
    Read_i();
    return -2;
}

int CChildOutput::OnClose(HANDLE, long) { return 0; }  // the end of the output; the end of the child follows

void CChildOutput::Read_i() {
    char buffer[8192];
    while (m_Pipe != CM_INVALID_HANDLE) {
        const ssize_t lRead = read(m_Pipe, buffer, sizeof buffer);
        if (lRead == -1 && errno == EINTR)
            continue;
        if (lRead <= 0)
            return;
        const auto stRead = static_cast<size_t>(lRead);
        if (stRead > m_stMax - m_strOutput.size() || !WithMemory([&] { m_strOutput.append(buffer, stRead); }))
            return Cut_i(CM_ERROR_PARTIAL_DATA);
    }
}

void CChildOutput::OnTimer(CCmTimerWrapperID*) { Cut_i(CM_ERROR_TIMEOUT); }

void CChildOutput::Cut_i(CmResult aReason) {
    m_Reason = aReason;
    ClosePipe_i();
    m_Process.Kill();
}

void CChildOutput::OnChildEnd(const CChildEnd& aEnd) {
    Read_i();
    ClosePipe_i();
    m_Timer.Cancel();
    if (m_Reason == CM_OK && aEnd.m_bKnown && aEnd.m_nExit != 0)
        m_Reason = CM_ERROR_FAILURE;
    if (IChildOutputSink* pSink = std::exchange(m_pSink, nullptr))
        pSink->OnChildOutput(m_Reason, m_strOutput);
}

void CChildOutput::ClosePipe_i() {
    if (m_Pipe == CM_INVALID_HANDLE)
        return;
    if (ICmReactor* pReactor = CurrentReactor())
        pReactor->RemoveHandler(this, ALL_EVENTS_MASK);
    close(std::exchange(m_Pipe, CM_INVALID_HANDLE));
}

}  // namespace talvo
