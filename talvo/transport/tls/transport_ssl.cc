#include "talvo/transport/tls/transport_ssl.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/would_block.h"

using talvo::CTlsSession;

namespace {

CCmLiveCounter s_Live("CCmTransportSsl");

using talvo::WOULD_BLOCK;

}  // namespace

CCmTransportSsl::CCmTransportSsl(ICmReactor* aReactor, DWORD aType) : CCmTransportTcp(aReactor), m_dwType(aType) { ++s_Live; }

// The hooks of this class end here, so the socket is closed now.
CCmTransportSsl::~CCmTransportSsl() {
    Close_t(CM_OK);
    --s_Live;
}

CmResult CCmTransportSsl::Begin(const CCmRefPtrT<CCmSslContext>& aContext, const char* aServerName,
                                const std::vector<unsigned char>& aAlpn) {
    if (m_pSession)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (!aContext)
        return CM_ERROR_INVALID_ARG;
    m_pContext = aContext;
    talvo::ITlsLower& lower = m_pOuter ? static_cast<talvo::ITlsLower&>(*m_pOuter) : *this;
    return aContext->Begin_i(*this, lower, m_dwType, aServerName, aAlpn, m_pSession);
}

CmResult CCmTransportSsl::BeginOuter(const CCmRefPtrT<CCmSslContext>& aContext, const char* aServerName) {
    if (m_pOuter || m_pSession)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (!aContext || !aServerName)
        return CM_ERROR_INVALID_ARG;
    std::unique_ptr<talvo::CTlsOuter> pOuter(new (std::nothrow) talvo::CTlsOuter(aContext));
    if (!pOuter)
        return CM_ERROR_OUT_OF_MEMORY;
    const CmResult rv = aContext->Begin_i(*this, *this, CM_TRANSPORT_TYPE_TLS, aServerName, {}, pOuter->ParaOut());
    if (rv == CM_OK)
        m_pOuter = std::move(pOuter);
    return rv;
}

void CCmTransportSsl::UseOuter() {
    m_pContext = m_pOuter->GetContext();
    m_pSession = std::move(m_pOuter->ParaOut());
    m_pOuter.reset();
}

CTlsSession::EResult CCmTransportSsl::Handshake() {
    const CTlsSession::EResult result = m_pSession->Handshake();
    if (result == CTlsSession::FAILED || !m_pOuter || m_pOuter->GetSession().Flush(FALSE) == CTlsSession::DONE)
        return result;
    return CTlsSession::WANT_WRITE;
}

CmResult CCmTransportSsl::Open_t() { return IsUp_i() ? CCmTransportTcp::Open_t() : CM_ERROR_NOT_INITIALIZED; }

// The bytes that SendData has taken still leave, as the system's own do.
void CCmTransportSsl::OnReferenceDestory() {
    if (GetHandle() != CM_INVALID_HANDLE && Flush_i(TRUE) == CM_ERROR_PARTIAL_DATA)
        LetLinger_i();
    CCmTransportTcp::OnReferenceDestory();
}

CmResult CCmTransportSsl::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    if (IsUp_i())
        return CCmTransportTcp::SendData(aData, aPara);
    if (aPara)
        aPara->m_dwHaveSent = 0;
    return CM_ERROR_NOT_INITIALIZED;
}

int CCmTransportSsl::Read_i(char* aBuf, DWORD aLen, BOOL& aMore) {
    const BOOL bCouldSeal = m_pSession->CanSeal();
    DWORD dwRead = 0;
    const CTlsSession::EResult result = m_pSession->Read(aBuf, aLen, dwRead, aMore);
    if (GetUnsent_i() > 0 && !m_pSession->HoldsBack())
        WaitForRoom_i();
    if (!bCouldSeal && m_pSession->CanSeal())
        m_pReactor->NotifyHandler(this, WRITE_MASK);
    if (dwRead > 0)
        return static_cast<int>(dwRead);
    return result == CTlsSession::WANT_READ ? WOULD_BLOCK : Ended_i(result);
}

// Tickets that no answer has taken along leave now. The sink may have released the transport.
int CCmTransportSsl::OnInput(HANDLE aFd) {
    if (!m_pSession->HoldsBack())
        return CCmTransportTcp::OnInput(aFd);
    const CCmRefPtrT<CCmTransportSsl> pThis(this);
    const int nRv = CCmTransportTcp::OnInput(aFd);
    if (nRv != -1 && GetHandle() != CM_INVALID_HANDLE && m_pSession->HoldsBack() && Flush_i(FALSE) == CM_ERROR_PARTIAL_DATA)
        WaitForRoom_i();
    return nRv;
}

