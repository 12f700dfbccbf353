// Listens for TLS connections.
#pragma once

#include "talvo/transport/option_values.h"
#include "talvo/transport/tcp/acceptor_tcp.h"
#include "talvo/transport/tls/tls_handshake.h"

// A TCP acceptor that indicates connections whose handshake is complete. Types 4 (TLS 1.2), 8 (TLS 1.3), 12 (either). It needs
// a context with a certificate: CM_OPT_CONNECT_SSL_CONTEXT. A report of a socket does at most one operation with its private
// key, so other connections get their turn between two handshakes.
class TALVO_API CCmAcceptorSsl : public CCmAcceptorTcp {
public:
    // A CCmAcceptorMaker. Handshakes of the settings come first on each connection, then TLS.
    static CCmRefPtrT<ICmAcceptor> Make(const CCmAcceptorSettings& aSettings);

protected:
    // Also CM_OPT_CONNECT_SSL_CONTEXT, CM_OPT_CONNECT_ALPN, CM_OPT_CONNECT_HANDSHAKE_TIME and CM_OPT_CONNECT_MAX_HANDSHAKES.
    CmResult SetOption_i(DWORD aCommand, void* aArg) override;
    CmResult GetOption_i(DWORD aCommand, void* aArg) override;
    CmResult Prepare_i(const CCmInetAddr& aAddrListen) override;

private:
    explicit CCmAcceptorSsl(std::shared_ptr<talvo::CTlsHandshakes> aHandshakes);

    const std::shared_ptr<talvo::CTlsHandshakes> m_pHandshakes;
    talvo::COptionValues m_Options;  // of TLS
};
