#include "talvo/transport/transport_linger.h"

#include <limits>
#include <memory>
#include <new>

#include "talvo/base/clock.h"
#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/event/thread_linger.h"
#include "talvo/event/thread_manager.h"
#include "talvo/transport/connection_type.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CTransportLinger");

const CCmTimeValue LOOK(0, 10000);  // interval of the checks for a complete acknowledgement

}  // namespace

CTransportLinger::CTransportLinger(ICmTransport& aTransport, CCmChainPtr aRest)
    : m_pTransport(&aTransport), m_Rest(std::move(aRest)) {
    ++s_Live;
}

CTransportLinger::~CTransportLinger() {
    if (m_pTimers)
        m_pTimers->CancelTimer(this);
    --s_Live;
}

BOOL CTransportLinger::Begin(ICmTransport& aTransport, CCmChainPtr aRest) {
    auto* pLinger = new (std::nothrow) CTransportLinger(aTransport, std::move(aRest));
    if (pLinger && pLinger->Start_i())
        return TRUE;
    delete pLinger;
    return FALSE;
}

BOOL CTransportLinger::Start_i() {
    SendRest_i();
    const CCmTimeValue tvTime = GetLingerTime();
    if (IsDone_i() || tvTime == CCmTimeValue::s_tvZero)
        return FALSE;
    ICmTimerQueue* pTimers = CCmThreadManager::Instance()->GetThreadTimerQueue(CCmThreadManager::TT_CURRENT);
    if (!pTimers || pTimers->ScheduleTimer(this, nullptr, LOOK, 0) != CM_OK)
        return FALSE;
    m_pTimers = pTimers;
    m_llEndUsec = CCmClock::GetTimeOfDayUsec() + tvTime.GetTotalInUsec();
    BOOL bYes = TRUE;
    BOOL bPause = FALSE;
    m_pTransport->SetOption(CM_OPT_TRANSPORT_LAYERED, &bYes);
    m_pTransport->SetOption(CM_OPT_TRANSPORT_TELL_END, &bYes);         // a peer that has finished sending may still read
    m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause);  // the peer's close must be noticed
    JoinCurrentThread();
    return m_pTransport->OpenWithSink(this) == CM_OK;
}

// A half-close after the rest shows the peer that no data follows while this side still waits.
void CTransportLinger::SendRest_i() {
    while (!m_Rest.IsEmpty()) {
        CCmTransportParameter para;
        const CmResult rv = m_pTransport->SendData(*m_Rest.GetHead(), &para);
        m_Rest.DropRead();
        if (rv != CM_OK)
            return;
    }
    BOOL bEnd = TRUE;
    DWORD dwType = 0;
    m_pTransport->GetOption(CM_OPT_TRANSPORT_TRAN_TYPE, &dwType);
    if (!m_bEnded && !CConnectionType(dwType).IsOverDatagrams())
        m_pTransport->SetOption(CM_OPT_TRANSPORT_END_SENDING, &bEnd);
    m_bEnded = TRUE;
}

void CTransportLinger::OnSend(ICmTransport*, CCmTransportParameter*) { SendRest_i(); }

void CTransportLinger::OnDisconnect(CmResult aReason, ICmTransport*) {
    NoteLoss_i();
    End_i(aReason);
}

void CTransportLinger::NoteLoss_i() {
    const uint64_t ullLost = uint64_t{GetUnacknowledged_i()} + m_Rest.GetLength();
    if (ullLost == 0)
        return;
    CM_WARNING_TRACE_THIS("CTransportLinger::OnDisconnect, the connection has failed, data lost. bytes=" << ullLost);
    CountLost(ullLost);
}

void CTransportLinger::OnTimeout(const CCmTimeValue&, void*) {
    if (IsDone_i())
        return End_i(CM_OK);
    if (CCmClock::GetTimeOfDayUsec() < m_llEndUsec)
        return;
    CM_WARNING_TRACE_THIS("CTransportLinger::OnTimeout, data unsent when closing.");
    End_i(CM_ERROR_TIMEOUT);
}

void CTransportLinger::OnThreadEnd() {
    SendRest_i();
    End_i(CM_ERROR_NETWORK_SOCKET_CLOSE);
}

// A drain has a limit of its own.
void CTransportLinger::OnDrain(ECmDrainStage aStage) {
    if (aStage == ECmDrainStage::CLOSE)
        m_llEndUsec = std::numeric_limits<int64_t>::max();
    else if (aStage == ECmDrainStage::CUT)
        End_i(CM_ERROR_NETWORK_SOCKET_CLOSE);
}

void CTransportLinger::AddUndrained(CCmUndrained& aLeft) {
    ++aLeft.m_dwConnections;
    ++aLeft.m_dwLingering;
    aLeft.m_ullBytes += uint64_t{GetUnacknowledged_i()} + m_Rest.GetLength();
}

// A failed transport returns the bytes that it has lost.
DWORD CTransportLinger::GetUnacknowledged_i() {
    DWORD dwBytes = 0;
    return m_pTransport->GetOption(CM_OPT_TRANSPORT_UNACKNOWLEDGED, &dwBytes) == CM_OK ? dwBytes : 0;
}

void CTransportLinger::End_i(CmResult aReason) {
    m_pTransport->Disconnect(aReason);
    delete this;
}

}  // namespace talvo
