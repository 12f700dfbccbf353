// The flag with which a thread's loop is told to end.
#pragma once

#include "talvo/base/ensure_single_thread.h"

// Stopped when constructed. Belongs to the thread whose loop it ends; every operation asserts that.
class CCmStopFlag {
public:
    void SetStartFlag() {
        m_Est.EnsureSingleThread();
        m_bStopped = FALSE;
    }
    void SetStopFlag() {
        m_Est.EnsureSingleThread();
        m_bStopped = TRUE;
    }
    BOOL IsFlagStopped() const {
        m_Est.EnsureSingleThread();
        return m_bStopped;
    }

    // Hands the flag to the calling thread.
    void Reset2CurrentThreadId() { m_Est.Reset2CurrentThreadId(); }

private:
    CCmEnsureSingleThread m_Est;
    BOOL m_bStopped = TRUE;
};
