// The options of TLS on the command line, and the contexts that they describe.
#pragma once

#include <string>

#include "talvo/talvo.h"

namespace tool {

struct TlsOptions {
    bool m_bTls = false;          // --tls
    std::string m_strCaFile;      // --cacert, or ""
    std::string m_strCertFile;    // --cert, or ""
    std::string m_strKeyFile;     // --key, or ""
    std::string m_strServerName;  // --servername, or ""
    bool m_bInsecure = false;     // --insecure

    bool HasFiles() const { return !m_strCaFile.empty() || !m_strCertFile.empty(); }
};

// The functions return "" or an error text, and read all files at once.

// aContext (out): of a client. Null without an option for it: the default context, and so section "Ssl", applies.
std::string MakeClientContext(const TlsOptions& aOptions, CCmRefPtrT<CCmSslContext>& aContext);

// aContext (out): of a server, which presents --cert. With --cacert it requires a certificate of each client.
std::string MakeServerContext(const TlsOptions& aOptions, CCmRefPtrT<CCmSslContext>& aContext);

// For connectors and acceptors of TLS only. Null: the default context.
CmResult UseContext(ICmAcceptorConnectorId* aId, CCmRefPtrT<CCmSslContext> aContext);

}  // namespace tool
