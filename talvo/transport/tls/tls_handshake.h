// The TLS handshake of a connection, between its connect and its indication.
#pragma once

#include "talvo/transport/tcp/handshake.h"
#include "talvo/transport/tls/transport_ssl.h"

namespace talvo {

// Makes transports of TLS and their handshakes, for a connector or an acceptor.
class CTlsHandshakes final : public IHandshakeMaker {
public:
    explicit CTlsHandshakes(DWORD aType) : m_dwType(aType) {}

    // For the connections from now on. aServerName "": of a server.
    void Use(CCmRefPtrT<CCmSslContext> aContext, CCmString aServerName);

    CCmRefPtrT<CCmTransportTcp> MakeTransport(ICmReactor* aReactor) override;
    std::unique_ptr<IHandshake> MakeHandshake(CCmTransportTcp& aTransport, DWORD aStep) override;

private:
    const DWORD m_dwType;
    CCmRefPtrT<CCmSslContext> m_pContext;
    CCmString m_strServerName;
};

}  // namespace talvo
