// Signs of life on a connection: its own and the peer's.
#pragma once

#include "talvo/base/clock.h"
#include "talvo/base/export.h"
#include "talvo/event/timer_wrapper_id.h"

namespace talvo {

// When bytes were sent and received last, and the timer of a connection: the limit of its handshake and, while it is connected,
// the look at those times. Sends nothing. One thread.
class TALVO_API CConnLiveness {
public:
    // Seconds between two firings of the timer; 15 at first.
    void SetInterval(DWORD aSeconds) { m_dwInterval = aSeconds; }
    DWORD GetInterval() const { return m_dwInterval; }

    // Arm the timer, or arm it anew: to fire once after aLimit, or with each interval until Stop. CM_OK, or the timer queue's
    // error.
    CmResult StartLimit(CCmTimerWrapperIDSink* aSink, const CCmTimeValue& aLimit);
    CmResult Start(CCmTimerWrapperIDSink* aSink);
    void Stop() { m_Timer.Cancel(); }

    void OnSent() { m_dwLastSendTick = get_tick_count(); }
    void OnReceived() {
        m_dwLastRecvTick = get_tick_count();
        m_bHasReceived = TRUE;
    }
    // While the upper layer pauses reading, and for the time before, the peer is not silent.
    void SetReadingPaused(BOOL aPaused);
    BOOL IsReadingPaused() const { return m_bReadingPaused; }

    BOOL IsKeepAliveDue() const;
    // Nothing has been received for 120 s. Never before the first bytes were received.
    BOOL IsPeerSilent() const;
    DWORD GetSilence() const { return calculate_tick_interval(m_dwLastRecvTick, get_tick_count()); }  // milliseconds

    // Stops the timer and forgets both times; the interval and the pause stay.
    void Reset();

private:
    CCmTimerWrapperID m_Timer;
    DWORD m_dwInterval = 15;
    DWORD m_dwLastSendTick = 0;
    DWORD m_dwLastRecvTick = 0;
    bool m_bHasReceived = false;  // m_dwLastRecvTick is recorded
    bool m_bReadingPaused = false;
};

}  // namespace talvo
