// TLS connections of the load program: OpenSSL over its own socket BIO.
#pragma once

#include <openssl/ssl.h>

#include <memory>

#include "benchmarks/echo/load_stream.h"

struct CFreeSsl {
    void operator()(SSL_CTX* aContext) const { SSL_CTX_free(aContext); }
    void operator()(SSL* aSsl) const { SSL_free(aSsl); }
    void operator()(SSL_SESSION* aSession) const { SSL_SESSION_free(aSession); }
};

// For clients, which do not check the certificate.
std::unique_ptr<SSL_CTX, CFreeSsl> MakeClientContext();

// A new client over a connected socket. Null: failed.
std::unique_ptr<SSL, CFreeSsl> MakeClient(SSL_CTX& aContext, int aFd);

class CTlsClientStream : public CLoadStream {
public:
    explicit CTlsClientStream(SSL_CTX& aContext) : m_Context(aContext) {}

    // Also shakes hands, and waits for that.
    bool Connect(uint16_t aPort, uint64_t aFrom) override;
    ssize_t Send(const char* aData, size_t aSize) override;
    // Reads all that fits, up to the end of what has been received.
    ssize_t Recv(char* aBuffer, size_t aSize) override;

private:
    ssize_t Outcome(size_t aDone, int aReturned);

    SSL_CTX& m_Context;
    std::unique_ptr<SSL, CFreeSsl> m_pSsl;
};
