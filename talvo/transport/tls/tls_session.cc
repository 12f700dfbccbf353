#include "talvo/transport/tls/tls_session.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/tls/tls_call.h"
#include "talvo/transport/tls/tls_pieces.h"
#include "talvo/transport/would_block.h"

namespace talvo {

namespace {

constexpr size_t MOST_HELD_BACK = 2048;
constexpr int MOST_ROUNDS = 2;  // of one Read: the bytes that are left of the last one, and those of the socket

// The queue belongs to the thread, which may have other users of OpenSSL.
void ClearErrors() {
    if (ERR_peek_error() != 0)
        ERR_clear_error();
}

}  // namespace

// The adapter between OpenSSL and a session.
struct CTlsBio {
    static CTlsSession& SessionOf(BIO* aBio) { return *static_cast<CTlsSession*>(BIO_get_data(aBio)); }

    static int Read(BIO* aBio, char* aBuf, int aLen) {
        BIO_clear_retry_flags(aBio);
        const int nRead = SessionOf(aBio).ReadRaw_i(aBuf, aLen);
        if (nRead == WOULD_BLOCK)
            BIO_set_retry_read(aBio);
        return nRead < 0 ? -1 : nRead;
    }
    static int Write(BIO* aBio, const char* aBuf, int aLen) {
        BIO_clear_retry_flags(aBio);
        return SessionOf(aBio).WriteRaw_i(aBuf, aLen);
    }
    static long Control(BIO*, int aCommand, long, void*) { return aCommand == BIO_CTRL_FLUSH ? 1 : 0; }
    static int Create(BIO* aBio) {
        BIO_set_init(aBio, 1);
        return 1;
    }
    // For the life of the process; null: memory ran out.
    static const BIO_METHOD* GetMethod() {
        static const BIO_METHOD* s_pMethod = [] {
            BIO_METHOD* pMethod = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "talvo");
            if (pMethod) {
                BIO_meth_set_read(pMethod, Read);
                BIO_meth_set_write(pMethod, Write);
                BIO_meth_set_ctrl(pMethod, Control);
                BIO_meth_set_create(pMethod, Create);
            }
            return pMethod;
        }();
        return s_pMethod;
    }

    // OpenSSL checks no name if the copy of the name for the check has found no memory.
    static bool HasLostName(const SSL* aSsl, X509_STORE_CTX* aStore) {
        X509_VERIFY_PARAM* pParam = X509_STORE_CTX_get0_param(aStore);
        if (SSL_is_server(aSsl) || X509_VERIFY_PARAM_get0_host(pParam, 0))
            return false;
        char* pAddress = X509_VERIFY_PARAM_get1_ip_asc(pParam);
        OPENSSL_free(pAddress);
        return !pAddress;
    }

    static int Verify(int aGood, X509_STORE_CTX* aStore) {
        const auto* pSsl = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(aStore, SSL_get_ex_data_X509_STORE_CTX_idx()));
        auto* pSession = static_cast<CTlsSession*>(SSL_get_app_data(pSsl));
        if (aGood && !HasLostName(pSsl, aStore))
            return aGood;
        if (aGood)
            X509_STORE_CTX_set_error(aStore, X509_V_ERR_OUT_OF_MEM);
        if (!pSession)
            return 0;
        char szSubject[200] = "";
        if (X509* pCertificate = X509_STORE_CTX_get_current_cert(aStore))
            X509_NAME_oneline(X509_get_subject_name(pCertificate), szSubject, sizeof szSubject);
        pSession->Verified_i(X509_STORE_CTX_get_error(aStore), X509_STORE_CTX_get_error_depth(aStore), szSubject);
        return (SSL_get_verify_mode(pSsl) & SSL_VERIFY_PEER) == 0;
    }
};

CTlsSession::CTlsSession(ITlsLower& aLower, ssl_st* aSsl) : m_Lower(aLower), m_pSsl(aSsl) {
    ClearErrors();
    SSL_set_app_data(m_pSsl, this);
    SSL_set_verify(m_pSsl, SSL_get_verify_mode(m_pSsl), CTlsBio::Verify);
    const BIO_METHOD* pMethod = CTlsBio::GetMethod();
    BIO* pBio = pMethod ? BIO_new(pMethod) : nullptr;
    ClearErrors();
    if (!pBio)
        throw std::bad_alloc();
    BIO_set_data(pBio, this);
    SSL_set_bio(m_pSsl, pBio, pBio);
}

