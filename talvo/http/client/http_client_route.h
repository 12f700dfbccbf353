// The ways of a channel's requests to their servers.
#pragma once

#include "talvo/base/result.h"
#include "talvo/http/client/http_destination.h"

class CCmHttpUrl;

namespace talvo {

// The settings of a channel that choose its connections. A value.
class CHttpClientRoute {
public:
    CCmInetAddr& GetConnectTo() { return m_AddrConnectTo; }
    CCmRefPtrT<CCmSslContext>& GetContext() { return m_pContext; }

    // aTo (out): the destination of a request for aUrl, http or https. CM_ERROR_OUT_OF_MEMORY: there is no TLS context.
    CmResult MakeDestination(const CCmHttpUrl& aUrl, CHttpDestination& aTo) const;

private:
    CCmInetAddr m_AddrConnectTo;           // see CM_OPT_CHANNEL_CONNECT_TO
    CCmRefPtrT<CCmSslContext> m_pContext;  // see CM_OPT_CHANNEL_SSL_CONTEXT
};

}  // namespace talvo
