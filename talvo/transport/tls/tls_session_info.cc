// The verification of the peer of a TLS session, and the answers about it.
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/tls/tls_session.h"

namespace talvo {

namespace {

CCmString DerOf(const X509* aCertificate) {
    CCmString strDer(static_cast<size_t>(std::max(i2d_X509(aCertificate, nullptr), 0)), '\0');
    auto* pOut = reinterpret_cast<unsigned char*>(strDer.data());
    i2d_X509(aCertificate, &pOut);
    return strDer;
}

}  // namespace

void CTlsSession::Verified_i(int aError, int aDepth, const char* aSubject) {
    const char* pText = X509_verify_cert_error_string(aError);
    X509_VERIFY_PARAM* pParam = SSL_get0_param(m_pSsl);
    const char* pName = X509_VERIFY_PARAM_get0_host(pParam, 0);
    char* pAddress = pName ? nullptr : X509_VERIFY_PARAM_get1_ip_asc(pParam);
    CM_WARNING_TRACE_THIS("CTlsSession::Verified_i, the certificate is refused. why=" << pText << " name="
                                                                                      << (pName      ? pName
                                                                                          : pAddress ? pAddress
                                                                                                     : "")
                                                                                      << " depth=" << aDepth
                                                                                      << " subject=" << aSubject);
    OPENSSL_free(pAddress);
    if (!m_pUnverified)
        m_pUnverified = pText;
}

BOOL CTlsSession::IsUnverified() const {
    return !m_bUp && m_pUnverified && (SSL_get_verify_mode(m_pSsl) & SSL_VERIFY_PEER) != 0;
}

BOOL CTlsSession::IsVerified() const {
    return m_bUp && !m_pUnverified && SSL_get_verify_result(m_pSsl) == X509_V_OK && SSL_get0_peer_certificate(m_pSsl);
}

CmResult CTlsSession::GetPeerCertificate(CCmString& aDer) const {
    const X509* pPeer = SSL_get0_peer_certificate(m_pSsl);
    if (!pPeer)
        return CM_ERROR_NOT_FOUND;
    return WithMemory([&] { aDer = DerOf(pPeer); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
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
    if (const X509* pPeer = SSL_get0_peer_certificate(m_pSsl))
        aInfo.m_Chain.push_back(DerOf(pPeer));
    const STACK_OF(X509)* pSent = SSL_get_peer_cert_chain(m_pSsl);  // of a client it begins with the own one
    for (int i = SSL_is_server(m_pSsl) ? 0 : 1; i < sk_X509_num(pSent); ++i)
        aInfo.m_Chain.push_back(DerOf(sk_X509_value(pSent, i)));
    aInfo.m_bResumed = SSL_session_reused(m_pSsl);
    aInfo.m_bVerified = IsVerified();
    if (!aInfo.m_bVerified)
        aInfo.m_strNotVerified = m_pUnverified ? m_pUnverified : "not checked";
}

}  // namespace talvo
