// Makes an application's channels, HTTP servers and URLs.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"
#include "talvo/http/client/http_pool_limits.h"

class CCmHttpProxyInfo;  // talvo/transport/proxy_route.h
class CCmHttpUrl;
class ICmChannelHttpClient;
class ICmChannelServerAcceptor;

// One for the process, without state; any thread. Its objects belong to the calling thread and carry one reference for the
// caller. On failure aOut (out) is unchanged.
class TALVO_API CCmChannelManager {
public:
    // The first call creates it. Any thread; never null.
    static CCmChannelManager* Instance();

    // A client for aUrl, which is copied; see ICmChannelHttpClient. CM_ERROR_INVALID_ARG: aUrl is null.
    // CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateChannelHttpClient(ICmChannelHttpClient*& aOut, CCmHttpUrl* aUrl, CmDword aFlags = 0);
    // Through the proxies of the user, as a browser has them: a CCmChannelHttpClientWithBrowerProxy.
    static constexpr CmDword BROWSER_PROXY = 2;

    // The same through the servers of a route, one after the other until one can be reached: http through an HTTP or HTTPS
    // proxy by requests in absolute form, everything else in tunnels. docs/http_client.md describes both. CM_ERROR_INVALID_ARG:
    // aUrl or aProxy is null, or the route is empty. CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateChannelHttpClientWithProxy(ICmChannelHttpClient*& aOut, CCmHttpUrl* aUrl, CCmHttpProxyInfo* aProxy);

    // A server. aFlags: no flags are defined yet. CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateHttpAcceptor(ICmChannelServerAcceptor*& aOut, CmDword aFlags = 0);

    // A URL from its text. CM_ERROR_FAILURE: CCmHttpUrl::Init refuses it. CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateUrl(CCmHttpUrl*& aOut, const CCmString& aText);

    // Limits the connections of the calling thread's clients, at once. CM_ERROR_INVALID_ARG: no connection a host.
    // CM_ERROR_NULL_POINTER: the thread has no event queue or no timer queue. CM_ERROR_OUT_OF_MEMORY.
    CmResult SetHttpPoolLimits(const CCmHttpPoolLimits& aLimits);

private:
    CCmChannelManager() = default;
};
