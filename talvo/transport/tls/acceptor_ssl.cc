#include "talvo/transport/tls/acceptor_ssl.h"

#include <utility>

#include "talvo/base/with_memory.h"

CCmAcceptorSsl::CCmAcceptorSsl(std::shared_ptr<talvo::CTlsHandshakes> aHandshakes)
    : CCmAcceptorTcp(aHandshakes), m_pHandshakes(std::move(aHandshakes)) {}

CCmRefPtrT<ICmAcceptor> CCmAcceptorSsl::Make(const CCmAcceptorSettings& aSettings) {
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    talvo::WithMemory([&] { pAcceptor = new CCmAcceptorSsl(std::make_shared<talvo::CTlsHandshakes>(aSettings.m_dwType)); });
    return pAcceptor;
}

CmResult CCmAcceptorSsl::SetOption_i(DWORD aCommand, void* aArg) {
    if (aCommand != CM_OPT_CONNECT_SSL_CONTEXT)
        return CCmAcceptorTcp::SetOption_i(aCommand, aArg);
    m_pContext = *static_cast<CCmRefPtrT<CCmSslContext>*>(aArg);
    m_pHandshakes->Use(m_pContext, {});
    return CM_OK;
}

CmResult CCmAcceptorSsl::GetOption_i(DWORD aCommand, void* aArg) {
    if (aCommand != CM_OPT_CONNECT_SSL_CONTEXT)
        return CCmAcceptorTcp::GetOption_i(aCommand, aArg);
    *static_cast<CCmRefPtrT<CCmSslContext>*>(aArg) = m_pContext;
    return CM_OK;
}
