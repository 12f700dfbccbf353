// The flag that ends a thread's loop.
#pragma once

#include "talvo/base/ensure_single_thread.h"

// Initially stopped. Belongs to the thread that runs the loop; every operation asserts that thread.
class CCmStopFlag {
public:
    // Before the loop, and to end it.
    void SetStartFlag() {
        m_Est.EnsureSingleThread();
        m_bStopped = CM_FALSE;
    }
    void SetStopFlag() {
        m_Est.EnsureSingleThread();
        m_bStopped = CM_TRUE;
    }
    // TRUE: the loop ends, or does not run.
    CmBool IsFlagStopped() const {
        m_Est.EnsureSingleThread();
        return m_bStopped;
    }

    // Transfers the flag to the calling thread.
    void Reset2CurrentThreadId() { m_Est.Reset2CurrentThreadId(); }

private:
    CCmEnsureSingleThread m_Est;
    CmBool m_bStopped = CM_TRUE;
};
