#include "talvo/connection/conn_base.h"

#include <utility>

CmResult CConnBase::OpenWithSink(ICmTransportSink* aSink) {
    m_Est.EnsureSingleThread();
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    if (m_wStatus == CS_STATUS_NOT_CONNECTED)
        return CM_ERROR_NOT_AVAILABLE;
    m_pSink = aSink;
    return CM_OK;
}

void CConnBase::SetCurrStatus(WORD aStatus) {
    m_wPrevStatus = m_wStatus;
    m_wStatus = aStatus;
}

// Ending it adds and releases references of its own, which must not end it again.
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

void CConnBase::TellEnd_i(CmResult aReason) {
    if (ICmTransportSink* pSink = std::exchange(m_pSink, nullptr))
        pSink->OnDisconnect(aReason, this);
}

CmResult CConnBase::DisconnectTransport_i(CmResult aReason) {
    const CCmRefPtrT<ICmTransport> pTransport = m_pTransport;
    return pTransport ? pTransport->Disconnect(aReason) : CM_OK;
}

CmResult CConnBase::SetTransportOption_i(DWORD aCommand, void* aArg) {
    return m_pTransport ? m_pTransport->SetOption(aCommand, aArg) : CM_ERROR_NOT_AVAILABLE;
}

CmResult CConnBase::GetTransportOption_i(DWORD aCommand, void* aArg) {
    return m_pTransport ? m_pTransport->GetOption(aCommand, aArg) : CM_ERROR_NOT_AVAILABLE;
}
