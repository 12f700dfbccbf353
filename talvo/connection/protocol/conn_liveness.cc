#include "talvo/connection/protocol/conn_liveness.h"

#include <utility>

namespace talvo {

CmResult CConnLiveness::StartLimit(CCmTimerWrapperIDSink* aSink, const CCmTimeValue& aLimit) {
    const CmResult rv = m_Timer.Schedule(aSink, aLimit, 1);
    return rv == CM_ERROR_FOUND ? CM_OK : rv;
}

CmResult CConnLiveness::Start(CCmTimerWrapperIDSink* aSink) {
    const CmResult rv = m_Timer.Schedule(aSink, CCmTimeValue(static_cast<long>(m_dwInterval)));
    return rv == CM_ERROR_FOUND ? CM_OK : rv;
}

void CConnLiveness::SetReadingPaused(BOOL aPaused) {
    if (std::exchange(m_bReadingPaused, aPaused != FALSE))
        m_dwLastRecvTick = get_tick_count();
}

// Deliberate: the interval, in seconds, is compared with milliseconds, so a keep-alive leaves at nearly every firing, idle or
// not. PkgConnTest.KeepAliveLeavesEvenWhileDataFlows checks this.
BOOL CConnLiveness::IsKeepAliveDue() const {
    return calculate_tick_interval(m_dwLastSendTick, get_tick_count()) > m_dwInterval;
}

BOOL CConnLiveness::IsPeerSilent() const { return m_bHasReceived && !m_bReadingPaused && GetSilence() >= m_dwSilenceLimit; }

void CConnLiveness::Reset() {
    Stop();
    m_dwLastSendTick = 0;
    m_dwLastRecvTick = 0;
    m_bHasReceived = FALSE;
}

}  // namespace talvo
