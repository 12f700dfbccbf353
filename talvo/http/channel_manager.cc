#include "talvo/http/channel_manager.h"

#include <new>

#include "talvo/http/client/channel_http_client.h"
#include "talvo/http/client/channel_http_client_with_brower_proxy.h"
#include "talvo/http/client/http_client_pool.h"
#include "talvo/http/message/http_url.h"
#include "talvo/http/server/channel_http_server_acceptor.h"
#include "talvo/transport/proxy_route.h"

namespace {

// Stores aObject in the caller's pointer, with a reference for the caller.
template <class Interface, class Object>
CmResult HandOut(Object* aObject, Interface*& aOut) {
    if (!aObject)
        return CM_ERROR_OUT_OF_MEMORY;
    aObject->AddReference();
    aOut = aObject;
    return CM_OK;
}

}  // namespace

CCmChannelManager* CCmChannelManager::Instance() {
    static CCmChannelManager s_Instance;
    return &s_Instance;
}

CmResult CCmChannelManager::CreateChannelHttpClient(ICmChannelHttpClient*& aOut, CCmHttpUrl* aUrl, DWORD aFlags) {
    if (!aUrl)
        return CM_ERROR_INVALID_ARG;
    if (aFlags & BROWSER_PROXY)
        return HandOut(new (std::nothrow) CCmChannelHttpClientWithBrowerProxy(*aUrl, aFlags), aOut);
    return HandOut(new (std::nothrow) CCmChannelHttpClient(*aUrl, aFlags), aOut);
}

CmResult CCmChannelManager::CreateChannelHttpClientWithProxy(ICmChannelHttpClient*& aOut, CCmHttpUrl* aUrl,
                                                             CCmHttpProxyInfo* aProxy) {
    if (!aUrl || !aProxy || aProxy->GetRoute().IsEmpty())
        return CM_ERROR_INVALID_ARG;
    return HandOut(new (std::nothrow) CCmChannelHttpClient(*aUrl, 0, aProxy->GetRoute()), aOut);
}

CmResult CCmChannelManager::CreateHttpAcceptor(ICmChannelServerAcceptor*& aOut, DWORD aFlags) {
    return HandOut(new (std::nothrow) CCmChannelHttpServerAcceptor(aFlags), aOut);
}

CmResult CCmChannelManager::CreateUrl(CCmHttpUrl*& aOut, const CCmString& aText) {
    auto* pUrl = new (std::nothrow) CCmHttpUrl;
    if (pUrl && !pUrl->Init(aText)) {
        delete pUrl;
        return CM_ERROR_FAILURE;
    }
    return HandOut(pUrl, aOut);
}

CmResult CCmChannelManager::SetHttpPoolLimits(const CCmHttpPoolLimits& aLimits) {
    if (aLimits.m_dwMaxPerHost == 0)
        return CM_ERROR_INVALID_ARG;
    talvo::CHttpClientPool* pPool = nullptr;
    const CmResult rv = talvo::CHttpClientPool::OfThisThread(pPool);
    if (rv == CM_OK)
        pPool->SetLimits(aLimits);
    return rv;
}
