// The HTTP client channel through the proxies of the user.
#pragma once

#include "talvo/event/thread_link.h"
#include "talvo/http/client/channel_http_client.h"
#include "talvo/transport/proxy_source.h"

// The product of CCmChannelManager::CreateChannelHttpClient with the flag BROWSER_PROXY. A CCmChannelHttpClient that asks the
// process's ICmProxySource for the route of its URL, and again for that of each redirect. The source gets scheme, host and port
// alone. Without a source the route is DIRECT.
//
// A search without a result is a failure as all others of the channel: its reason is that of the source, such as
// CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE for a script that must decide and cannot. If the source refuses the first question
// at once, AsyncOpen returns the reason. The source limits the time of a search; CM_OPT_CHANNEL_CONNECT_TIMEOUT begins after
// it.
class TALVO_API CCmChannelHttpClientWithBrowerProxy final : public CCmChannelHttpClient,
                                                            private ICmProxySourceSink,
                                                            private CCmThreadTenant {
public:
    // As CCmChannelHttpClient.
    CCmChannelHttpClientWithBrowerProxy(const CCmHttpUrl& aUrl, CmDword aFlags) : CCmChannelHttpClient(aUrl, aFlags) {}
    ~CCmChannelHttpClientWithBrowerProxy() override;

private:
    CmResult FindProxies(const CCmHttpUrl& aUrl) override;
    void StopFinding() override;
    void OnProxyRoute(CmResult aReason, const CCmProxyRoute& aRoute) override;
    void OnProxySettingsChanged() override;
    void OnThreadEnd() override { StopFinding(); }
    void OnDrain(ECmDrainStage aStage) override;
    void AddUndrained(CCmUndrained& aLeft) override { aLeft.m_dwRequests += m_pSource != nullptr; }

    CmResult Ask_i();

    ICmProxySource* m_pSource = nullptr;  // not owned; has a question of this channel
    CCmString m_strQuestion;
    CmBool m_bAskedAgain = CM_FALSE;
};

// The same under its right spelling.
using CCmChannelHttpClientWithBrowserProxy = CCmChannelHttpClientWithBrowerProxy;
