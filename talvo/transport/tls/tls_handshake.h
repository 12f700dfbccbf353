// The TLS handshake of a connection, between its connect and its indication.
#pragma once

#include "talvo/transport/tcp/handshake.h"
#include "talvo/transport/tls/transport_ssl.h"

namespace talvo {

// The step of a handshake for the result of a session's Handshake.
TALVO_API IHandshake::EStep HandshakeStepOf(CTlsSession::EResult aResult);

// Makes transports of TLS and their handshakes. A TLS session begins on any connected TCP socket: a connector or acceptor takes
// a CTlsHandshakes as its maker, or a CHandshakeRun runs one over a CCmTransportSsl that got the socket. Handshakes of another
// maker can come first on the same connection, the request to a proxy server for example.
class CTlsHandshakes final : public IHandshakeMaker {
public:
    static constexpr DWORD DEFAULT_TIME = 10000;
    static constexpr DWORD DEFAULT_MOST = 1024;

    struct CSettings {
        CCmRefPtrT<CCmSslContext> m_pContext;
        CCmString m_strServerName;      // "": of a server
        CCmString m_strAlpn;            // "": the context's
        DWORD m_dwTime = DEFAULT_TIME;  // milliseconds, of all handshakes of a connection; 0: no limit
        DWORD m_dwMost = DEFAULT_MOST;
    };

    // aType: 4, 8 or 12. aFirst makes the handshakes before TLS, which use the raw socket; its transports and limits do not
    // count. Null: there are none.
    explicit CTlsHandshakes(DWORD aType, std::shared_ptr<IHandshakeMaker> aFirst = nullptr)
        : m_dwType(aType), m_pFirst(std::move(aFirst)) {}

    // For the connections from now on.
    void Use(CSettings aSettings) { m_Settings = std::move(aSettings); }

    CCmRefPtrT<CCmTransportTcp> MakeTransport(ICmReactor* aReactor) override;
    // aTransport: of MakeTransport.
    std::unique_ptr<IHandshake> MakeHandshake(CCmTransportTcp& aTransport, DWORD aStep) override;
    CCmTimeValue GetTimeLimit() const override { return CCmTimeValue::FromUsec(int64_t{m_Settings.m_dwTime} * 1000); }
    DWORD GetMostInFlight() const override { return m_Settings.m_dwMost; }

private:
    const DWORD m_dwType;
    const std::shared_ptr<IHandshakeMaker> m_pFirst;
    CSettings m_Settings;
};

}  // namespace talvo
