// The sink of CCmConnectionManager::Drain.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/event/orderly_end.h"

// Is notified of the end of a drain.
class TALVO_API ICmDrainSink {
public:
    // Once, in the thread that called Drain. CM_OK: everything has ended, and aLeft is all zero.
    // CM_ERROR_NETWORK_SOCKET_ERROR: everything has ended, but connections failed, or the peer ended them too, before its
    // system had acknowledged all their data; m_dwLost and m_ullLostBytes count them. CM_ERROR_TIMEOUT: aLeft was left at the
    // limit and has been aborted; m_dwLost was lost before. CM_ERROR_NOT_AVAILABLE: the network thread ended first; aLeft is
    // unfinished. CM_ERROR_OUT_OF_MEMORY: the drain could not start. This call may call Drain again.
    virtual void OnDrained(CmResult aReason, const CCmUndrained& aLeft) = 0;
    virtual ~ICmDrainSink();
};
