#include "talvo/transport/tls/acceptor_ssl.h"

#include <utility>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/socket_settings.h"

CCmAcceptorSsl::CCmAcceptorSsl(std::shared_ptr<talvo::CTlsHandshakes> aHandshakes)
    : CCmAcceptorTcp(aHandshakes), m_pHandshakes(std::move(aHandshakes)), m_Options(CM_TRANSPORT_TYPE_TLS, FALSE) {}

CCmRefPtrT<ICmAcceptor> CCmAcceptorSsl::Make(const CCmAcceptorSettings& aSettings) {
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    talvo::WithMemory([&] {
        pAcceptor = new CCmAcceptorSsl(std::make_shared<talvo::CTlsHandshakes>(aSettings.m_dwType, aSettings.m_pHandshakes));
    });
    return pAcceptor;
}

CmResult CCmAcceptorSsl::Prepare_i(const CCmInetAddr& aAddrListen) {
    const auto valueOr = [&](DWORD aCommand, DWORD aDefault) {
        const auto dwValue = m_Options.ValueOf<DWORD>(aCommand);
        return dwValue > 0 ? dwValue : aDefault;
    };
    using Handshakes = talvo::CTlsHandshakes;
    const auto pContext = m_Options.ValueOf<CCmRefPtrT<CCmSslContext>>(CM_OPT_CONNECT_SSL_CONTEXT);
    if (!pContext || !pContext->HasCertificate()) {
        m_Failure = CCmFailure(CM_FAILURE_LOCAL, "there is no certificate to present", "listen on", aAddrListen);
        CM_ERROR_TRACE_THIS("CCmAcceptorSsl::StartListen, refused. why=" << m_Failure.ToString());
        return CM_ERROR_NOT_INITIALIZED;
    }
    m_pHandshakes->Use({pContext,
                        {},
                        m_Options.ValueOf<CCmString>(CM_OPT_CONNECT_ALPN),
                        valueOr(CM_OPT_CONNECT_HANDSHAKE_TIME, Handshakes::DEFAULT_TIME),
                        valueOr(CM_OPT_CONNECT_MAX_HANDSHAKES, Handshakes::DEFAULT_MOST)});
    return CM_OK;
}

CmResult CCmAcceptorSsl::SetOption_i(DWORD aCommand, void* aArg) {
    return talvo::CSocketSettings::Has(aCommand) ? CCmAcceptorTcp::SetOption_i(aCommand, aArg) : m_Options.Set(aCommand, aArg);
}

CmResult CCmAcceptorSsl::GetOption_i(DWORD aCommand, void* aArg) {
    return talvo::CSocketSettings::Has(aCommand) ? CCmAcceptorTcp::GetOption_i(aCommand, aArg) : m_Options.Get(aCommand, aArg);
}
