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
#include "talvo/transport/network_buffers.h"

namespace talvo {

namespace {

constexpr DWORD GATHER = 4096;         // smaller pieces are copied into a full record
constexpr DWORD MOST_ANSWERS = 16384;  // kept while Read still reads
constexpr BYTE MOST_READS = 4;         // that bring no data, in one Read
constexpr int WOULD_BLOCK = -2;

// Shared by the sessions of one thread, each within one call.
struct CTlsBuffers {
    CTlsBuffers() { m_Sealed.reserve(CTlsSession::MOST_SEALED + 2 * CTlsSession::RECORD); }

    char m_Received[CTlsSession::RECORD];
    char m_Record[CTlsSession::RECORD];
    std::vector<char> m_Sealed;
};

CTlsBuffers* GetTlsBuffers() {
    static thread_local std::unique_ptr<CTlsBuffers> s_pBuffers;
    if (!s_pBuffers)
        WithMemory([] { s_pBuffers = std::make_unique<CTlsBuffers>(); });
    return s_pBuffers.get();
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

    static int Verify(int aGood, X509_STORE_CTX* aStore) {
        const auto* pSsl = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(aStore, SSL_get_ex_data_X509_STORE_CTX_idx()));
        auto* pSession = static_cast<CTlsSession*>(SSL_get_app_data(pSsl));
        if (aGood || !pSession)
            return aGood;
        char szSubject[200] = "";
        if (X509* pCertificate = X509_STORE_CTX_get_current_cert(aStore))
            X509_NAME_oneline(X509_get_subject_name(pCertificate), szSubject, sizeof szSubject);
        pSession->Verified_i(X509_STORE_CTX_get_error(aStore), X509_STORE_CTX_get_error_depth(aStore), szSubject);
        return (SSL_get_verify_mode(pSsl) & SSL_VERIFY_PEER) == 0;
    }
};

CTlsSession::CTlsSession(CCmTransportTcp& aSocket, ssl_st* aSsl) : m_Socket(aSocket), m_pSsl(aSsl) {
    ERR_clear_error();
    SSL_set_app_data(m_pSsl, this);
    SSL_set_verify(m_pSsl, SSL_get_verify_mode(m_pSsl), CTlsBio::Verify);
    const BIO_METHOD* pMethod = CTlsBio::GetMethod();
    BIO* pBio = pMethod ? BIO_new(pMethod) : nullptr;
    ERR_clear_error();
    if (!pBio)
        throw std::bad_alloc();
    BIO_set_data(pBio, this);
    SSL_set_bio(m_pSsl, pBio, pBio);
}

CTlsSession::~CTlsSession() {
    SSL_free(m_pSsl);
    ERR_clear_error();
}

void CTlsSession::Verified_i(int aError, int aDepth, const char* aSubject) {
    const char* pText = X509_verify_cert_error_string(aError);
    CM_WARNING_TRACE_THIS("CTlsSession::Verified_i, the certificate is refused. why=" << pText << " depth=" << aDepth
                                                                                      << " subject=" << aSubject);
    if (std::exchange(m_bUnverified, true))
        return;
    WithMemory([&] { m_strFailure = pText; });
}

BOOL CTlsSession::HasPeerEnded() const { return (SSL_get_shutdown(m_pSsl) & SSL_RECEIVED_SHUTDOWN) != 0; }

BOOL CTlsSession::IsVerified() const {
    return m_bShaken && !m_bUnverified && SSL_get_verify_result(m_pSsl) == X509_V_OK && SSL_get0_peer_certificate(m_pSsl);
}

DWORD CTlsSession::GetHeld() const { return static_cast<DWORD>(SSL_pending(m_pSsl)); }

CmResult CTlsSession::GetPeerCertificate(CCmString& aDer) const {
    const X509* pPeer = SSL_get0_peer_certificate(m_pSsl);
    const int nLength = pPeer ? i2d_X509(pPeer, nullptr) : 0;
    if (nLength <= 0)
        return CM_ERROR_NOT_FOUND;
    const BOOL bMemory = WithMemory([&] {
        CCmString strDer(static_cast<size_t>(nLength), '\0');
        auto* pOut = reinterpret_cast<unsigned char*>(strDer.data());
        i2d_X509(pPeer, &pOut);
        aDer.swap(strDer);
    });
    return bMemory ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

void CTlsSession::GetInfo(CCmSslInfo& aInfo) const {
    aInfo = {};
    aInfo.m_dwVersion = static_cast<DWORD>(SSL_version(m_pSsl));
    aInfo.m_strCipher = SSL_get_cipher_name(m_pSsl);
    const unsigned char* pAlpn = nullptr;
    unsigned uAlpn = 0;
    SSL_get0_alpn_selected(m_pSsl, &pAlpn, &uAlpn);
    aInfo.m_strAlpn.assign(reinterpret_cast<const char*>(pAlpn), uAlpn);
    if (const char* pName = SSL_get_servername(m_pSsl, TLSEXT_NAMETYPE_host_name))
        aInfo.m_strServerName = pName;
    aInfo.m_bResumed = SSL_session_reused(m_pSsl);
    aInfo.m_bVerified = IsVerified();
    if (!aInfo.m_bVerified)
        aInfo.m_strNotVerified = m_bUnverified ? m_strFailure : "not checked";
}

// A count; -2: would block, or this call may read no more; -1: the socket has ended or failed.
int CTlsSession::ReadRaw_i(char* aBuf, int aLen) {
    if (m_dwInput == 0) {
        const int nRv = TakeInput_i(GetTlsBuffers()->m_Received, RECORD);
        if (nRv < 0)
            return nRv;
    }
    const DWORD dwTaken = std::min(static_cast<DWORD>(aLen), m_dwInput);
    std::memcpy(aBuf, m_pInput, dwTaken);
    m_pInput += dwTaken;
    m_dwInput -= dwTaken;
    return static_cast<int>(dwTaken);
}

int CTlsSession::TakeInput_i(char* aBuf, DWORD aLen) {
    if (m_bCut)
        return -1;
    if (m_byReads == 0)
        return WOULD_BLOCK;
    --m_byReads;
    const int nReceived = m_Socket.Recv_i(aBuf, aLen);
    m_bDry = nReceived == WOULD_BLOCK;
    if (m_bDry)
        return WOULD_BLOCK;
    m_bCut = nReceived <= 0;
    if (m_bCut)
        return -1;
    m_pInput = aBuf;
    m_dwInput = static_cast<DWORD>(nReceived);
    m_dwReceived += m_bShaken ? 0 : m_dwInput;
    return nReceived;
}

// Takes all; -1: memory ran out.
int CTlsSession::WriteRaw_i(const char* aBuf, int aLen) {
    std::vector<char>& sealed = GetTlsBuffers()->m_Sealed;
    return WithMemory([&] { sealed.insert(sealed.end(), aBuf, aBuf + aLen); }) ? aLen : -1;
}

CTlsSession::EResult CTlsSession::Fail_i(const char* aText) {
    m_bFailed = true;
    if (m_strFailure.empty())
        WithMemory([&] { m_strFailure = aText; });
    ERR_clear_error();
    return FAILED;
}

// Of an OpenSSL call that has not succeeded; empties the thread's queue of errors.
CTlsSession::EResult CTlsSession::Outcome_i(int aReturned) {
    switch (SSL_get_error(m_pSsl, aReturned)) {
    case SSL_ERROR_WANT_READ:
        ERR_clear_error();
        return WANT_READ;
    case SSL_ERROR_ZERO_RETURN:
        ERR_clear_error();
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
    if (!GetTlsBuffers())
        throw std::bad_alloc();
    if (m_bShaken)
        return SendKept_i();
    m_byReads = MOST_READS;
    EResult result = WANT_READ;
    while (result == WANT_READ && !m_bDry) {
        ERR_clear_error();
        const int nRv = SSL_do_handshake(m_pSsl);
        result = nRv == 1 ? DONE : Outcome_i(nRv);
        if (m_byReads == 0)
            m_byReads = 1;
        if (m_dwReceived > MOST_HANDSHAKE && SSL_is_server(m_pSsl))
            result = Fail_i("the handshake is too long");
    }
    m_bDry = false;
    const EResult sent = SendSealed_i();
    if (result == WANT_READ || result == FAILED)
        return sent == FAILED ? FAILED : result;
    if (result == ENDED)
        return Fail_i("the peer has ended the handshake");
    m_bShaken = true;
    if (!PutBack_i())
        throw std::bad_alloc();
    return sent;
}

// What this call has received and not decrypted is for the next one.
BOOL CTlsSession::PutBack_i() {
    const DWORD dwRest = std::exchange(m_dwInput, 0);
    return dwRest == 0 || m_Socket.UnRecv_i(m_pInput, dwRest) == CM_OK;
}

CTlsSession::EResult CTlsSession::Read(char* aBuf, DWORD aLen, DWORD& aRead, BOOL& aMore) {
    aRead = 0;
    aMore = FALSE;
    if (m_bFailed)
        return FAILED;
    m_bAnswersWait = GetUnsent() > MOST_SEALED + MOST_ANSWERS;
    if (m_bAnswersWait)
        return WANT_READ;
    if (!GetTlsBuffers())
        return Fail_i("memory ran out");
    EResult result = WANT_READ;
    m_bDry = false;
    for (BYTE by = 0; by < MOST_READS && aRead == 0 && result == WANT_READ && !m_bDry; ++by)
        result = ReadOnce_i(aBuf, aLen, aRead);
    if (!PutBack_i())
        result = Fail_i("memory ran out");
    if (SendSealed_i() == FAILED)
        result = FAILED;
    aMore = !m_bDry || aRead == aLen;
    if (aRead > 0)
        return DONE;  // an end or a failure comes with the next call
    return result;
}

// One read of the socket, and all that can be decrypted then.
CTlsSession::EResult CTlsSession::ReadOnce_i(char* aBuf, DWORD aLen, DWORD& aRead) {
    m_byReads = 1;
    while (aRead < aLen) {
        ERR_clear_error();
        const int nRead = SSL_read(m_pSsl, aBuf + aRead, static_cast<int>(aLen - aRead));
        if (nRead <= 0)
            return Outcome_i(nRead);
        aRead += static_cast<DWORD>(nRead);
    }
    return DONE;
}

CTlsSession::EResult CTlsSession::Write(const iovec* aPieces, DWORD aCount, DWORD& aTaken) {
    aTaken = 0;
    EResult result = SendKept_i();
    const iovec* pPiece = aPieces;
    size_t stOffset = 0;
    while (result == DONE && pPiece != aPieces + aCount) {
        result = SealSome_i(pPiece, aPieces + aCount, stOffset, aTaken);
        const EResult sent = SendSealed_i();
        if (result == DONE)
            result = sent;
    }
    return result;
}

// Up to MOST_SEALED bytes. Small pieces share a record; a large one is sealed where it lies.
CTlsSession::EResult CTlsSession::SealSome_i(const iovec*& aPiece, const iovec* aEnd, size_t& aOffset, DWORD& aTaken) {
    CTlsBuffers* pBuffers = GetTlsBuffers();
    if (!pBuffers)
        return Fail_i("memory ran out");
    while (aPiece != aEnd && pBuffers->m_Sealed.size() < MOST_SEALED) {
        const char* pData = static_cast<const char*>(aPiece->iov_base) + aOffset;
        size_t stLength = std::min<size_t>(aPiece->iov_len - aOffset, RECORD);
        if (stLength < GATHER && aPiece + 1 != aEnd) {
            size_t stGathered = 0;
            while (aPiece != aEnd && stGathered < RECORD) {
                const size_t st = std::min(aPiece->iov_len - aOffset, RECORD - stGathered);
                std::memcpy(pBuffers->m_Record + stGathered, static_cast<const char*>(aPiece->iov_base) + aOffset, st);
                stGathered += st;
                aOffset += st;
                if (aOffset == aPiece->iov_len) {
                    ++aPiece;
                    aOffset = 0;
                }
            }
            pData = pBuffers->m_Record;
            stLength = stGathered;
        } else if ((aOffset += stLength) == aPiece->iov_len) {
            ++aPiece;
            aOffset = 0;
        }
        if (stLength == 0)
            continue;
        ERR_clear_error();
        const int nSealed = SSL_write(m_pSsl, pData, static_cast<int>(stLength));
        if (nSealed <= 0)
            return Outcome_i(nSealed) == FAILED ? FAILED : Fail_i("TLS took no data");
        aTaken += static_cast<DWORD>(nSealed);
    }
    return DONE;
}

// DONE, WANT_WRITE with the rest kept, or FAILED.
CTlsSession::EResult CTlsSession::SendSealed_i() {
    std::vector<char>& sealed = GetTlsBuffers()->m_Sealed;
    size_t stSent = 0;
    int nSent = 1;
    if (GetUnsent() > 0)
        nSent = 0;  // behind those
    while (stSent < sealed.size() && nSent > 0) {
        nSent = m_Socket.Send_i(sealed.data() + stSent, static_cast<DWORD>(sealed.size() - stSent));
        stSent += nSent > 0 ? static_cast<size_t>(nSent) : 0;
    }
    const BOOL bKept = nSent < 0 || stSent == sealed.size() || Keep_i(sealed.data() + stSent, sealed.size() - stSent);
    sealed.clear();
    if (nSent < 0 || !bKept)
        return Fail_i("the socket has failed");
    return GetUnsent() > 0 ? WANT_WRITE : DONE;
}

BOOL CTlsSession::Keep_i(const char* aData, size_t aLen) {
    return WithMemory([&] {
        if (!m_pKept)
            m_pKept = std::make_unique<std::vector<char>>();
        m_pKept->insert(m_pKept->end(), aData, aData + aLen);
    });
}

CTlsSession::EResult CTlsSession::SendKept_i() {
    while (GetUnsent() > 0) {
        const int nSent = m_Socket.Send_i(m_pKept->data() + m_stKeptSent, GetUnsent());
        if (nSent < 0)
            return Fail_i("the socket has failed");
        if (nSent == 0)
            return WANT_WRITE;
        m_stKeptSent += static_cast<size_t>(nSent);
    }
    m_pKept.reset();
    m_stKeptSent = 0;
    return DONE;
}

CTlsSession::EResult CTlsSession::Flush(BOOL aEnd) {
    if (aEnd && m_bShaken && !m_bFailed && !std::exchange(m_bEnded, true) && GetTlsBuffers()) {
        ERR_clear_error();
        SSL_shutdown(m_pSsl);
        ERR_clear_error();
        if (SendSealed_i() == FAILED)
            return FAILED;
    }
    return SendKept_i();
}

CCmChainPtr CTlsSession::TakeUnsent() {
    const DWORD dwUnsent = GetUnsent();
    if (dwUnsent == 0)
        return nullptr;
    const CCmMessageBlock kept(dwUnsent, m_pKept->data() + m_stKeptSent, CCmMessageBlock::DONT_DELETE, dwUnsent);
    CCmChainPtr pChain(kept.DuplicateChained());
    m_pKept.reset();
    m_stKeptSent = 0;
    return pChain;
}

}  // namespace talvo
