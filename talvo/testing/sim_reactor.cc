#include "talvo/testing/sim_reactor.h"

#include <algorithm>

#include "talvo/base/trace.h"

namespace talvo {

CSimReactor::~CSimReactor() { CCmReactorBase::Close(); }

CmResult CSimReactor::RunEventLoop() {
    if (!IsOpen())
        return CM_ERROR_NOT_INITIALIZED;
    if (m_Schedule.IsRunning())
        return CM_ERROR_ALREADY_INITIALIZED;
    const auto isStopped = [this] { return m_bStop.exchange(FALSE); };
    return m_Schedule.RunUntil(CSimSchedule::NEVER, isStopped) ? CM_OK : CM_ERROR_TIMEOUT;
}

CmResult CSimReactor::StopEventLoop() {
    m_bStop = TRUE;
    return CM_OK;
}

BOOL CSimReactor::RunPosted() {
    if (!IsOpen() || GetPendingEventsCount() == 0)
        return FALSE;
    ProcessHandleEvent(CM_INVALID_HANDLE, ACmEventHandler::EVENTQUEUE_MASK, CM_OK, TRUE, FALSE);
    return TRUE;
}

int64_t CSimReactor::GetTimerWait() {
    int64_t llExpires = 0;
    if (!IsOpen() || !m_pTimerQueue->GetEarliestUsec(llExpires))
        return CSimSchedule::NEVER;
    return std::max<int64_t>(llExpires - CCmClock::GetTimeOfDayUsec(), 0);
}

CmResult CSimReactor::OnHandleRegister(HANDLE aFd, long, ACmEventHandler*) {
    CM_ERROR_TRACE_THIS("CSimReactor::OnHandleRegister, a simulation has no handles. aFd=" << aFd);
    return CM_ERROR_UNEXPECTED;
}

}  // namespace talvo
