// Opens a TLS connection.
#pragma once

#include "talvo/transport/base_types.h"
#include "talvo/transport/option_values.h"
#include "talvo/transport/tls/tls_handshake.h"

// Connects with a TCP connector, whose attempts shake hands before they are reported. Types 4 (TLS 1.2), 8 (TLS 1.3), 12
// (either). The transport delivers data that arrived with the handshake. May be used again after each report.
//
// Of the addresses of a name the first to connect shakes hands. If TLS fails, no further address is tried: a server has
// answered for the name.
class TALVO_API CCmConnectorSsl : public ACmConnectorInternal, private ACmConnectorUpper, private ICmTimerHandler {
public:
    // A CCmConnectorMaker. Handshakes of the settings come first on each connection, then TLS.
    static std::unique_ptr<ACmConnectorInternal> Make(const CCmConnectorSettings& aSettings);
    ~CCmConnectorSsl() override;

    // Without a name to check it reports CM_ERROR_INVALID_ARG, and connects to nothing.
    int Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal = nullptr) override;
    void Close() override;

    // Also CM_OPT_CONNECT_SSL_CONTEXT, CM_OPT_CONNECT_SERVER_NAME, CM_OPT_CONNECT_ALPN and
    // CM_OPT_CONNECT_HANDSHAKE_TIME.
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;

private:
    explicit CCmConnectorSsl(const CCmConnectorSettings& aSettings);
    talvo::CTlsHandshakes::CSettings SettingsFor_i(const CCmInetAddr& aAddr) const;
    int RefuseAddress_i(const CCmInetAddr& aAddr);
    int NoMemory_i(const CCmInetAddr& aAddr);
    int OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal* aId) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;

    const talvo::CHomeReactor m_pReactor;
    ACmConnectorUpper& m_Upper;
    const std::shared_ptr<talvo::CTlsHandshakes> m_pHandshakes;
    talvo::COptionValues m_Options;  // of TLS
    BOOL m_bTimerArmed = FALSE;
    std::unique_ptr<ACmConnectorInternal> m_pLower;  // of TCP
};
