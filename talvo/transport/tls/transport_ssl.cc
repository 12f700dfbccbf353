#include "talvo/transport/tls/transport_ssl.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

using talvo::CTlsSession;

namespace {

CCmLiveCounter s_Live("CCmTransportSsl");

constexpr int WOULD_BLOCK = -2;

}  // namespace

CCmTransportSsl::CCmTransportSsl(ICmReactor* aReactor, DWORD aType) : CCmTransportTcp(aReactor), m_dwType(aType) { ++s_Live; }

// The hooks of this class end here, so the socket is closed now.
CCmTransportSsl::~CCmTransportSsl() {
    Close_t(CM_OK);
    --s_Live;
}

CmResult CCmTransportSsl::Begin(const CCmRefPtrT<CCmSslContext>& aContext, const char* aServerName) {
    if (m_pSession)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (!aContext)
        return CM_ERROR_INVALID_ARG;
    m_pContext = aContext;
    return aContext->Begin_i(*this, m_dwType, aServerName, m_pSession);
}

CmResult CCmTransportSsl::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    if (m_pSession)
        return CCmTransportTcp::SendData(aData, aPara);
    if (aPara)
        aPara->m_dwHaveSent = 0;
    return CM_ERROR_NOT_INITIALIZED;
}

int CCmTransportSsl::Read_i(char* aBuf, DWORD aLen, BOOL& aMore) {
    if (!m_pSession)
        return CCmTransportTcp::Read_i(aBuf, aLen, aMore);
    DWORD dwRead = 0;
    const CTlsSession::EResult result = m_pSession->Read(aBuf, std::min(aLen, CTlsSession::RECORD), dwRead, aMore);
    if (m_pSession->GetUnsent() > 0)
        WaitForRoom_i();
    if (dwRead > 0)
        return static_cast<int>(dwRead);
    if (result != CTlsSession::WANT_READ)
        return Ended_i(result);
    if (aMore)
        m_pReactor->NotifyHandler(this, READ_MASK);  // the peer sends records without data
    return WOULD_BLOCK;
}

int CCmTransportSsl::Ended_i(CTlsSession::EResult aResult) {
    if (aResult == CTlsSession::ENDED)
        return IsEndTold_i() ? 0 : -1;
    NoteEnd_i();
    return -1;
}

DWORD CCmTransportSsl::GetHeld_i() const { return CCmTransportTcp::GetHeld_i() + (m_pSession ? m_pSession->GetHeld() : 0); }

void CCmTransportSsl::NoteEnd_i() {
    static constexpr CWayToFail CUT = {CM_FAILURE_PROTOCOL, "the stream has ended without close_notify", "receive from"};
    static constexpr CWayToFail BROKEN = {CM_FAILURE_PROTOCOL, "a record is not valid", "receive from"};
    if (!m_pSession || m_pSession->HasPeerEnded() || HasFailed_i())
        return;
    CM_WARNING_TRACE_THIS("CCmTransportSsl::NoteEnd_i, fd=" << GetHandle() << " why=" << m_pSession->GetFailureText());
    NoteFailure_i(m_pSession->IsCut() ? CUT : BROKEN);
}

int CCmTransportSsl::Write_i(const iovec* aPieces, DWORD aCount) {
    DWORD dwTaken = 0;
    const CTlsSession::EResult result = m_pSession->Write(aPieces, aCount, dwTaken);
    if (result == CTlsSession::FAILED) {
        errno = EPROTO;
        return -1;
    }
    if (result == CTlsSession::WANT_WRITE)
        WaitForRoom_i();
    errno = EAGAIN;
    return dwTaken > 0 ? static_cast<int>(dwTaken) : -1;
}

CmResult CCmTransportSsl::Flush_i(BOOL aEnd) {
    if (!m_pSession)
        return CM_OK;
    const BOOL bWaited = m_pSession->WaitsForAnswers();
    switch (m_pSession->Flush(aEnd)) {
    case CTlsSession::DONE:
        if (bWaited)
            m_pReactor->NotifyHandler(this, READ_MASK);
        return CM_OK;
    case CTlsSession::FAILED:
        errno = errno ? errno : EPROTO;
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    default:
        return CM_ERROR_PARTIAL_DATA;
    }
}

DWORD CCmTransportSsl::GetUnsent_i() const { return m_pSession ? m_pSession->GetUnsent() : 0; }

CCmChainPtr CCmTransportSsl::TakeUnsent_i() { return m_pSession ? m_pSession->TakeUnsent() : nullptr; }

CmResult CCmTransportSsl::GetEndReason_i() const {
    return !m_pSession || m_pSession->HasPeerEnded() ? CM_ERROR_NETWORK_SOCKET_ERROR : CM_ERROR_NETWORK_TLS_CUT;
}

CmResult CCmTransportSsl::GetOption(DWORD aCommand, void* aArg) {
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    switch (aCommand) {
    case CM_OPT_TRANSPORT_TRAN_TYPE:
        *static_cast<DWORD*>(aArg) = m_dwType;
        return CM_OK;
    case CM_OPT_TRANSPORT_FIO_NREAD: {  // decrypted bytes alone
        if (GetHandle() == CM_INVALID_HANDLE)
            break;
        *static_cast<DWORD*>(aArg) = m_pSession ? m_pSession->GetHeld() : 0;
        return CM_OK;
    }
    case CM_OPT_TRANSPORT_SOCK_ALIVE:
        if (m_pSession && m_pSession->HasPeerEnded() && GetHandle() != CM_INVALID_HANDLE) {
            *static_cast<BOOL*>(aArg) = FALSE;
            return CM_OK;
        }
        break;
    case CM_OPT_TRANSPORT_SSL_INFO:
        return GetInfo_i(*static_cast<CCmSslInfo*>(aArg));
    case CM_OPT_TRANSPORT_SSL_PEER_CERTIFICATE:
        return m_pSession ? m_pSession->GetPeerCertificate(*static_cast<CCmString*>(aArg)) : CM_ERROR_NOT_INITIALIZED;
    default:
        break;
    }
    return CCmTransportTcp::GetOption(aCommand, aArg);
}

CmResult CCmTransportSsl::GetInfo_i(CCmSslInfo& aInfo) const {
    if (!m_pSession)
        return CM_ERROR_NOT_INITIALIZED;
    return talvo::WithMemory([&] { m_pSession->GetInfo(aInfo); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}
