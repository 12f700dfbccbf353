#include "benchmarks/tls/client_stream.h"

#include <openssl/err.h>
#include <poll.h>

#include <cerrno>

#include "benchmarks/support/system.h"

namespace {

constexpr size_t READ_SIZE = 64 * 1024;

}  // namespace

std::unique_ptr<SSL_CTX, CFreeSsl> MakeClientContext() {
    std::unique_ptr<SSL_CTX, CFreeSsl> pContext(SSL_CTX_new(TLS_client_method()));
    if (!pContext)
        bench::Fail("SSL_CTX_new");
    SSL_CTX_set_read_ahead(pContext.get(), 1);
    SSL_CTX_set_default_read_buffer_len(pContext.get(), READ_SIZE);
    SSL_CTX_set_mode(pContext.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    return pContext;
}

std::unique_ptr<SSL, CFreeSsl> MakeClient(SSL_CTX& aContext, int aFd) {
    std::unique_ptr<SSL, CFreeSsl> pSsl(SSL_new(&aContext));
    if (!pSsl || SSL_set_fd(pSsl.get(), aFd) != 1)
        return nullptr;
    SSL_set_connect_state(pSsl.get());
    return pSsl;
}

bool CTlsClientStream::Connect(uint16_t aPort, uint64_t aFrom) {
    m_pSsl.reset();
    if (!CLoadStream::Connect(aPort, aFrom))
        return false;
    m_pSsl = MakeClient(m_Context, GetHandle());
    for (int nReturned; m_pSsl && (nReturned = SSL_do_handshake(m_pSsl.get())) != 1;) {
        pollfd readable{GetHandle(), POLLIN, 0};
        if (SSL_get_error(m_pSsl.get(), nReturned) != SSL_ERROR_WANT_READ || poll(&readable, 1, -1) != 1)
            return false;
    }
    return m_pSsl != nullptr;
}

ssize_t CTlsClientStream::Send(const char* aData, size_t aSize) {
    size_t nDone = 0;
    while (nDone < aSize) {
        const int nReturned = SSL_write(m_pSsl.get(), aData + nDone, static_cast<int>(aSize - nDone));
        if (nReturned <= 0)
            return Outcome(nDone, nReturned);
        nDone += static_cast<size_t>(nReturned);
    }
    return static_cast<ssize_t>(nDone);
}

ssize_t CTlsClientStream::Recv(char* aBuffer, size_t aSize) {
    size_t nDone = 0;
    do {
        const int nReturned = SSL_read(m_pSsl.get(), aBuffer + nDone, static_cast<int>(aSize - nDone));
        if (nReturned <= 0)
            return Outcome(nDone, nReturned);
        nDone += static_cast<size_t>(nReturned);
    } while (nDone < aSize && SSL_has_pending(m_pSsl.get()));
    return static_cast<ssize_t>(nDone);
}

// Of a call that has ended the loop.
ssize_t CTlsClientStream::Outcome(size_t aDone, int aReturned) {
    const int nError = SSL_get_error(m_pSsl.get(), aReturned);
    ERR_clear_error();
    if (aDone > 0)
        return static_cast<ssize_t>(aDone);
    if (nError == SSL_ERROR_ZERO_RETURN)
        return 0;
    errno = nError == SSL_ERROR_WANT_READ || nError == SSL_ERROR_WANT_WRITE ? EAGAIN : EPROTO;
    return -1;
}
