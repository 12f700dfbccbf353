#include "talvo/transport/tls/connector_ssl.h"

#include <cerrno>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/socket_settings.h"
#include "talvo/transport/tcp/connector_tcp.h"
#include "talvo/transport/tls/server_name.h"

std::unique_ptr<ACmConnectorInternal> CCmConnectorSsl::Make(const CCmConnectorSettings& aSettings) {
    std::unique_ptr<CCmConnectorSsl> pConnector;
    talvo::WithMemory([&] { pConnector.reset(new CCmConnectorSsl(aSettings)); });
    if (pConnector && !pConnector->m_pLower)
        pConnector.reset();
    return pConnector;
}

CCmConnectorSsl::CCmConnectorSsl(const CCmConnectorSettings& aSettings)
    : m_pReactor(aSettings.m_pReactor),
      m_Upper(*aSettings.m_pUpper),
      m_pHandshakes(std::make_shared<talvo::CTlsHandshakes>(aSettings.m_dwType, aSettings.m_pHandshakes)),
      m_Options(CM_TRANSPORT_TYPE_TLS, TRUE),
      m_pLower(CCmConnectorTcp::Make({aSettings.m_dwType, aSettings.m_pReactor, this, m_pHandshakes})) {}

CCmConnectorSsl::~CCmConnectorSsl() {
    if (m_bTimerArmed)
        m_pReactor->CancelTimer(this);
}

int CCmConnectorSsl::Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal) {
    Close();
    m_Failure = {};
    talvo::CTlsHandshakes::CSettings settings;
    if (!talvo::WithMemory([&] { settings = SettingsFor_i(aAddr); }) || !settings.m_pContext)
        return NoMemory_i(aAddr);
    if (settings.m_strServerName.empty())
        return RefuseAddress_i(aAddr);
    m_pHandshakes->Use(std::move(settings));
    const int nRv = m_pLower->Connect(aAddr, aAddrLocal);
    m_Failure = m_pLower->GetFailure();
    return nRv;
}

talvo::CTlsHandshakes::CSettings CCmConnectorSsl::SettingsFor_i(const CCmInetAddr& aAddr) const {
    talvo::CTlsHandshakes::CSettings settings;
    settings.m_pContext = m_Options.ValueOf<CCmRefPtrT<CCmSslContext>>(CM_OPT_CONNECT_SSL_CONTEXT);
    if (!settings.m_pContext)
        settings.m_pContext = CCmSslContext::GetDefault();
    settings.m_strServerName = talvo::ServerNameOf(m_Options.ValueOf<CCmString>(CM_OPT_CONNECT_SERVER_NAME), aAddr);
    settings.m_strAlpn = m_Options.ValueOf<CCmString>(CM_OPT_CONNECT_ALPN);
    const DWORD dwTime = m_Options.ValueOf<DWORD>(CM_OPT_CONNECT_HANDSHAKE_TIME);
    if (dwTime > 0 || m_bTimed)
        settings.m_dwTime = dwTime;
    return settings;
}

int CCmConnectorSsl::RefuseAddress_i(const CCmInetAddr& aAddr) {
    m_Failure = CCmFailure(CM_FAILURE_LOCAL, "there is no name for the server's certificate", "connect to", aAddr);
    CM_WARNING_TRACE_THIS("CCmConnectorSsl::Connect, refused. why=" << m_Failure.ToString());
    const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, CCmTimeValue::s_tvZero, 1);
    m_bTimerArmed = rv == CM_OK || rv == CM_ERROR_FOUND;
    return m_bTimerArmed ? 0 : NoMemory_i(aAddr);
}

int CCmConnectorSsl::NoMemory_i(const CCmInetAddr& aAddr) {
    m_Failure = CCmFailure(ENOMEM, "connect to", aAddr);
    return -1;
}

void CCmConnectorSsl::OnTimeout(const CCmTimeValue&, void*) {
    m_bTimerArmed = FALSE;
    m_Upper.OnConnectIndication(CM_ERROR_INVALID_ARG, nullptr, this);  // last: the upper connector may delete this one
}

int CCmConnectorSsl::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal*) {
    m_Failure = m_pLower->GetFailure();
    return m_Upper.OnConnectIndication(aReason, aTrpt, this);  // last, as above
}

void CCmConnectorSsl::Close() {
    if (std::exchange(m_bTimerArmed, FALSE))
        m_pReactor->CancelTimer(this);
    m_pLower->Close();
}

CmResult CCmConnectorSsl::SetOption(DWORD aCommand, void* aArg) {
    return talvo::CSocketSettings::Has(aCommand) ? m_pLower->SetOption(aCommand, aArg) : m_Options.Set(aCommand, aArg);
}

CmResult CCmConnectorSsl::GetOption(DWORD aCommand, void* aArg) {
    return talvo::CSocketSettings::Has(aCommand) ? m_pLower->GetOption(aCommand, aArg) : m_Options.Get(aCommand, aArg);
}
