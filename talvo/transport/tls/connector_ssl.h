// Opens a TLS connection.
#pragma once

#include "talvo/transport/base_types.h"
#include "talvo/transport/tls/tls_handshake.h"

// Connects with a TCP connector, whose attempts shake hands before they are reported. Types 4 (TLS 1.2), 8 (TLS 1.3), 12
// (either).
class TALVO_API CCmConnectorSsl : public ACmConnectorInternal, private ACmConnectorUpper {
public:
    static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings& aSettings);  // a CCmConnectorMaker

    // Without a name to check or a context it fails at once.
    int Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal = nullptr) override;
    void Close() override { m_pLower->Close(); }

    // Also CM_OPT_CONNECT_SSL_CONTEXT and CM_OPT_CONNECT_SERVER_NAME.
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;

private:
    explicit CCmConnectorSsl(const CCmConnectorSettings& aSettings);
    int OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal* aId) override;

    ACmConnectorUpper& m_Upper;
    const std::shared_ptr<talvo::CTlsHandshakes> m_pHandshakes;
    CCmRefPtrT<CCmSslContext> m_pContext;
    CCmString m_strServerName;
    std::unique_ptr<ACmConnectorInternal> m_pLower;  // of TCP
};
