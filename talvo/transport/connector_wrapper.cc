#include "talvo/transport/connector_wrapper.h"

#include <cerrno>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/event/thread_manager.h"
#include "talvo/transport/base_types.h"

namespace {

CCmLiveCounter s_Live("CCmConnectorWrapper");

}  // namespace

CCmConnectorWrapper::CCmConnectorWrapper() { ++s_Live; }

CCmConnectorWrapper::~CCmConnectorWrapper() {
    Close_i();
    --s_Live;
}

CmResult CCmConnectorWrapper::Init(DWORD aType) {
    m_Est.EnsureSingleThread();
    if (m_pConnector)
        return CM_ERROR_ALREADY_INITIALIZED;
    m_pReactor = CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_NETWORK);
    if (!m_pReactor)
        return CM_ERROR_NOT_INITIALIZED;
    CCmBaseTypeMakers makers;
    CmResult rv = cm_get_base_type(aType, makers);
    if (rv == CM_OK && !makers.m_Connector)
        rv = CM_ERROR_NOT_IMPLEMENTED;
    if (rv != CM_OK) {
        CM_WARNING_TRACE_THIS("CCmConnectorWrapper::Init, error type=" << aType);
        Close_i();
        return rv;
    }
    m_pConnector = makers.m_Connector({aType, m_pReactor, this});
    if (!m_pConnector)
        return CM_ERROR_OUT_OF_MEMORY;
    m_Type = aType;
    return CM_OK;
}

void CCmConnectorWrapper::AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout,
                                      CCmInetAddr* aAddrLocal) {
    m_Est.EnsureSingleThread();
    const BOOL bEnded = m_pReactor && !m_pReactor.IsAlive();
    if (!aSink || !m_bClosed || bEnded) {
        CM_WARNING_TRACE_THIS("CCmConnectorWrapper::AsycConnect, refused. aSink="
                              << static_cast<const void*>(aSink) << " m_bClosed=" << m_bClosed << " bEnded=" << bEnded);
        return;
    }
    m_pSink = aSink;
    m_bClosed = FALSE;
    JoinCurrentThread();
    m_IfLate = CCmFailure(CM_FAILURE_TIMEOUT, "the time-out of the attempt has passed", "connect to", aAddrPeer);
    m_Failure = {};
    CM_INFO_TRACE_THIS("CCmConnectorWrapper::AsycConnect, addr="
                       << aAddrPeer.GetIpDisplayName() << " port=" << aAddrPeer.GetPort() << " m_Type=" << m_Type
                       << " m_pConnector=" << static_cast<const void*>(m_pConnector.get()));
    if (m_pConnector)
        m_pConnector->SetTimed(aTimeout != nullptr);
    if (m_pConnector && m_pConnector->Connect(aAddrPeer, aAddrLocal) != -1) {
        if (aTimeout)
            ReportLater_i(*aTimeout, CM_ERROR_NETWORK_CONNECT_ERROR);
        return;
    }
    CM_WARNING_TRACE("CCmConnectorWrapper::AsycConnect, connect failed. addr=" << aAddrPeer.GetIpDisplayName()
                                                                               << " err=" << errno);
    m_Failure = m_pConnector ? m_pConnector->GetFailure() : CCmFailure(CM_FAILURE_LOCAL, "the connector has no type", m_IfLate);
    // From a timer, although the result is known now: a sink gets no callback from inside its own AsycConnect.
    const BOOL bNoMemory = m_Failure.GetErrno() == ENOMEM;
    ReportLater_i(CCmTimeValue::s_tvZero, bNoMemory ? CM_ERROR_OUT_OF_MEMORY : CM_ERROR_NETWORK_CONNECT_TIMEOUT);
}

void CCmConnectorWrapper::ReportLater_i(const CCmTimeValue& aDelay, CmResult aReason) {
    if (!m_pReactor)
        m_pReactor = CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_NETWORK);
    CmResult rv = CM_ERROR_NOT_INITIALIZED;
    if (m_pReactor)
        rv = m_pReactor->ScheduleTimer(this, reinterpret_cast<void*>(static_cast<intptr_t>(aReason)), aDelay, 1);
    if (rv == CM_OK || rv == CM_ERROR_FOUND)
        return;
    CM_ERROR_TRACE_THIS("CCmConnectorWrapper::AsycConnect, ScheduleTimer() failed! rv=" << rv);
    if (m_pConnector)
        m_pConnector->Close();
    m_Failure = CCmFailure(CM_FAILURE_LOCAL, "there is no timer for the attempt", m_IfLate);
    m_NoMemory.Arm();
}

void CCmConnectorWrapper::OnNoMemory() {
    Close_i();
    m_pSink->OnConnectIndication(CM_ERROR_OUT_OF_MEMORY, nullptr, this);  // last: the sink may release this connector
}

void CCmConnectorWrapper::OnTimeout(const CCmTimeValue&, void* aArg) {
    const CmResult reason = static_cast<CmResult>(reinterpret_cast<intptr_t>(aArg));
    if (reason == CM_ERROR_NETWORK_CONNECT_TIMEOUT || reason == CM_ERROR_OUT_OF_MEMORY) {
        CM_INFO_TRACE("CCmConnectorWrapper::OnTimeout, connect failed.");
    } else if (reason == CM_ERROR_NETWORK_CONNECT_ERROR) {
        CM_INFO_TRACE("CCmConnectorWrapper::OnTimeout, connect timeout.");
        m_Failure = m_IfLate;
    } else {
        CM_WARNING_TRACE_THIS("CCmConnectorWrapper::OnTimeout, unkown nReason=" << reason);
        return;
    }
    Close_i();
    m_pSink->OnConnectIndication(reason, nullptr, this);  // last: the sink may release this connector
}

// An attempt without a connection has taken no data.
void CCmConnectorWrapper::OnDrain(ECmDrainStage aStage) {
    if (m_bClosed || m_NoMemory.IsOrphan() || !talvo::ends_connections(aStage))
        return;
    Close_i();
    m_Failure = CCmFailure(CM_FAILURE_LOCAL, "all connections are being ended", m_IfLate);
    m_pSink->OnConnectIndication(CM_ERROR_NOT_AVAILABLE, nullptr, this);  // last: the sink may release this connector
}

int CCmConnectorWrapper::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal* aId) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CCmConnectorWrapper::OnConnectIndication, aReason="
                       << aReason << " aTrpt=" << static_cast<const void*>(aTrpt) << " aId=" << static_cast<const void*>(aId));
    const CCmRefPtrT<ICmTransport> pTransport(aTrpt);  // for the duration of the call
    if (aReason != CM_OK && aId)
        m_Failure = aId->GetFailure();
    Close_i();
    m_pSink->OnConnectIndication(aReason, aReason == CM_OK ? aTrpt : nullptr, this);  // last, as above
    return 0;
}

void CCmConnectorWrapper::CancelConnect() {
    m_Est.EnsureSingleThread();
    Close_i();
    m_pSink = nullptr;
}

CmResult CCmConnectorWrapper::SetOption_i(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    return m_pConnector ? m_pConnector->SetOption(aCommand, aArg) : CM_ERROR_NOT_INITIALIZED;
}

CmResult CCmConnectorWrapper::GetOption_i(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    return m_pConnector ? m_pConnector->GetOption(aCommand, aArg) : CM_ERROR_NOT_INITIALIZED;
}

void CCmConnectorWrapper::Close_i() {
    if (m_bClosed)
        return;
    m_bClosed = TRUE;
    m_NoMemory.Cancel();
    if (m_pConnector)
        m_pConnector->Close();
    m_pReactor->CancelTimer(this);
}
