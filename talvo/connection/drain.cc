#include "talvo/connection/drain.h"

#include <new>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/trace.h"
#include "talvo/event/thread.h"

ICmDrainSink::~ICmDrainSink() = default;

namespace talvo {

namespace {

const CCmTimeValue LOOK(0, 10000);

std::atomic<BOOL> s_bRunning{FALSE};

}  // namespace

// Runs in another thread, and then as its own answer in the network thread, also if the other thread ends before. So an answer
// needs no memory.
class CDrain::CQuestion final : public ICmEvent {
public:
    CQuestion(CDrain& aDrain, CCmThreadLink& aAsked)
        : m_pDrain(&aDrain), m_pAsked(&aAsked), m_Stage(aDrain.m_Rule.GetStage()) {}
    CmResult OnEventFire() override {
        if (m_bAnswer)
            m_pDrain->OnAnswer_i(m_Left);
        else
            m_Left = m_pAsked->Drain(m_Stage);
        return CM_OK;
    }
    void OnDestorySelf() override {
        if (std::exchange(m_bAnswer, TRUE))
            return delete this;
        const CCmRefPtrT<CCmThreadLink> pNetwork = m_pDrain->m_pNetwork;
        pNetwork->PostEvent(this);
    }

private:
    CCmRefPtrT<CDrain> m_pDrain;
    CCmRefPtrT<CCmThreadLink> m_pAsked;
    ECmDrainStage m_Stage;
    CCmUndrained m_Left;
    BOOL m_bAnswer = FALSE;
};

// Reports the end, in the user's thread.
class CDrain::CReport final : public ICmEvent {
public:
    CmResult OnEventFire() override {
        m_pSink->OnDrained(m_Reason, m_Left);
        return CM_OK;
    }
    ICmDrainSink* m_pSink = nullptr;  // not owned
    CmResult m_Reason = CM_OK;
    CCmUndrained m_Left;
};

CDrain::CDrain(CCmThreadLink& aNetwork, CCmThreadLink& aUser, ICmDrainSink& aSink, const CCmTimeValue& aTime, BOOL aEvenHere)
    : m_pNetwork(&aNetwork),
      m_pUser(&aUser),
      m_bEvenHere(aEvenHere),
      m_pSink(&aSink),
      m_Rule(CCmClock::GetTimeOfDayUsec() + aTime.GetTotalInUsec()) {}

// The network thread dropped the event that starts it.
CDrain::~CDrain() { Notify_i(CM_ERROR_NOT_AVAILABLE, {}); }

CmResult CDrain::Claim() {
    m_bClaimed = !s_bRunning.exchange(TRUE);
    m_pReport.reset(m_bClaimed ? new (std::nothrow) CReport : nullptr);
    if (m_pReport)
        return CM_OK;
    const CmResult rv = m_bClaimed ? CM_ERROR_OUT_OF_MEMORY : CM_ERROR_ALREADY_INITIALIZED;
    Withdraw();
    return rv;
}

CmResult CDrain::Start() {
    const CmResult rv = m_pNetwork->Post([pThis = CCmRefPtrT<CDrain>(this)] { pThis->Begin_i(); });
    return rv == CM_OK || rv == CM_ERROR_OUT_OF_MEMORY ? rv : CM_ERROR_NULL_POINTER;
}

void CDrain::StartOrNotify() {
    const CmResult rv = m_pSink ? Start() : CM_OK;
    if (rv != CM_OK)
        Notify_i(rv == CM_ERROR_OUT_OF_MEMORY ? rv : CM_ERROR_NOT_AVAILABLE, {});
}

void CDrain::Withdraw() {
    m_pSink = nullptr;
    if (std::exchange(m_bClaimed, FALSE))
        s_bRunning = FALSE;
}

void CDrain::Begin_i() {
    ICmTimerQueue* pTimers = CCmThreadManager::Instance()->GetThreadTimerQueue(CCmThreadManager::TT_CURRENT);
    const CmResult rv = pTimers ? pTimers->ScheduleTimer(this, nullptr, LOOK, 0) : CM_ERROR_NOT_AVAILABLE;
    if (rv != CM_OK)
        return Notify_i(rv == CM_ERROR_OUT_OF_MEMORY ? rv : CM_ERROR_NOT_AVAILABLE, {});
    CM_INFO_TRACE_THIS("CCmConnectionManager::Drain, begins.");
    m_pTimers = pTimers;
    m_pSelf = this;
    m_pNetwork->Join(*this);
    Look_i();
}

// This thread first: it posts the upcalls of the connections that it ends before the questions, so they run before the answers
// arrive. A thread that could not be asked is asked by the next look; until then the stage stays.
void CDrain::Look_i() {
    m_Others = {};
    m_bAllAsked = TRUE;
    m_Own = m_pNetwork->Drain(m_Rule.GetStage());
    CCmThreadManager::Instance()->ForEachLink([this](CCmThreadLink& aLink) {
        if (&aLink == m_pNetwork.Get())
            return;
        auto* pQuestion = new (std::nothrow) CQuestion(*this, aLink);
        if (!pQuestion) {
            m_bAllAsked = FALSE;
            return;
        }
        ++m_dwAwaited;
        aLink.PostEvent(pQuestion);
    });
}

void CDrain::OnAnswer_i(const CCmUndrained& aLeft) {
    --m_dwAwaited;
    m_Others += aLeft;
}

void CDrain::OnTimeout(const CCmTimeValue&, void*) {
    CCmUndrained left = m_Own;
    left += m_Others;
    m_Rule.OnLook(left, m_bAllAsked && m_dwAwaited == 0, CCmClock::GetTimeOfDayUsec());
    if (m_Rule.IsOver())
        Finish_i();
    else if (m_dwAwaited == 0)
        Look_i();
}

void CDrain::Finish_i() {
    const CCmRefPtrT<CDrain> pKeep = std::move(m_pSelf);
    m_pTimers->CancelTimer(this);
    LeaveThread();
    CCmUndrained left = m_pNetwork->Drain(m_Rule.GetStage());
    left += m_Others;
    m_pNetwork->Drain(ECmDrainStage::NONE);
    EndOthers_i(m_Rule.GetStage() == ECmDrainStage::CUT);
    Notify_i(m_Rule.GetResult(left), left);
}

void CDrain::EndOthers_i(BOOL aCut) {
    CCmThreadManager::Instance()->ForEachLink([this, aCut](CCmThreadLink& aLink) {
        if (&aLink != m_pNetwork.Get())
            aLink.EndDrain(aCut);
    });
}

void CDrain::OnThreadEnd() {
    const CCmRefPtrT<CDrain> pKeep = std::move(m_pSelf);
    m_pTimers->CancelTimer(this);
    CCmUndrained left = m_Own;
    left += m_Others;
    EndOthers_i(FALSE);
    Notify_i(CM_ERROR_NOT_AVAILABLE, left);
}

// Notifies the sink, once; it may start the next drain.
void CDrain::Notify_i(CmResult aReason, const CCmUndrained& aLeft) {
    ICmDrainSink* pSink = m_pSink;
    Withdraw();
    if (!pSink)
        return;
    if (aReason == CM_OK)
        CM_INFO_TRACE_THIS("CCmConnectionManager::Drain, nothing is left.");
    else
        CM_WARNING_TRACE_THIS("CCmConnectionManager::Drain, left: connections="
                              << aLeft.m_dwConnections << " requests=" << aLeft.m_dwRequests << " bytes=" << aLeft.m_ullBytes
                              << " lost=" << aLeft.m_dwLost << " lost bytes=" << aLeft.m_ullLostBytes << " rv=" << aReason);
    m_pReport->m_pSink = pSink;
    m_pReport->m_Reason = aReason;
    m_pReport->m_Left = aLeft;
    const CmResult rv = m_pUser->PostEvent(m_pReport.release());
    if (rv != CM_OK && m_bEvenHere)
        pSink->OnDrained(aReason, aLeft);
}

// Starts from inside the loop: if the loop cannot run, the drain has not started.
CmResult CDrainWait::Run(CCmThreadLink& aMain, CCmThreadLink& aNetwork, const CCmTimeValue& aTime) {
    const CCmRefPtrT<CDrain> pDrain(new (std::nothrow) CDrain(aNetwork, aMain, *this, aTime, TRUE));
    if (!pDrain)
        return CM_ERROR_OUT_OF_MEMORY;
    if (const CmResult rv = pDrain->Claim(); rv != CM_OK)
        return rv;
    const CmResult rv = aMain.Post([pDrain] { pDrain->StartOrNotify(); });
    if (rv == CM_OK)
        return RunLoop_i(*pDrain);
    if (rv == CM_ERROR_OUT_OF_MEMORY) {
        pDrain->Withdraw();
        return rv;
    }
    // The main thread's loop has ended permanently: there is no loop to wait for.
    pDrain->StartOrNotify();
    m_bDone.wait(FALSE);
    return m_Result;
}

CmResult CDrainWait::RunLoop_i(CDrain& aDrain) {
    while (!m_bDone) {
        if (m_Reactor.RunEventLoop() == CM_OK)
            continue;
        aDrain.Withdraw();
        return CM_ERROR_FAILURE;
    }
    return m_Result;
}

// Runs after the upcalls that were posted before. Then the waiting thread continues, and destroys this object.
void CDrainWait::OnDrained(CmResult aReason, const CCmUndrained&) {
    ICmReactor& reactor = m_Reactor;
    m_Result = aReason;
    m_bDone = TRUE;
    m_bDone.notify_all();
    reactor.StopEventLoop();
}

}  // namespace talvo