CTlsSession::~CTlsSession() {
    SSL_free(m_pSsl);
    ClearErrors();
}

BOOL CTlsSession::UseAlpn(const std::vector<unsigned char>& aList) {
    if (!SSL_is_server(m_pSsl))
        return SSL_set_alpn_protos(m_pSsl, aList.data(), static_cast<unsigned>(aList.size())) == 0;
    return WithMemory([&] { m_Alpn = aList; });
}

const char* CTlsSession::GetFailureText() const {
    if (IsUnverified())
        return m_pUnverified;
    return m_pFailure ? m_pFailure : "the peer has closed without an end of TLS";
}

DWORD CTlsSession::GetHeld() const { return m_bFailed ? 0 : static_cast<DWORD>(SSL_pending(m_pSsl)); }

DWORD CTlsSession::GetInput() const { return m_pInput && !m_bFailed ? m_pInput->GetSize() : 0; }

// OpenSSL has taken a whole header if it waits for the body ("RB").
BOOL CTlsSession::HasBegunRecord() const {
    return GetInput() > 0 || SSL_has_pending(m_pSsl) == 1 || std::strcmp(SSL_rstate_string(m_pSsl), "RB") == 0;
}

BOOL CTlsSession::CanSeal() const { return SSL_in_init(m_pSsl) == 0; }

// A count; -2: would block, or this call may read no more; -1: the socket has ended or failed.
int CTlsSession::ReadRaw_i(char* aBuf, int aLen) {
    if (m_bUp && HasTooManyAnswers_i())
        return WOULD_BLOCK;
    if (GetInput() == 0 && !Receive_i())
        return m_bCut ? -1 : WOULD_BLOCK;
    const DWORD dwTaken = std::min(static_cast<DWORD>(aLen), GetInput());
    std::memcpy(aBuf, m_pInput->m_pBytes.get() + m_pInput->m_dwBegin, dwTaken);
    m_pInput->m_dwBegin += dwTaken;
    return static_cast<int>(dwTaken);
}

// Fewer bytes than there is room for mean that the socket is dry: the next ones are reported. Only an end behind them is not,
// if earlier ones have waited for this call.
BOOL CTlsSession::Receive_i() {
    CTlsCall& call = *m_pCall;
    if (m_bCut || !std::exchange(call.m_bMayReceive, false))
        return FALSE;
    if (!m_pInput)
        m_pInput = call.m_pBuffers->TakeInput(call.m_dwReadSize);
    m_bCut = !m_pInput;
    if (m_bCut) {
        m_pFailure = "memory ran out";
        return FALSE;
    }
    const DWORD dwRoom = std::min(call.m_dwReadSize, m_pInput->m_dwRoom);
    const int nReceived = m_Lower.RecvSealed(m_pInput->m_pBytes.get(), dwRoom);
    call.m_bReceived = true;
    m_bCut = nReceived <= 0 && nReceived != WOULD_BLOCK;
    call.m_bDry = nReceived < static_cast<int>(dwRoom) && !m_Lower.HasMoreSealed() && (nReceived <= 0 || !m_bBehind);
    m_bDry = call.m_bDry;
    m_pInput->m_dwBegin = 0;
    m_pInput->m_dwEnd = nReceived > 0 ? static_cast<DWORD>(nReceived) : 0;
    m_dwReceived += m_bUp ? 0 : GetInput();
    return nReceived > 0;
}

// Takes all, so that OpenSSL never has to repeat a write; -1: memory ran out.
int CTlsSession::WriteRaw_i(const char* aBuf, int aLen) {
    const auto stLength = static_cast<size_t>(aLen);
    if (std::exchange(m_pCall->m_stAlone, SIZE_MAX) < stLength) {
        SendOrKeep_i(aBuf, stLength, FALSE);
        return m_bFailed ? -1 : aLen;
    }
    std::vector<char>& sealed = m_pCall->m_pBuffers->m_Sealed;
    return WithMemory([&] { sealed.insert(sealed.end(), aBuf, aBuf + aLen); }) ? aLen : -1;
}

CTlsSession::EResult CTlsSession::Fail_i(const char* aText) {
    m_bFailed = true;
    m_pFailure = m_pFailure ? m_pFailure : aText;
    ClearErrors();
    return FAILED;
}

