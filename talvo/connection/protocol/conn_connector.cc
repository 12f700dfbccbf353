#include "talvo/connection/protocol/conn_connector.h"

#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CConnConnectorT");

}  // namespace

CConnConnectorBase::CConnConnectorBase(CCmRefPtrT<ICmConnector> aLower) : m_pLower(std::move(aLower)) { ++s_Live; }

CConnConnectorBase::~CConnConnectorBase() {
    Cancel_i();
    --s_Live;
}

void CConnConnectorBase::AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout,
                                     CCmInetAddr* aAddrLocal) {
    m_Est.EnsureSingleThread();
    if (!aSink || m_Opening || m_NoMemory.IsDue()) {
        CM_WARNING_TRACE_THIS("CConnConnectorT::AsycConnect, refused. aSink=" << static_cast<const void*>(aSink) << " m_pSink="
                                                                              << static_cast<const void*>(m_pSink));
        return;
    }
    m_Failure = {};
    m_IfClosed = CCmFailure(CM_FAILURE_PROTOCOL, "the peer has closed before the connection was open", "talk to", aAddrPeer);
    m_pSink = aSink;
    JoinCurrentThread();
    m_Opening = MakeConnection();
    if (!m_Opening) {
        CM_ERROR_TRACE_THIS("CConnConnectorT::AsycConnect, out of memory.");
        m_Failure = CCmFailure(CM_FAILURE_LOCAL, "out of memory", m_IfClosed);
        m_NoMemory.Arm();
        return;
    }
    m_Opening.m_pConn->SetConnConnector(this);
    m_pLower->AsycConnect(m_Opening.m_pSink, aAddrPeer, aTimeout, aAddrLocal);
}

void CConnConnectorBase::OnNoMemory() {
    ICmAcceptorConnectorSink* pSink = std::exchange(m_pSink, nullptr);
    pSink->OnConnectIndication(CM_ERROR_OUT_OF_MEMORY, nullptr, this);  // last: it may release this connector
}

void CConnConnectorBase::CancelConnect() {
    m_Est.EnsureSingleThread();
    Cancel_i();
}

// Also during the handshake, when the connector below has finished.
void CConnConnectorBase::OnDrain(ECmDrainStage aStage) {
    ICmAcceptorConnectorSink* pSink = m_pSink;
    if (!pSink || m_NoMemory.IsOrphan() || !ends_connections(aStage))
        return;
    Cancel_i();
    m_Failure = CCmFailure(CM_FAILURE_LOCAL, "all connections are being ended", m_IfClosed);
    pSink->OnConnectIndication(CM_ERROR_NOT_AVAILABLE, nullptr, this);  // last: it may release this connector
}

void CConnConnectorBase::Cancel_i() {
    m_pSink = nullptr;
    m_NoMemory.Cancel();
    if (const COpeningConn opening = std::exchange(m_Opening, {})) {
        m_pLower->CancelConnect();
        opening.Cancel();
    }
}

// Of the connector below, or of the opening. A peer's graceful close leaves no other trace.
CCmFailure CConnConnectorBase::FailureOf_i(CConnBase& aConn) const {
    CCmFailure failure = GetConnectFailure(m_pLower.Get());
    if (!failure)
        aConn.GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure);
    return failure ? failure : m_IfClosed;
}

void CConnConnectorBase::OnOpened(CConnBase& aConn, CmResult aReason) {
    if (m_Opening.m_pConn.Get() != &aConn)
        return;
    const COpeningConn opening = std::exchange(m_Opening, {});  // lives until the sink has been notified
    if (aReason != CM_OK)
        m_Failure = FailureOf_i(aConn);
    // The connection may have failed by itself while the connector below still runs.
    m_pLower->CancelConnect();
    ICmAcceptorConnectorSink* pSink = std::exchange(m_pSink, nullptr);
    pSink->OnConnectIndication(aReason, aReason == CM_OK ? &aConn : nullptr, this);  // last: it may release this connector
}

}  // namespace talvo
