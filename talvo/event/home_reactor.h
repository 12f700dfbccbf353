// The reactor of an object that may outlive its thread.
#pragma once

#include "talvo/event/reactor.h"

namespace talvo {

// Used like a pointer. After the reactor's end every operation returns CM_ERROR_NOT_INITIALIZED and does nothing.
class TALVO_API CHomeReactor {
public:
    CHomeReactor(ICmReactor* aReactor) : m_pReactor(aReactor) {}

    ICmReactor* operator->() const;
    operator ICmReactor*() const { return m_pReactor; }  // for comparisons and for other holders: it may have ended

private:
    ICmReactor* m_pReactor;  // not owned; null: never had one
};

}  // namespace talvo