// Of an OpenSSL call that has not succeeded; empties the thread's queue of errors.
CTlsSession::EResult CTlsSession::Outcome_i(int aReturned) {
    switch (SSL_get_error(m_pSsl, aReturned)) {
    case SSL_ERROR_WANT_READ:
        ClearErrors();
        return WANT_READ;
    case SSL_ERROR_ZERO_RETURN:
        ClearErrors();
        m_bPeerEnded = true;
        m_bDrained = m_bDry && GetInput() == 0;
        return ENDED;
    default: {
        if (m_bCut)
            return Fail_i("the peer has closed without an end of TLS");
        const char* pReason = ERR_reason_error_string(ERR_peek_error());
        return Fail_i(pReason ? pReason : "TLS failed");
    }
    }
}

CTlsSession::EResult CTlsSession::Handshake() {
    if (m_bUp)
        return SendKept_i();
    CTlsCall call(m_pCall, RECORD);
    if (!call.IsReady())
        throw std::bad_alloc();
    EResult result = WANT_READ;
    while (result == WANT_READ && !call.m_bDry) {
        call.m_bMayReceive = true;
        ClearErrors();
        const int nRv = SSL_do_handshake(m_pSsl);
        result = nRv == 1 ? DONE : Outcome_i(nRv);
        if (result == WANT_READ && m_dwReceived > MOST_HANDSHAKE && SSL_is_server(m_pSsl))
            result = Fail_i("the handshake is too long");
    }
    NoteBehind_i();
    const EResult sent = result == DONE && HoldBack_i() ? DONE : SendSealed_i();
    PutBack_i();
    if (sent == FAILED || result == WANT_READ || result == FAILED)
        return sent == FAILED ? FAILED : result;
    if (result == ENDED)
        return Fail_i("the peer has ended the handshake");
    m_bUp = true;
    ClearErrors();
    return sent;
}

// TRUE: the tickets are kept. Those that hold a client's certificates are too long to be copied for it.
BOOL CTlsSession::HoldBack_i() {
    std::vector<char>& sealed = m_pCall->m_pBuffers->m_Sealed;
    const bool bAnswerDue = GetInput() > 0 && SSL_is_server(m_pSsl) && SSL_version(m_pSsl) == TLS1_3_VERSION;
    if (!bAnswerDue || sealed.empty() || sealed.size() > MOST_HELD_BACK || GetUnsent() > 0)
        return FALSE;
    m_bHoldsBack = Keep_i(sealed.data(), sealed.size());
    if (m_bHoldsBack)
        sealed.clear();
    return m_bHoldsBack;
}

// The call's last read may have left bytes in the socket, for which no edge follows.
void CTlsSession::NoteBehind_i() {
    if (m_pCall->m_bReceived)
        m_bBehind = !m_pCall->m_bDry;
}

// Bytes that this call has received and not decrypted are for the next one, if there is one.
void CTlsSession::PutBack_i() {
    if (GetInput() == 0 || m_bFailed || m_bPeerEnded)
        m_pCall->m_pBuffers->GiveBack(std::move(m_pInput));
    ReleaseBuffers_i();
}

// A message of the handshake, a ticket for example, allocates one for sending that only the next send would release. The call
// costs 500 instructions, a thirtieth of a small message.
void CTlsSession::ReleaseBuffers_i() {
    if (m_bMayKeepBuffers && !HasBegunRecord())
        m_bMayKeepBuffers = SSL_free_buffers(m_pSsl) != 1;
}

CTlsSession::EResult CTlsSession::Read(char* aBuf, DWORD aLen, DWORD& aRead, BOOL& aMore) {
    aRead = 0;
    aMore = FALSE;
    m_bLooked = true;
    if (m_bPeerEnded)
        return ENDED;
    if (m_bFailed || !m_bUp)
        return FAILED;
    if (HasTooManyAnswers_i())
        SendKept_i();
    m_bAnswersWait = HasTooManyAnswers_i();
    if (m_bAnswersWait)
        return WANT_READ;
    CTlsCall call(m_pCall, aLen + FRAME);
    if (!call.IsReady())
        return Fail_i("memory ran out");
    EResult result = WANT_READ;
    for (int i = 0; i < MOST_ROUNDS && aRead == 0 && result == WANT_READ && !call.m_bReceived; ++i)
        result = ReadSome_i(aBuf, std::min(aLen, RECORD), aRead);
    SendSealed_i();
    PutBack_i();
    m_bAnswersWait = HasTooManyAnswers_i();
    NoteBehind_i();
    m_bLooked = aRead == 0 || call.m_bReceived;
    const BOOL bHeld = m_bBehind || GetHeld() > 0 || GetInput() > 0;
    aMore = result == ENDED || m_bFailed || (bHeld && !m_bAnswersWait);
    if (aRead > 0)
        return DONE;  // an end or a failure comes with the next call
    return m_bFailed ? FAILED : result;
}

