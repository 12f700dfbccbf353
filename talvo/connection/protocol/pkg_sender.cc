#include "talvo/connection/protocol/pkg_sender.h"

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/transport/connection_type.h"

namespace {

CCmLiveCounter s_Live("CPkgSender");

}  // namespace

CPkgSender::CPkgSender() : CCsConn(0) {
    ++s_Live;
    m_dwType = talvo::CConnectionType::NO_PARTIAL_DATA;
}

CPkgSender::~CPkgSender() { --s_Live; }

void CPkgSender::CancelConnect() {
    m_pOwner = nullptr;
    End_i(CM_OK);
}

CmResult CPkgSender::Disconnect(CmResult aReason) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CPkgSender::Disconnect(), aReason =" << aReason);
    return Close_i(aReason);
}

void CPkgSender::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CPkgSender::OnConnectIndication(), aReason =" << aReason);
    TakeTransport_i(aTrpt);
    if (aReason == CM_OK)
        aReason = aTrpt ? aTrpt->OpenWithSink(this) : CM_ERROR_UNEXPECTED;
    if (aReason != CM_OK) {
        End_i(CM_OK);
        Indicate_i(aReason);
        return;
    }
    const CmResult rv = m_bNeedKeepAlive ? ScheduleKeepAlive_i() : CM_OK;
    if (rv != CM_OK) {
        End_i(CM_OK);
        Indicate_i(rv);
        return;
    }
    SetCurrStatus(CS_STATUS_CONNECTED);
    Indicate_i(CM_OK);
}

void CPkgSender::OnDisconnect(CmResult aReason, ICmTransport* aTrpt) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CPkgSender::OnDisconnect(), aReason =" << aReason << ", aTrptId =" << static_cast<void*>(aTrpt));
    m_tvDisconnect = CCmTimeValue::GetTimeOfDay() - CCmTimeValue(90);
    End_i(CM_ERROR_NETWORK_CONNECT_TIMEOUT);
    NotifyEnd_i(aReason);
}

void CPkgSender::OnTimer(CCmTimerWrapperID*) {
    m_Est.EnsureSingleThread();
    SendKeepAliveIfDue_i();
}
