#include "talvo/event/thread_task.h"

#include <new>

#include "talvo/base/trace.h"
#include "talvo/event/callback_guard.h"
#include "talvo/event/timer_queue_ordered_list.h"

namespace {

constexpr unsigned long MAX_EVENTS_A_PASS = 5;
constexpr unsigned long ALL_EVENTS = 0xFFFFFFFF;

}  // namespace

CmResult CCmThreadTaskBase::CStopEvent::OnEventFire() {
    m_Flag.SetStopFlag();
    return CM_OK;
}

CCmThreadTaskBase::~CCmThreadTaskBase() { CloseLink(); }

CmResult CCmThreadTaskBase::Create(int aType, TFlag aFlag) {
    // An adopted main thread runs no OnThreadInit.
    if (aType == CCmThreadManager::TT_MAIN && GetThreadType() == CCmThreadManager::TT_UNKNOWN)
        OnThreadInit();
    return ACmThread::Create(aType, aFlag);
}

CmResult CCmThreadTaskBase::Stop(CCmTimeValue*) {
    return m_bStopPosted.exchange(TRUE) ? CM_OK : m_EventQueue.PostEvent(&m_StopEvent);
}

void CCmThreadTaskBase::OnThreadInit() {
    m_EventQueue.Reset2CurrentThreadId();
    m_StopFlag.Reset2CurrentThreadId();
    m_StopFlag.SetStartFlag();
}

void CCmThreadTaskBase::RunEvents_i(CCmTimeValue* aTimeout, unsigned long aMaxCount) {
    CCmEventQueueBase::EventsType events;
    m_EventQueue.PopOrWaitPendingEvents(events, aTimeout, aMaxCount);
    m_EventQueue.ProcessEvents(events);
}

void CCmThreadTaskBase::EndEvents_i() {
    CloseLink();
    m_EventQueue.Stop();
    m_EventQueue.DestoryPendingEvents();
}

CCmThreadTask::~CCmThreadTask() { EndEvents_i(); }

void CCmThreadTask::OnThreadInit() {
    m_pTimerQueue.reset(new (std::nothrow) CCmTimerQueueOrderedList);
    CCmThreadTaskBase::OnThreadInit();
}

void CCmThreadTask::OnThreadRun() {
    CM_INFO_TRACE_THIS("CCmThreadTask::OnThreadRun, Begin.");
    talvo::guard_callbacks([this] {
        while (!IsStopped_i()) {
            CCmTimeValue tvRemain = CCmTimeValue::s_tvMax;
            if (m_pTimerQueue)
                m_pTimerQueue->CheckExpire(&tvRemain);
            RunEvents_i(tvRemain == CCmTimeValue::s_tvMax ? nullptr : &tvRemain, MAX_EVENTS_A_PASS);
        }
    });
    EndEvents_i();
    m_pTimerQueue.reset();
    CM_INFO_TRACE_THIS("CCmThreadTask::OnThreadRun, End.");
}

CCmThreadTaskWithEventQueueOnly::~CCmThreadTaskWithEventQueueOnly() { EndEvents_i(); }

CmResult CCmThreadTaskWithEventQueueOnly::Stop(CCmTimeValue* aTimeout) {
    CM_INFO_TRACE_THIS("CCmThreadTaskWithEventQueueOnly::Stop");
    return CCmThreadTaskBase::Stop(aTimeout);
}

void CCmThreadTaskWithEventQueueOnly::OnThreadRun() {
    CM_INFO_TRACE_THIS("CCmThreadTaskWithEventQueueOnly::OnThreadRun, Begin.");
    while (!IsStopped_i())
        RunEvents_i(nullptr, ALL_EVENTS);
    EndEvents_i();
    CM_INFO_TRACE_THIS("CCmThreadTaskWithEventQueueOnly::OnThreadRun, End.");
}
