// Listens for TLS connections.
#pragma once

#include "talvo/transport/tcp/acceptor_tcp.h"
#include "talvo/transport/tls/tls_handshake.h"

// A TCP acceptor that indicates connections whose handshake is complete. Types 4 (TLS 1.2), 8 (TLS 1.3), 12 (either).
class TALVO_API CCmAcceptorSsl : public CCmAcceptorTcp {
public:
    static CCmRefPtrT<ICmAcceptor> Make(const CCmAcceptorSettings& aSettings);  // a CCmAcceptorMaker

protected:
    // Also CM_OPT_CONNECT_SSL_CONTEXT.
    CmResult SetOption_i(DWORD aCommand, void* aArg) override;
    CmResult GetOption_i(DWORD aCommand, void* aArg) override;

private:
    explicit CCmAcceptorSsl(std::shared_ptr<talvo::CTlsHandshakes> aHandshakes);

    const std::shared_ptr<talvo::CTlsHandshakes> m_pHandshakes;
    CCmRefPtrT<CCmSslContext> m_pContext;
};
