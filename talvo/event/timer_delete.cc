#include "talvo/event/timer_delete.h"

#include "talvo/base/trace.h"
#include "talvo/event/thread_manager.h"
#include "talvo/event/timer_queue_base.h"

CmResult cm_schedule_deletion(CCmTimerDelete* aHandler) {
    ICmTimerQueue* pQueue = CCmThreadManager::Instance()->GetThreadTimerQueue(CCmThreadManager::TT_CURRENT);
    CmResult rv = CM_ERROR_NULL_POINTER;
    if (pQueue)
        rv = pQueue->ScheduleTimer(aHandler, CCmTimerQueueBase::GetDeletionArg(), CCmTimeValue::s_tvZero, 1);
    if (rv == CM_OK || rv == CM_ERROR_FOUND)
        return CM_OK;
    CM_ERROR_TRACE("CCmTimerDeleteT::Launch, ScheduleTimer() failde! rv=" << rv);
    return rv;
}
