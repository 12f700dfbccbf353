// A peer of TLS transports that uses OpenSSL directly.
#pragma once

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "tests/support/event_socket.h"
#include "tests/support/tls_certificates.h"

// Over a plain socket. The test moves the sealed bytes and may change them on the way.
class CTlsPeer {
public:
    CTlsPeer(CTestFd aFd, BOOL aServer, int aVersion) : m_Fd(std::move(aFd)), m_pCtx(SSL_CTX_new(TLS_method())) {
        SSL_CTX_set_min_proto_version(m_pCtx, aVersion);
        SSL_CTX_set_max_proto_version(m_pCtx, aVersion);
        if (aServer) {
            const auto& certificates = CTestCertificates::Get();
            SSL_CTX_use_certificate_chain_file(m_pCtx, certificates.PathOf("server.pem").c_str());
            SSL_CTX_use_PrivateKey_file(m_pCtx, certificates.PathOf("server.key").c_str(), SSL_FILETYPE_PEM);
        }
        m_pSsl = SSL_new(m_pCtx);
        SSL_set_bio(m_pSsl, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        aServer ? SSL_set_accept_state(m_pSsl) : SSL_set_connect_state(m_pSsl);
    }
    ~CTlsPeer() {
        SSL_free(m_pSsl);
        SSL_CTX_free(m_pCtx);
    }
    CTlsPeer(const CTlsPeer&) = delete;
    CTlsPeer& operator=(const CTlsPeer&) = delete;

    SSL* Get() const { return m_pSsl; }
    CTestFd& Socket() { return m_Fd; }

    // Each moves at most aMost sealed bytes, and leaves OpenSSL's queue of errors empty.
    void Receive(size_t aMost = 1 << 20) {
        const std::string strSealed = m_Fd.Read(aMost);
        BIO_write(SSL_get_rbio(m_pSsl), strSealed.data(), static_cast<int>(strSealed.size()));
        char buffer[SSL3_RT_MAX_PLAIN_LENGTH];
        for (int nRead = 0; (nRead = SSL_read(m_pSsl, buffer, sizeof buffer)) > 0;)
            m_strReceived.append(buffer, static_cast<size_t>(nRead));
        ERR_clear_error();
    }
    void Send(size_t aMost = 1 << 20) {
        char buffer[65536];
        for (int nRead = 0; (nRead = BIO_read(SSL_get_wbio(m_pSsl), buffer, sizeof buffer)) > 0;)
            m_strSealed.append(buffer, static_cast<size_t>(nRead));
        const ssize_t lSent = send(m_Fd.Get(), m_strSealed.data(), std::min(aMost, m_strSealed.size()), MSG_NOSIGNAL);
        m_strSealed.erase(0, lSent > 0 ? static_cast<size_t>(lSent) : 0);
        ERR_clear_error();
    }
    void Seal(const std::string& aText) { SSL_write(m_pSsl, aText.data(), static_cast<int>(aText.size())); }
    BOOL HasEnd() const { return (SSL_get_shutdown(m_pSsl) & SSL_RECEIVED_SHUTDOWN) != 0; }

    std::string m_strReceived;  // decrypted
    std::string m_strSealed;    // not sent yet

private:
    CTestFd m_Fd;
    SSL_CTX* const m_pCtx;
    SSL* m_pSsl;
};