CTlsSession::EResult CTlsSession::Peek(char* aBuf, DWORD aLen, DWORD& aRead) {
    aRead = 0;
    if (m_bPeerEnded)
        return ENDED;
    if (m_bFailed || !m_bUp)
        return FAILED;
    CTlsCall call(m_pCall, RECORD);
    if (!call.IsReady())
        return Fail_i("memory ran out");
    EResult result = WANT_READ;
    while (result == WANT_READ && !call.m_bDry) {
        call.m_bMayReceive = GetInput() == 0;
        ClearErrors();
        const int nRead = SSL_peek(m_pSsl, aBuf, static_cast<int>(aLen));
        aRead = nRead > 0 ? static_cast<DWORD>(nRead) : 0;
        result = nRead > 0 ? DONE : Outcome_i(nRead);
    }
    SendSealed_i();
    PutBack_i();
    NoteBehind_i();
    return result;
}

// All that can be decrypted of the input, or of one read of the socket if there is none. If aBuf is full, OpenSSL takes one
// record more, or its beginning.
CTlsSession::EResult CTlsSession::ReadSome_i(char* aBuf, DWORD aLen, DWORD& aRead) {
    m_pCall->m_bMayReceive = GetInput() == 0;
    while (aRead < aLen) {
        ClearErrors();
        const int nRead = SSL_read(m_pSsl, aBuf + aRead, static_cast<int>(aLen - aRead));
        if (nRead <= 0)
            return Outcome_i(nRead);
        aRead += static_cast<DWORD>(nRead);
        if (GetInput() == 0 && GetHeld() == 0)
            return DONE;
    }
    ClearErrors();
    const int nRv = SSL_read(m_pSsl, aBuf, 0);  // 0 also behind an alert, which the next call would take for an orderly end
    return nRv < 0 || (SSL_get_shutdown(m_pSsl) & SSL_RECEIVED_SHUTDOWN) != 0 ? Outcome_i(nRv) : DONE;
}

CTlsSession::EResult CTlsSession::Write(const iovec* aPieces, DWORD aCount, DWORD& aTaken, BOOL aAll) {
    aTaken = 0;
    if (m_bFailed || m_bEnded || !m_bUp)
        return FAILED;
    EResult result = m_bHoldsBack ? DONE : SendKept_i();
    if (result != DONE && !(aAll && result == WANT_WRITE))
        return result;
    CTlsCall call(m_pCall, 0);
    if (!call.IsReady() || !CanSeal())
        return WANT_WRITE;
    CTlsPieces pieces(aPieces, aCount);
    while ((result == DONE || (aAll && result == WANT_WRITE)) && !pieces.IsEmpty()) {
        DWORD dwSealed = 0;
        result = SealSome_i(pieces, dwSealed);
        const EResult sent = SendSealed_i();
        aTaken += sent == FAILED ? 0 : dwSealed;
        result = result == DONE ? sent : result;
    }
    return result;
}

// For one system call.
CTlsSession::EResult CTlsSession::SealSome_i(CTlsPieces& aPieces, DWORD& aSealed) {
    while (!aPieces.IsEmpty() && aSealed + RECORD <= MOST_SEALED) {
        const std::string_view data = aPieces.Take(m_pCall->m_pBuffers->m_Record, RECORD);
        m_pCall->m_stAlone = aSealed == 0 && aPieces.IsEmpty() ? data.size() : SIZE_MAX;
        ClearErrors();
        const int nSealed = SSL_write(m_pSsl, data.data(), static_cast<int>(data.size()));
        if (nSealed <= 0)
            return Outcome_i(nSealed) == FAILED ? FAILED : Fail_i("TLS took no data");
        aSealed += static_cast<DWORD>(data.size());
    }
    return DONE;
}

// As SendOrKeep_i. Behind our end and a failure the bytes are dropped.
CTlsSession::EResult CTlsSession::SendSealed_i(BOOL aMore) {
    std::vector<char>& sealed = m_pCall->m_pBuffers->m_Sealed;
    if (m_bSendFailed || m_bEnded)
        sealed.clear();
    const EResult result = SendOrKeep_i(sealed.data(), sealed.size(), aMore);
    sealed.clear();
    return m_bSendFailed ? FAILED : result;
}

