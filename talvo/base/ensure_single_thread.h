// The record that keeps an object in one thread.
#pragma once

#include <cassert>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// The calling thread's identifier as the system numbers it; never 0.
TALVO_API DWORD cm_thread_self_id();

// Remembers the constructing thread. EnsureSingleThread asserts in builds with assertions that the caller is that thread and
// does nothing in others.
class CCmEnsureSingleThread {
public:
    CCmEnsureSingleThread() : m_dwThreadId(cm_thread_self_id()) {}

    void Reset2CurrentThreadId() { m_dwThreadId = cm_thread_self_id(); }
    void Reset2ThreadId(unsigned long aId) { m_dwThreadId = static_cast<DWORD>(aId); }

    BOOL IsCurrentThread() const { return m_dwThreadId == cm_thread_self_id(); }
    void EnsureSingleThread() const { assert(m_dwThreadId == cm_thread_self_id()); }

private:
    DWORD m_dwThreadId;
};
