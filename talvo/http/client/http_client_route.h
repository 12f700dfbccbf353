// The ways of a channel's requests to their servers.
#pragma once

#include <vector>

#include "talvo/base/result.h"
#include "talvo/http/client/http_destination.h"

class CCmHttpUrl;

namespace talvo {

// The settings of a channel that choose its connections, and the servers of a proxy route in turn. A way is direct, a tunnel
// through some servers of the route, or an HTTP proxy that gets requests in absolute form.
class CHttpClientRoute {
public:
    CCmInetAddr& GetConnectTo() { return m_AddrConnectTo; }
    CCmRefPtrT<CCmSslContext>& GetContext() { return m_pContext; }
    // Empty, the default: there are no proxies.
    void SetProxies(const CCmProxyRoute& aProxies) { m_Proxies = aProxies; }

    // Chooses the first way for requests to aUrl, http or https. aConnectMs: the limit of the connects, until one succeeds, 0
    // for none.
    void Begin(const CCmHttpUrl& aUrl, CmDword aConnectMs);

    // The way in use. aTo (out): its destination. CM_ERROR_OUT_OF_MEMORY: there is no TLS context.
    CmResult MakeDestination(const CCmHttpUrl& aUrl, CHttpDestination& aTo) const;
    // The proxy that gets requests in absolute form; null: a tunnel, or direct. Valid until Begin.
    const CCmProxyServer* GetHttpProxy() const;
    // A connect begins. Returns its limit in milliseconds; 0: none.
    CmDword BeginConnect();

    // A connection of the way in use is there.
    void OnConnected();
    // None came for this reason. TRUE: the next way is in use. FALSE: the attempt has failed, with the reason that is now in
    // aReason.
    CmBool OnUnconnected(CmResult& aReason);

private:
    void Split_i();
    CmBool IsUnreached_i(CmResult aReason) const;

    CCmInetAddr m_AddrConnectTo;           // see CM_OPT_CHANNEL_CONNECT_TO
    CCmRefPtrT<CCmSslContext> m_pContext;  // see CM_OPT_CHANNEL_SSL_CONTEXT
    CCmProxyRoute m_Proxies;
    std::vector<CCmProxyRoute> m_Ways;  // empty: direct
    size_t m_stWay = 0;
    CmBool m_bAbsolute = CM_FALSE;  // HTTP proxies get requests in absolute form
    CmDword m_dwConnectMs = 0;
    int64_t m_llConnectUntil = 0;  // the limit of all connects together; 0: none is in progress
};

}  // namespace talvo
