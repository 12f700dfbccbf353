// The output of a program.
#pragma once

#include "talvo/base/time_value.h"
#include "talvo/event/reactor.h"
#include "talvo/event/timer_wrapper_id.h"
#include "talvo/proxy/process/child_process.h"

namespace talvo {

class TALVO_API IChildOutputSink {
public:
    // The outcome of a run; called once from the loop of the starting thread. CM_OK: the child has exited with 0, or its status
    // is lost because the host has reaped it. CM_ERROR_FAILURE: another exit code, or a signal. CM_ERROR_TIMEOUT and
    // CM_ERROR_PARTIAL_DATA: it was killed for its time or for the size of its output. aOutput is the output so far and may be
    // moved from. The sink may destroy the run inside.
    virtual void OnChildOutput(CmResult aReason, CCmString& aOutput) = 0;

protected:
    virtual ~IChildOutputSink() = default;
};

// Runs a program once and collects its standard output. In one thread, which has a reactor.
class TALVO_API CChildOutput : private ACmEventHandler, private IChildProcessSink, private CCmTimerWrapperIDSink {
public:
    CChildOutput() = default;
    // Kills the child without a report.
    ~CChildOutput() override;
    CChildOutput(const CChildOutput&) = delete;
    CChildOutput& operator=(const CChildOutput&) = delete;

    // aProgram's output is ignored: it becomes a pipe. The child is killed after aLimit, or after more than aMaxOutput bytes.
    // aSink is not owned. Results as CChildProcess::Start.
    CmResult Start(CChildProgram aProgram, const CCmTimeValue& aLimit, size_t aMaxOutput, IChildOutputSink& aSink);

private:
    HANDLE GetHandle() const override { return m_Pipe; }
    int OnInput(HANDLE aFd) override;
    int OnClose(HANDLE aFd, long aMask) override;
    void OnChildEnd(const CChildEnd& aEnd) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    void Read_i();
    void Cut_i(CmResult aReason);
    void ClosePipe_i();

    CChildProcess m_Process;
    CCmTimerWrapperID m_Timer;
    HANDLE m_Pipe = CM_INVALID_HANDLE;
    size_t m_stMax = 0;
    CCmString m_strOutput;
    CmResult m_Reason = CM_OK;            // of an early end
    IChildOutputSink* m_pSink = nullptr;  // not owned
};

}  // namespace talvo
