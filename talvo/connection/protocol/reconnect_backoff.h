// How long a reconnecting client waits before its next attempt.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// Milliseconds; uses no timer and no socket. The first wait is 0 to 500 ms, the one before retry n from 100 ms to the smaller
// of 30 s and 0.5 s * 2^(n - 1). The count begins anew only after 10 s connected, so that clients do not hammer a server that
// accepts and drops. One thread.
class TALVO_API CCmReconnectBackoff {
public:
    // The wait before the next attempt, at random.
    CmDword NextDelay();
    // The connection was lost after so long.
    void OnLost(CmDword aConnectedMsec);

private:
    CmDword m_dwRetries = 0;
};
