#include "benchmarks/tls/handshakes.h"

#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

#include "benchmarks/support/system.h"

namespace {

constexpr int MOST_MS = 5000;  // until a ticket comes

}  // namespace

std::unique_ptr<SSL_SESSION, CFreeSsl> TakeTicket(SSL_CTX& aContext, uint16_t aPort) {
    CTlsClientStream stream(aContext);
    std::unique_ptr<SSL_SESSION, CFreeSsl> pTicket;
    SSL_CTX_set_session_cache_mode(&aContext, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_set_app_data(&aContext, &pTicket);
    SSL_CTX_sess_set_new_cb(&aContext, [](SSL* aSsl, SSL_SESSION* aSession) {
        auto* pKept = static_cast<std::unique_ptr<SSL_SESSION, CFreeSsl>*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(aSsl)));
        pKept->reset(SSL_SESSION_dup(aSession));  // a connection that is freed without close_notify invalidates its own one
        return 0;
    });
    pollfd readable{-1, POLLIN, 0};
    if (!stream.Connect(aPort, 0))
        bench::Fail("handshake");
    readable.fd = stream.GetHandle();
    for (char c; !pTicket && poll(&readable, 1, MOST_MS) == 1;)
        stream.Recv(&c, 1);
    if (!pTicket)
        bench::Fail("wait for a ticket");
    SSL_CTX_sess_set_new_cb(&aContext, nullptr);
    SSL_CTX_set_session_cache_mode(&aContext, SSL_SESS_CACHE_OFF);  // a cache would let a ticket be used only once
    return pTicket;
}

CHandshakeConnection::CHandshakeConnection(SSL_CTX& aContext, SSL_SESSION* aSession, uint16_t aPort, CLoadCounters& aCounters,
                                           int aIndex)
    : m_Context(aContext),
      m_pSession(aSession),
      m_wPort(aPort),
      m_Counters(aCounters),
      m_ullFirst(static_cast<uint64_t>(aIndex) * 17),
      m_ullNumber(m_ullFirst) {}

bool CHandshakeConnection::Failed() {
    ++m_Counters.m_ullErrors;
    return false;
}

bool CHandshakeConnection::Start() {
    m_bShaken = false;
    m_llStart = bench::NowNs();
    if (!m_Stream.Connect(m_wPort, m_ullNumber++))
        return Failed();
    m_pSsl = MakeClient(m_Context, GetHandle());
    if (!m_pSsl || (m_pSession && SSL_set_session(m_pSsl.get(), m_pSession) != 1))
        return Failed();
    return Advance();
}

bool CHandshakeConnection::Advance() {
    const int nReturned = SSL_do_handshake(m_pSsl.get());
    if (nReturned == 1)
        return End();
    return SSL_get_error(m_pSsl.get(), nReturned) == SSL_ERROR_WANT_READ || Failed();
}

bool CHandshakeConnection::End() {
    m_bShaken = true;
    SSL_shutdown(m_pSsl.get());
    shutdown(GetHandle(), SHUT_WR);
    return SSL_session_reused(m_pSsl.get()) == (m_pSession ? 1 : 0) || Failed();
}

// The bytes behind the handshake are tickets, and perhaps the server's close_notify.
bool CHandshakeConnection::OnReadable(char* aBuffer, size_t aSize) {
    if (!m_bShaken)
        return Advance();
    if (m_Stream.Recv(aBuffer, aSize) > 0)
        return true;
    m_Counters.m_Latencies.Record(bench::NowNs() - m_llStart);
    ++m_Counters.m_ullMessages;
    return false;
}