// DONE, WANT_WRITE with the rest kept, or FAILED. aMore: see ITlsLower.
CTlsSession::EResult CTlsSession::SendOrKeep_i(const char* aData, size_t aLen, BOOL aMore) {
    if (m_bHoldsBack && aLen > 0)
        return Keep_i(aData, aLen) ? SendKept_i(aMore) : Fail_i("memory ran out");
    size_t stSent = 0;
    int nSent = GetUnsent() > 0 ? 0 : 1;  // behind those that are kept
    while (stSent < aLen && nSent > 0) {
        nSent = m_Lower.SendSealed(aData + stSent, static_cast<DWORD>(aLen - stSent), aMore);
        stSent += nSent > 0 ? static_cast<size_t>(nSent) : 0;
    }
    if (nSent < 0)
        return SendFailed_i();
    if (stSent < aLen && !Keep_i(aData + stSent, aLen - stSent))
        return Fail_i("memory ran out");
    return GetUnsent() > 0 ? WANT_WRITE : DONE;
}

CTlsSession::EResult CTlsSession::SendFailed_i() {
    m_nSendErrno = errno;
    m_bSendFailed = true;
    m_pFailure = m_pFailure ? m_pFailure : "the socket has failed";
    return FAILED;
}

BOOL CTlsSession::Keep_i(const char* aData, size_t aLen) {
    const BOOL bKept = WithMemory([&] {
        if (!m_pKept)
            m_pKept = std::make_unique<std::vector<char>>();
        m_pKept->erase(m_pKept->begin(), m_pKept->begin() + static_cast<std::ptrdiff_t>(m_stKeptSent));
        m_stKeptSent = 0;
        m_pKept->insert(m_pKept->end(), aData, aData + aLen);
    });
    if (bKept && m_pCall->m_dwReadSize > 0)
        m_dwAnswers = GetAnswers_i() + static_cast<DWORD>(aLen);
    return bKept;
}

CTlsSession::EResult CTlsSession::SendKept_i(BOOL aMore) {
    m_bHoldsBack = false;
    while (GetUnsent() > 0) {
        if (m_bSendFailed)
            return FAILED;
        const int nSent = m_Lower.SendSealed(m_pKept->data() + m_stKeptSent, GetUnsent(), aMore);
        if (nSent < 0)
            return SendFailed_i();
        if (nSent == 0)
            return WANT_WRITE;
        m_stKeptSent += static_cast<size_t>(nSent);
    }
    DropKept_i();
    return m_bSendFailed ? FAILED : DONE;
}

void CTlsSession::DropKept_i() {
    m_pKept.reset();
    m_stKeptSent = 0;
    m_dwAnswers = 0;
}

CTlsSession::EResult CTlsSession::Flush(BOOL aEnd, BOOL aMore) {
    if (aEnd && m_bUp && !m_bFailed && !m_bEnded) {
        CTlsCall call(m_pCall, 0);
        if (!call.IsReady())
            return SendKept_i();
        ClearErrors();
        SSL_shutdown(m_pSsl);
        ClearErrors();
        SendSealed_i(aMore);
        m_bEnded = true;
    }
    const EResult result = SendKept_i();
    return result == DONE && !aEnd && !CanSeal() ? WANT_WRITE : result;
}

CCmChainPtr CTlsSession::TakeUnsent() {
    const DWORD dwUnsent = GetUnsent();
    if (dwUnsent == 0)
        return nullptr;
    const CCmMessageBlock kept(dwUnsent, m_pKept->data() + m_stKeptSent, CCmMessageBlock::DONT_DELETE, dwUnsent);
    CCmChainPtr pChain(kept.DuplicateChained());
    DropKept_i();
    return pChain;
}

// At the end of the bytes that are kept: Write seals nothing behind them.
DWORD CTlsSession::GetAnswers_i() const { return std::min(m_dwAnswers, GetUnsent()); }

BOOL CTlsSession::HasTooManyAnswers_i() const {
    const size_t stSealed = m_pCall ? m_pCall->m_pBuffers->m_Sealed.size() : 0;
    return !m_bSendFailed && !m_bEnded && GetAnswers_i() + stSealed >= MOST_ANSWERS;
}

BOOL CTlsSession::MayReadOn() { return !HasTooManyAnswers_i() && std::exchange(m_bAnswersWait, false); }

void CTlsSession::DropAnswers() { m_bSendFailed = m_bSendFailed || m_bAnswersWait; }

}  // namespace talvo
