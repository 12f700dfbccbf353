#include "talvo/transport/tls/connector_ssl.h"

#include <cerrno>
#include <new>

#include "talvo/base/with_memory.h"
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
    : m_Upper(*aSettings.m_pUpper), m_pHandshakes(std::make_shared<talvo::CTlsHandshakes>(aSettings.m_dwType)) {
    m_pLower = CCmConnectorTcp::Make({aSettings.m_dwType, aSettings.m_pReactor, this, m_pHandshakes});
}

int CCmConnectorSsl::Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal) {
    const BOOL bMemory = talvo::WithMemory([&] {
        m_pHandshakes->Use(m_pContext ? m_pContext : CCmSslContext::GetDefault(), talvo::ServerNameOf(m_strServerName, aAddr));
    });
    if (!bMemory) {
        m_Failure = CCmFailure(ENOMEM, "connect to", aAddr);
        return -1;
    }
    const int nRv = m_pLower->Connect(aAddr, aAddrLocal);
    m_Failure = m_pLower->GetFailure();
    return nRv;
}

int CCmConnectorSsl::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal*) {
    m_Failure = m_pLower->GetFailure();
    return m_Upper.OnConnectIndication(aReason, aTrpt, this);  // last: the upper connector may delete this one
}

CmResult CCmConnectorSsl::SetOption(DWORD aCommand, void* aArg) {
    switch (aCommand) {
    case CM_OPT_CONNECT_SSL_CONTEXT:
        m_pContext = *static_cast<CCmRefPtrT<CCmSslContext>*>(aArg);
        return CM_OK;
    case CM_OPT_CONNECT_SERVER_NAME: {
        const auto& strName = *static_cast<const CCmString*>(aArg);
        if (!talvo::IsServerName(strName))
            return CM_ERROR_INVALID_ARG;
        return talvo::WithMemory([&] { m_strServerName = strName; }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
    }
    default:
        return m_pLower->SetOption(aCommand, aArg);
    }
}

CmResult CCmConnectorSsl::GetOption(DWORD aCommand, void* aArg) {
    switch (aCommand) {
    case CM_OPT_CONNECT_SSL_CONTEXT:
        *static_cast<CCmRefPtrT<CCmSslContext>*>(aArg) = m_pContext;
        return CM_OK;
    case CM_OPT_CONNECT_SERVER_NAME:
        return talvo::WithMemory([&] { *static_cast<CCmString*>(aArg) = m_strServerName; }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
    default:
        return m_pLower->GetOption(aCommand, aArg);
    }
}
