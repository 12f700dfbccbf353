// The sink of CCmConnectionManager::Drain.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/event/orderly_end.h"

class TALVO_API ICmDrainSink {
public:
    // Once, in the thread that called Drain. CM_OK: everything has ended, aLeft is all zero. CM_ERROR_TIMEOUT: aLeft is what
    // was left at the limit and has been cut off. CM_ERROR_NOT_AVAILABLE: the network thread ended first, with aLeft
    // unfinished. CM_ERROR_OUT_OF_MEMORY: it could not begin. Drain may be called again inside.
    virtual void OnDrained(CmResult aReason, const CCmUndrained& aLeft) = 0;
    virtual ~ICmDrainSink();
};
