// The liveness of a connection: of this end and of the peer.
#pragma once

#include "talvo/base/clock.h"
#include "talvo/base/export.h"
#include "talvo/event/timer_wrapper_id.h"

namespace talvo {

// The times of the last sent and received bytes, and the timer of a connection: the limit of its handshake and, while it is
// connected, the check of those times. Sends no data. One thread.
class TALVO_API CConnLiveness {
public:
    // Seconds between two firings of the timer; 15 at first.
    void SetInterval(CmDword aSeconds) { m_dwInterval = aSeconds; }
    CmDword GetInterval() const { return m_dwInterval; }

    // Arm or re-arm the timer: to fire once after aLimit, or with each interval until Stop. CM_OK, or the timer queue's error.
    CmResult StartLimit(CCmTimerWrapperIDSink* aSink, const CCmTimeValue& aLimit);
    CmResult Start(CCmTimerWrapperIDSink* aSink);
    void Stop() { m_Timer.Cancel(); }

    void OnSent() { m_dwLastSendTick = get_tick_count(); }
    void OnReceived() {
        m_dwLastRecvTick = get_tick_count();
        m_bHasReceived = CM_TRUE;
    }
    // While the upper layer pauses reading, and for the time before, the peer does not count as silent.
    void SetReadingPaused(CmBool aPaused);
    CmBool IsReadingPaused() const { return m_bReadingPaused; }

    CmBool IsKeepAliveDue() const;
    // Milliseconds of silence after which the peer is silent; 120,000 at first.
    void SetSilenceLimit(CmDword aMsec) { m_dwSilenceLimit = aMsec; }
    CmDword GetSilenceLimit() const { return m_dwSilenceLimit; }
    // No data has been received for that time. FALSE before the first bytes.
    CmBool IsPeerSilent() const;
    CmDword GetSilence() const { return calculate_tick_interval(m_dwLastRecvTick, get_tick_count()); }  // milliseconds

    // Stops the timer and clears both times; the interval, the limit and the pause stay.
    void Reset();

private:
    CCmTimerWrapperID m_Timer;
    CmDword m_dwInterval = 15;
    CmDword m_dwSilenceLimit = 120000;
    CmDword m_dwLastSendTick = 0;
    CmDword m_dwLastRecvTick = 0;
    bool m_bHasReceived = false;  // m_dwLastRecvTick is recorded
    bool m_bReadingPaused = false;
};

}  // namespace talvo
