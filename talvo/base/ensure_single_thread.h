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
    CCmEnsureSingleThread() : m_dwThreadId(cm_thread_self_id()) {}  // bound to the calling thread

    // Transfers the object to the calling thread, or to another one.
    void Reset2CurrentThreadId() { m_dwThreadId = cm_thread_self_id(); }
    void Reset2ThreadId(unsigned long aId) { m_dwThreadId = static_cast<CmDword>(aId); }

    CmBool IsCurrentThread() const { return m_dwThreadId == cm_thread_self_id(); }    // TRUE: the caller is that thread
    void EnsureSingleThread() const { assert(m_dwThreadId == cm_thread_self_id()); }  // see above

private:
    CmDword m_dwThreadId;
};
