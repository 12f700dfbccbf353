// The reactor of an object that may outlive its thread.
#pragma once

#include "talvo/event/reactor.h"

namespace talvo {

// Used like a pointer. After the reactor's end every operation returns CM_ERROR_NOT_INITIALIZED and does nothing, even if a new
// reactor has the same address. One thread at a time.
class TALVO_API CHomeReactor {
public:
    CHomeReactor(ICmReactor* aReactor) : m_pReactor(aReactor) { IsAlive(); }

    ICmReactor* operator->() const;
    CmBool IsAlive() const { return ICmReactor::IsAlive_i(m_pReactor, m_ullSeen); }
    operator ICmReactor*() const { return m_pReactor; }  // for comparisons and for other holders: it may have ended

private:
    ICmReactor* m_pReactor;                   // not owned; null: never had one
    mutable uint64_t m_ullSeen = UINT64_MAX;  // when it was last found alive
};

}  // namespace talvo
