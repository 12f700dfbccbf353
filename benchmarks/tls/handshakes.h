// Handshakes as the messages of the load program.
#pragma once

#include "benchmarks/echo/load_connection.h"
#include "benchmarks/tls/client_stream.h"

// A ticket of the server at aPort, from a connection of its own. Exits if there is none.
std::unique_ptr<SSL_SESSION, CFreeSsl> TakeTicket(SSL_CTX& aContext, uint16_t aPort);

// Connects, shakes hands and ends in order. The handshake counts when the server has closed: it has completed its part then.
class CHandshakeConnection : public ILoadConnection {
public:
    // aSession: resumed by every handshake; null: all are full ones. A handshake of the other kind is an error.
    CHandshakeConnection(SSL_CTX& aContext, SSL_SESSION* aSession, uint16_t aPort, CLoadCounters& aCounters, int aIndex);

    int GetHandle() const override { return m_Stream.GetHandle(); }
    bool HasUnsent() const override { return false; }
    bool HasAnswered() const override { return m_ullNumber > m_ullFirst + 1; }
    bool Start() override;
    bool Flush() override { return true; }
    bool OnReadable(char* aBuffer, size_t aSize) override;

private:
    bool Advance();
    bool End();
    bool Failed();

    SSL_CTX& m_Context;
    SSL_SESSION* const m_pSession;
    const uint16_t m_wPort;
    CLoadCounters& m_Counters;
    const uint64_t m_ullFirst;
    uint64_t m_ullNumber;  // of the next connection
    int64_t m_llStart = 0;
    bool m_bShaken = false;
    CLoadStream m_Stream;
    std::unique_ptr<SSL, CFreeSsl> m_pSsl;
};
