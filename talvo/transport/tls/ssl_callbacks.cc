#include "talvo/transport/tls/ssl_callbacks.h"

#include <algorithm>
#include <utility>

#include "talvo/base/with_memory.h"
#include "talvo/transport/tls/tls_session.h"

namespace talvo {

namespace {

void FreeUse(void*, void* aUse, CRYPTO_EX_DATA*, int, long, void*) { delete static_cast<CSslUse*>(aUse); }

int IndexOfUse() {
    static const int s_nIndex = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, FreeUse);
    return s_nIndex;
}

size_t ChainSizeOf(const SSL* aSsl) {
    const STACK_OF(X509)* pChain = SSL_get_peer_cert_chain(aSsl);
    size_t stSize = 0;
    for (int i = 0; i < sk_X509_num(pChain); ++i)
        stSize += static_cast<size_t>(std::max(i2d_X509(sk_X509_value(pChain, i), nullptr), 0));
    return stSize;
}

}  // namespace

// A server that refuses a session of TLS 1.2, or closes at the sight of it, gets it only once.
void CSslUse::EndOffer(bool aResumed) {
    if (m_pOffered && !aResumed)
        m_pSetup->GetStore().Drop(m_strServer, m_pOffered.get());
    m_pOffered.reset();
}

BOOL CSslUse::Attach(SSL* aSsl, std::unique_ptr<CSslUse> aUse) {
    if (SSL_set_ex_data(aSsl, IndexOfUse(), aUse.get()) != 1)
        return FALSE;
    (void)aUse.release();
    return TRUE;
}

CSslUse& CSslUse::Of(const SSL* aSsl) { return *static_cast<CSslUse*>(SSL_get_ex_data(aSsl, IndexOfUse())); }

void CSslCallbacks::Attach(CSslSetup& aSetup) {
    SSL_CTX* pCtx = aSetup.m_pCtx;
    SSL_CTX_set_tlsext_servername_callback(pCtx, ChooseCertificate);
    SSL_CTX_set_alpn_select_cb(pCtx, ChooseAlpn, nullptr);
    SSL_CTX_set_info_callback(pCtx, NoteMessage);
    if (aSetup.m_Recipe.m_pKeyLog)
        SSL_CTX_set_keylog_callback(pCtx, LogKey);
    if (!aSetup.m_Recipe.m_bKeepSessions)
        return;
    SSL_CTX_sess_set_new_cb(pCtx, KeepSession);
    SSL_CTX_set_tlsext_ticket_key_evp_cb(pCtx, UseTicketKey);
}

// OpenSSL calls it at a client too.
int CSslCallbacks::ChooseCertificate(SSL* aSsl, int*, void*) {
    const char* pName = SSL_get_servername(aSsl, TLSEXT_NAMETYPE_host_name);
    if (!SSL_is_server(aSsl) || !pName)
        return SSL_TLSEXT_ERR_NOACK;
    const CSslSetup& setup = *CSslUse::Of(aSsl).m_pSetup;
    const COwnCertificate* const* ppOwn = nullptr;
    const BOOL bMemory = WithMemory([&] { ppOwn = setup.m_Names.Find(pName); });
    const COwnCertificate* pOwn = ppOwn ? *ppOwn : setup.m_Recipe.m_Own.front().get();
    const bool bSet = pOwn == setup.m_Recipe.m_Own.front().get() || pOwn->UseFor(aSsl);
    return bMemory && bSet ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_ALERT_FATAL;
}

// Without a common protocol the client is refused (RFC 7301, 3.2).
int CSslCallbacks::ChooseAlpn(SSL* aSsl, const unsigned char** aOut, unsigned char* aOutLen, const unsigned char* aIn,
                              unsigned aInLen, void*) {
    const auto& own = static_cast<const CTlsSession*>(SSL_get_app_data(aSsl))->GetAlpn();
    const auto& alpn = own.empty() ? CSslUse::Of(aSsl).m_pSetup->m_Recipe.m_Alpn : own;
    if (alpn.empty())
        return SSL_TLSEXT_ERR_NOACK;
    unsigned char* pOut = nullptr;
    const int nRv = SSL_select_next_proto(&pOut, aOutLen, alpn.data(), static_cast<unsigned>(alpn.size()), aIn, aInLen);
    *aOut = pOut;
    return nRv == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_ALERT_FATAL;
}

void CSslCallbacks::LogKey(const SSL* aSsl, const char* aLine) { CSslUse::Of(aSsl).m_pSetup->m_Recipe.m_pKeyLog->Write(aLine); }

int CSslCallbacks::KeepSession(SSL* aSsl, SSL_SESSION* aSession) {
    const CSslUse& use = CSslUse::Of(aSsl);
    const BOOL bVerified = SSL_get0_peer_certificate(aSsl) && SSL_get_verify_result(aSsl) == X509_V_OK;
    if (bVerified && !use.m_strServer.empty())
        WithMemory([&] { use.m_pSetup->GetStore().Keep(use.m_strServer, aSession, ChainSizeOf(aSsl)); });
    return 0;  // the session stays OpenSSL's
}

// OpenSSL calls it for each message of a handshake, also behind the first handshake, and for no data.
void CSslCallbacks::NoteMessage(const SSL* aSsl, int aWhere, int) {
    if (auto* pSession = static_cast<CTlsSession*>(SSL_get_app_data(aSsl)))
        pSession->NoteHandshakeMessage();
    if (aWhere & SSL_CB_HANDSHAKE_DONE)
        CSslUse::Of(aSsl).EndOffer(SSL_session_reused(aSsl) == 1);
}

// A client uses a ticket of TLS 1.3 once, so a resumed connection brings the next one.
int CSslCallbacks::UseTicketKey(SSL* aSsl, unsigned char* aName, unsigned char* aIv, EVP_CIPHER_CTX* aCipher, EVP_MAC_CTX* aMac,
                                int aSeal) {
    CTicketKeys& keys = CSslUse::Of(aSsl).m_pSetup->m_Keys;
    if (aSeal)
        return keys.Seal(aName, aIv, aCipher, aMac);
    const CTicketKeys::EResult result = keys.Open(aName, aIv, aCipher, aMac);
    return result == CTicketKeys::GOOD && SSL_version(aSsl) == TLS1_3_VERSION ? CTicketKeys::RENEW : result;
}

}  // namespace talvo