// The answer to close_notify is one: the peer may still read. The caller closes the socket.
int CCmTransportSsl::Ended_i(CTlsSession::EResult aResult) {
    if (aResult == CTlsSession::ENDED && IsEndTold_i())
        return 0;
    if (aResult == CTlsSession::ENDED)
        FlushBoth_i(TRUE, TRUE);
    else
        NoteEnd_i();
    if (aResult == CTlsSession::ENDED && m_pSession->IsDrained() && !m_pOuter)
        NoteDrained_i();
    return -1;
}

DWORD CCmTransportSsl::GetHeld_i() const {
    const auto heldBy = [](const CTlsSession* a) { return a ? a->GetHeld() + a->GetInput() : 0; };
    return CCmTransportTcp::GetHeld_i() + heldBy(m_pSession.get()) + heldBy(GetOuter());
}

BOOL CCmTransportSsl::HasEnded_i() const { return (m_pSession && m_pSession->HasPeerEnded()) || CCmTransportTcp::HasEnded_i(); }

void CCmTransportSsl::NoteEnd_i() {
    static constexpr CWayToFail CUT = {CM_FAILURE_PROTOCOL, "the stream has ended without close_notify", "receive from"};
    static constexpr CWayToFail BROKEN = {CM_FAILURE_PROTOCOL, "the peer has broken TLS off", "receive from"};
    if (!m_pSession || m_pSession->HasPeerEnded() || HasFailed_i())
        return;
    CM_WARNING_TRACE_THIS("CCmTransportSsl::NoteEnd_i, fd=" << GetHandle() << " why=" << m_pSession->GetFailureText());
    NoteFailure_i(m_pSession->IsBroken() ? BROKEN : CUT);
}

// The peer reads no more answers, so reading need not wait for them. The reactor reads before a close only while that takes
// bytes from the socket, which a read of kept bytes does not.
int CCmTransportSsl::OnClose(HANDLE aFd, long aMask) {
    for (CTlsSession* pSession : {m_pSession.get(), m_pOuter ? &m_pOuter->GetSession() : nullptr}) {
        if (!pSession)
            continue;
        pSession->DropAnswers();
        if (!pSession->HasLooked() && !m_pReactor->IsOrderlyEnd())
            NoteMore_i();
    }
    return CCmTransportTcp::OnClose(aFd, aMask);
}

int CCmTransportSsl::Write_i(const iovec* aPieces, DWORD aCount) {
    DWORD dwTaken = 0;
    CTlsSession::EResult result = m_pOuter ? m_pOuter->GetSession().Flush(FALSE) : CTlsSession::DONE;
    if (result == CTlsSession::DONE)
        result = m_pSession->Write(aPieces, aCount, dwTaken);
    if (result == CTlsSession::DONE && GetUnsent_i() > 0)
        WaitForRoom_i();
    ReadOn_i();
    if (result == CTlsSession::WANT_WRITE || (result == CTlsSession::FAILED && dwTaken > 0))
        WaitForRoom_i();
    if (dwTaken > 0)
        return static_cast<int>(dwTaken);  // a failure comes with the flush
    if (result == CTlsSession::FAILED)
        errno = m_pSession->GetSendErrno() != 0 ? m_pSession->GetSendErrno() : EPROTO;
    else
        errno = EAGAIN;
    return -1;
}

CmResult CCmTransportSsl::Flush_i(BOOL aEnd) { return FlushBoth_i(aEnd, FALSE); }

CmResult CCmTransportSsl::FlushBoth_i(BOOL aEnd, BOOL aMore) {
    if (!m_pSession)
        return CM_OK;
    CTlsSession::EResult result = m_pSession->Flush(aEnd, aMore);
    if (m_pOuter && result != CTlsSession::FAILED) {
        const CTlsSession::EResult outer = m_pOuter->GetSession().Flush(aEnd && result == CTlsSession::DONE, aMore);
        result = result == CTlsSession::DONE ? outer : result;
    }
    ReadOn_i();
    if (result == CTlsSession::WANT_WRITE)
        return CM_ERROR_PARTIAL_DATA;
    if (result == CTlsSession::DONE)
        return CM_OK;
    errno = m_pSession->GetSendErrno() != 0 ? m_pSession->GetSendErrno() : EPROTO;
    return CM_ERROR_NETWORK_SOCKET_ERROR;
}

