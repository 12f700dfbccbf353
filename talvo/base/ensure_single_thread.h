// Binds an object to one thread.
#pragma once

#include <cassert>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// The system's identifier of the calling thread; never 0.
TALVO_API CmDword cm_thread_self_id();

// Stores the constructing thread. In builds with assertions EnsureSingleThread asserts that the caller is that thread; in
// others it does nothing.
class CCmEnsureSingleThread {
public:
    CCmEnsureSingleThread() : m_dwThreadId(cm_thread_self_id()) {}

    void Reset2CurrentThreadId() { m_dwThreadId = cm_thread_self_id(); }
    void Reset2ThreadId(unsigned long aId) { m_dwThreadId = static_cast<CmDword>(aId); }

    CmBool IsCurrentThread() const { return m_dwThreadId == cm_thread_self_id(); }
    void EnsureSingleThread() const { assert(m_dwThreadId == cm_thread_self_id()); }

private:
    CmDword m_dwThreadId;
};
