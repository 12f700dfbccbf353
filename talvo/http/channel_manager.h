// Where an application gets its channels, HTTP servers and URLs.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/types.h"
#include "talvo/http/client/http_pool_limits.h"

class CCmHttpProxyInfo;  // proxies are not offered yet
class CCmHttpUrl;
class ICmChannelHttpClient;
class ICmChannelServerAcceptor;

// One for the process, without a state of its own; any thread. What it makes belongs to the calling thread and carries one
// reference for the caller. On failure aOut is left as it is.
class TALVO_API CCmChannelManager {
public:
    static CCmChannelManager* Instance();

    // A client for aUrl, which is copied; see ICmChannelHttpClient. CM_ERROR_INVALID_ARG: aUrl is null.
    // CM_ERROR_NOT_IMPLEMENTED, with a line: https, or the flag BROWSER_PROXY. CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateChannelHttpClient(ICmChannelHttpClient*& aOut, CCmHttpUrl* aUrl, DWORD aFlags = 0);
    static constexpr DWORD BROWSER_PROXY = 2;  // through the proxy that the user's browser would take

    // The same through a proxy; not offered yet: CM_ERROR_INVALID_ARG for a null URL, else CM_ERROR_NOT_IMPLEMENTED and a line.
    CmResult CreateChannelHttpClientWithProxy(ICmChannelHttpClient*& aOut, CCmHttpUrl* aUrl, CCmHttpProxyInfo* aProxy);

    // A server. No bit of aFlags means anything yet. CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateHttpAcceptor(ICmChannelServerAcceptor*& aOut, DWORD aFlags = 0);

    // A URL from its text. CM_ERROR_FAILURE: CCmHttpUrl::Init refuses it. CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateUrl(CCmHttpUrl*& aOut, const CCmString& aText);

    // The limits on connections of the calling thread's clients; they hold at once. CM_ERROR_INVALID_ARG: no connection a host.
    // CM_ERROR_NULL_POINTER: the thread has no event queue or no timer queue. CM_ERROR_OUT_OF_MEMORY.
    CmResult SetHttpPoolLimits(const CCmHttpPoolLimits& aLimits);

private:
    CCmChannelManager() = default;
};
