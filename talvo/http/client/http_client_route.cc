#include "talvo/http/client/http_client_route.h"

#include "talvo/http/message/http_url.h"

namespace talvo {

CmResult CHttpClientRoute::MakeDestination(const CCmHttpUrl& aUrl, CHttpDestination& aTo) const {
    aTo.m_strHost = aUrl.GetHostName();
    aTo.m_wPort = aUrl.GetPort();
    aTo.m_AddrConnectTo = m_AddrConnectTo;
    const BOOL bTls = aUrl.GetScheme() == "https";
    aTo.m_pContext = !bTls ? nullptr : m_pContext ? m_pContext : CCmSslContext::GetDefault();
    return bTls && !aTo.m_pContext ? CM_ERROR_OUT_OF_MEMORY : CM_OK;
}

}  // namespace talvo
