#include "talvo/event/thread.h"

#include <cerrno>
#include <new>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/event/callback_guard.h"
#include "talvo/event/thread_linger.h"

namespace {

CCmLiveCounter s_Live("ACmThread");

const CCmTimeValue JOIN_LIMIT(0, 100000);
const CCmTimeValue LINGERING_LIMIT(1);  // the longest turn of its loop

}  // namespace

std::atomic<int> ACmThread::s_nRunning{0};

ACmThread::ACmThread() : m_pLink(new (std::nothrow) CCmThreadLink(this)) { ++s_Live; }

ACmThread::~ACmThread() {
    CloseLink();
    if (m_bRegistered)
        CCmThreadManager::Instance()->UnregisterThread(this);
    StopWaiting_i();
    --s_Live;
}

CmResult ACmThread::Create(int aType, TFlag aFlag) {
    CM_INFO_TRACE_THIS("ACmThread::Create, aType=" << aType << " aFlag=" << aFlag);
    if (m_Type != -1)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (aType == -1)
        return CM_ERROR_INVALID_ARG;
    if (!m_pLink)
        return CM_ERROR_OUT_OF_MEMORY;
    m_Type = aType;
    m_Flag = aFlag == CCmThreadManager::TF_NONE ? CCmThreadManager::TF_JOINABLE : aFlag;
    if (aType == CCmThreadManager::TT_MAIN)
        BindToCurrentThread_i();
    else if (const CmResult rv = Start_i(); rv != CM_OK)
        return rv;

    const CmResult rv = CCmThreadManager::Instance()->RegisterThread(this);
    m_bRegistered = rv == CM_OK;
    if (rv != CM_OK)
        Stop(nullptr);
    m_EventRun.Signal();
    if (rv != CM_OK)
        Join();
    return rv;
}

CmResult ACmThread::Start_i() {
    m_pEventStart.reset(new (std::nothrow) CCmEventThread);
    if (!m_pEventStart)
        return CM_ERROR_OUT_OF_MEMORY;
    ++s_nRunning;
    const int nErr = pthread_create(&m_Handle, nullptr, ThreadProc, this);
    if (nErr != 0) {
        --s_nRunning;
        m_pEventStart.reset();
        CM_ERROR_TRACE_THIS("ACmThread::Create, _beginthreadex() failed! err=" << nErr);
        return CM_ERROR_UNEXPECTED;
    }
    m_bHasHandle = TRUE;
    if (!(m_Flag & CCmThreadManager::TF_JOINABLE))
        StopWaiting_i();
    m_pEventStart->Wait();
    m_pEventStart.reset();
    return CM_OK;
}

void* ACmThread::ThreadProc(void* aThread) {
    auto* pThread = static_cast<ACmThread*>(aThread);
    talvo::guard_callbacks([pThread] {
        pThread->BindToCurrentThread_i();
        pThread->OnThreadInit();
        pThread->m_pEventStart->Signal();
        pThread->m_EventRun.Wait();
        pThread->OnThreadRun();
        pThread->CloseLink();
    });
    --s_nRunning;
    pThread->m_EventEnd.Signal();
    pThread->LetGo_i();
    return nullptr;
}

void ACmThread::BindToCurrentThread_i() {
    m_dwThreadId = cm_thread_self_id();
    m_pLink->BindToCurrentThread();
}

CmResult ACmThread::Destory(CmResult aReason) {
    CM_INFO_TRACE_THIS("ACmThread::Destory, aReason=" << aReason);
    if (m_Type == CCmThreadManager::TT_MAIN && talvo::CCallbackScope::IsInside())
        return CM_ERROR_NOT_AVAILABLE;
    if (m_bDestoryed.exchange(TRUE))
        return CM_OK;
    if (m_bRegistered) {
        m_bRegistered = FALSE;
        CCmThreadManager::Instance()->UnregisterThread(this);
    }
    const BOOL bNeverRan = m_Type == CCmThreadManager::TT_MAIN || m_dwThreadId == 0;
    if (bNeverRan)
        delete this;
    else
        LetGo_i();
    return CM_OK;
}

void ACmThread::LetGo_i() {
    if (++m_LetGo == 2)
        delete this;
}

CmResult ACmThread::Join() {
    if (m_dwThreadId == cm_thread_self_id() || m_dwThreadId == 0 || m_Type == CCmThreadManager::TT_MAIN)
        return CM_ERROR_FAILURE;
    const CmResult rv = WaitForEnd_i();
    if (rv == CM_OK && m_bHasHandle) {
        m_bHasHandle = FALSE;
        const int nErr = pthread_join(m_Handle, nullptr);
        if (nErr != 0) {
            CM_ERROR_TRACE_THIS("ACmThread::Join, WaitForSingleObject() failed! err=" << nErr);
            return CM_ERROR_FAILURE;
        }
    }
    if (rv == CM_ERROR_TIMEOUT) {
        CM_WARNING_TRACE_THIS("ACmThread::Join, WaitForSingleObject() timeout!");
        StopWaiting_i();
    }
    return rv;
}

CmResult ACmThread::WaitForEnd_i() {
    while (true) {
        const DWORD dwLooks = m_dwLingerLooks;
        CCmTimeValue tvLimit = dwLooks > 0 ? LINGERING_LIMIT : JOIN_LIMIT;
        const CmResult rv = m_EventEnd.Wait(&tvLimit);
        if (rv != CM_ERROR_TIMEOUT || m_dwLingerLooks == dwLooks)
            return rv;
    }
}

void ACmThread::Linger() {
    ICmReactor* pReactor = GetReactor();
    if (!pReactor)
        return;
    talvo::CThreadLinger linger(*m_pLink, *pReactor);
    if (m_Type == CCmThreadManager::TT_MAIN)
        linger.RunPosted();
    linger.Run(m_dwLingerLooks);
}

CmResult ACmThread::Terminate() {
    StopWaiting_i();
    return CM_OK;
}

void ACmThread::StopWaiting_i() {
    if (!m_bHasHandle)
        return;
    m_bHasHandle = FALSE;
    pthread_detach(m_Handle);
}

CmResult ACmThread::Stop(CCmTimeValue*) { return CM_ERROR_NOT_IMPLEMENTED; }
void ACmThread::OnThreadInit() {}
ICmReactor* ACmThread::GetReactor() { return nullptr; }
ICmEventQueue* ACmThread::GetEventQueue() { return nullptr; }
ICmTimerQueue* ACmThread::GetTimerQueue() { return nullptr; }