void CCmTransportSsl::ReadOn_i() {
    const BOOL bOuter = m_pOuter && m_pOuter->GetSession().MayReadOn();
    if (m_pSession->MayReadOn() || bOuter)
        m_pReactor->NotifyHandler(this, READ_MASK);
}

DWORD CCmTransportSsl::GetUnsent_i() const {
    return (m_pSession ? m_pSession->GetUnsent() : 0) + (m_pOuter ? m_pOuter->GetSession().GetUnsent() : 0);
}

// The outer session keeps them, if there is one.
CCmChainPtr CCmTransportSsl::TakeUnsent_i() {
    if (m_pOuter)
        return m_pOuter->GetSession().TakeUnsent();
    return m_pSession ? m_pSession->TakeUnsent() : nullptr;
}

CmResult CCmTransportSsl::GetEndReason_i() const {
    const BOOL bPlain = m_dwType == CM_TRANSPORT_TYPE_TCP;
    return bPlain || !m_pSession || m_pSession->HasPeerEnded() ? CM_ERROR_NETWORK_SOCKET_ERROR : CM_ERROR_NETWORK_TLS_CUT;
}

// The socket alone is of no use to its next owner if a record has begun, or if TLS to a proxy is around the peer's bytes.
CmResult CCmTransportSsl::SetOption(DWORD aCommand, void* aArg) {
    const BOOL bDetach = aCommand == CM_OPT_TRANSPORT_FD && aArg && *static_cast<HANDLE*>(aArg) == CM_INVALID_HANDLE;
    if (bDetach && (m_dwType == CM_TRANSPORT_TYPE_TCP || m_pOuter || (m_pSession && m_pSession->HasBegunRecord())))
        return CM_ERROR_NOT_AVAILABLE;
    return CCmTransportTcp::SetOption(aCommand, aArg);
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
    case CM_OPT_TRANSPORT_LAST_FAILURE:
        return GetLastFailure_i(*static_cast<CCmFailure*>(aArg));
    case CM_OPT_TRANSPORT_SOCK_ALIVE:
        return GetAlive_i(*static_cast<BOOL*>(aArg));
    case CM_OPT_TRANSPORT_SSL_INFO:
        if (m_dwType == CM_TRANSPORT_TYPE_TCP)
            break;
        return GetInfo_i(*static_cast<CCmSslInfo*>(aArg));
    case CM_OPT_TRANSPORT_SSL_PEER_CERTIFICATE:
        if (m_dwType == CM_TRANSPORT_TYPE_TCP)
            break;
        return m_pSession ? m_pSession->GetPeerCertificate(*static_cast<CCmString*>(aArg)) : CM_ERROR_NOT_INITIALIZED;
    default:
        break;
    }
    return CCmTransportTcp::GetOption(aCommand, aArg);
}

// An unread record, close_notify for example, hides the end of the socket behind it from the TCP transport.
CmResult CCmTransportSsl::GetAlive_i(BOOL& aAlive) {
    const CmResult rv = CCmTransportTcp::GetOption(CM_OPT_TRANSPORT_SOCK_ALIVE, &aAlive);
    pollfd socket{GetHandle(), POLLRDHUP, 0};
    if (rv == CM_OK && m_pSession && (m_pSession->HasPeerEnded() || poll(&socket, 1, 0) > 0))
        aAlive = FALSE;
    return rv;
}

// The alert of the peer, or the fault of a record.
CmResult CCmTransportSsl::GetLastFailure_i(CCmFailure& aFailure) {
    const CmResult rv = CCmTransportTcp::GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &aFailure);
    if (rv == CM_OK && aFailure.GetCause() == CM_FAILURE_PROTOCOL && m_pSession->IsBroken())
        aFailure = CCmFailure(CM_FAILURE_PROTOCOL, m_pSession->GetFailureText(), aFailure);
    return rv;
}

CmResult CCmTransportSsl::GetInfo_i(CCmSslInfo& aInfo) const {
    if (!m_pSession)
        return CM_ERROR_NOT_INITIALIZED;
    return talvo::WithMemory([&] { m_pSession->GetInfo(aInfo); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}
