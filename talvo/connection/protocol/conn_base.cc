#include "talvo/connection/protocol/conn_base.h"

#include <cassert>
#include <utility>

#include "talvo/base/trace.h"

namespace {

BOOL MayFollow(WORD aStatus, WORD aNext) {
    switch (aStatus) {
    case CConnBase::CS_STATUS_NOT_CONNECTED:
        return aNext == CConnBase::CS_STATUS_HANDSHAKE || aNext == CConnBase::CS_STATUS_CONNECTED;
    case CConnBase::CS_STATUS_HANDSHAKE:
    case CConnBase::CS_STATUS_RECONNECTING:
        return aNext == CConnBase::CS_STATUS_CONNECTED || aNext == CConnBase::CS_STATUS_NOT_CONNECTED;
    case CConnBase::CS_STATUS_CONNECTED:
        return aNext == CConnBase::CS_STATUS_RECONNECTING || aNext == CConnBase::CS_STATUS_NOT_CONNECTED;
    default:
        return FALSE;
    }
}

}  // namespace

CmResult CConnBase::OpenWithSink(ICmTransportSink* aSink) {
    m_Est.EnsureSingleThread();
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    if (m_wStatus == CS_STATUS_NOT_CONNECTED)
        return CM_ERROR_NOT_AVAILABLE;
    m_pFrameSink = nullptr;
    if (!std::exchange(m_pSink, aSink))
        Opened_i();
    return CM_OK;
}

void CConnBase::SetTPTransport(ICmTransport* aTransport) {
    if (m_pTransport && !aTransport)
        m_pEnded = m_pTransport;
    m_pTransport = aTransport;
    BOOL bLayered = TRUE;
    if (aTransport)
        aTransport->SetOption(CM_OPT_TRANSPORT_LAYERED, &bLayered);
}

// CTransportLinger sends the rest.
void CConnBase::EndInOrder_i(BOOL) { Disconnect(CM_OK); }

void CConnBase::NoteFailure_i(ECmFailureCause aCause, const char* aText) {
    if (m_pFailureText)
        return;
    m_Cause = aCause;
    m_pFailureText = aText;
}

void CConnBase::SetCurrStatus(WORD aStatus) {
    if (aStatus == m_wStatus)
        return;
    if (!MayFollow(m_wStatus, aStatus)) {
        CM_ERROR_TRACE_THIS("CConnBase::SetCurrStatus, refused. m_wStatus=" << m_wStatus << " aStatus=" << aStatus);
        assert(FALSE);
        return;
    }
    CM_INFO_TRACE_THIS("CConnBase::SetCurrStatus, m_wStatus=" << m_wStatus << " aStatus=" << aStatus);
    m_wStatus = aStatus;
}

// Ending it adds and releases references, which must not end it again.
void CConnBase::OnReferenceDestory() {
    if (std::exchange(m_bReleased, TRUE))
        return;
    Disconnect(CM_OK);
    CCmReferenceControlTimerDeleteT::OnReferenceDestory();
}

void CConnBase::Indicate_i(CmResult aReason) {
    if (talvo::CConnOwner* pOwner = std::exchange(m_pOwner, nullptr))
        pOwner->OnOpened(*this, aReason);
}

void CConnBase::NotifyEnd_i(CmResult aReason) {
    if (ICmTransportSink* pSink = std::exchange(m_pSink, nullptr))
        pSink->OnDisconnect(aReason, this);
}

CmResult CConnBase::DisconnectTransport_i(CmResult aReason) {
    const CCmRefPtrT<ICmTransport> pTransport = m_pTransport;
    return pTransport ? pTransport->Disconnect(aReason) : CM_OK;
}

// This connection sends and receives messages: an end of the bytes below would truncate them.
CmResult CConnBase::SetTransportOption_i(DWORD aCommand, void* aArg) {
    if (aCommand == CM_OPT_TRANSPORT_END_SENDING || aCommand == CM_OPT_TRANSPORT_TELL_END)
        return CM_ERROR_INVALID_ARG;
    return m_pTransport ? m_pTransport->SetOption(aCommand, aArg) : CM_ERROR_NOT_AVAILABLE;
}

CmResult CConnBase::GetTransportOption_i(DWORD aCommand, void* aArg) {
    switch (aCommand) {
    case CM_OPT_TRANSPORT_LOCAL_ADDR:
    case CM_OPT_TRANSPORT_PEER_ADDR:
    case CM_OPT_TRANSPORT_TRAN_TYPE:
    case CM_OPT_TRANSPORT_LAST_FAILURE:
        return GetKeptOption_i(aCommand, aArg);
    default:
        return m_pTransport ? m_pTransport->GetOption(aCommand, aArg) : CM_ERROR_NOT_AVAILABLE;
    }
}

CmResult CConnBase::GetKeptOption_i(DWORD aCommand, void* aArg) {
    ICmTransport* pTransport = m_pTransport ? m_pTransport.Get() : m_pEnded.Get();
    if (aCommand != CM_OPT_TRANSPORT_LAST_FAILURE)
        return pTransport ? pTransport->GetOption(aCommand, aArg) : CM_ERROR_NOT_AVAILABLE;
    auto& failure = *static_cast<CCmFailure*>(aArg);
    failure = {};
    if (!pTransport)
        return CM_OK;
    if (!m_pFailureText)
        return pTransport->GetOption(aCommand, aArg);
    CCmInetAddr addrPeer;
    pTransport->GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &addrPeer);
    failure = CCmFailure(m_Cause, m_pFailureText, "talk to", addrPeer);
    return CM_OK;
}
