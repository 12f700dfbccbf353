// HTTP clients whose servers are scripts: no sockets, no threads, one loop.
#pragma once

#include "talvo/http/channel/channel_options.h"
#include "talvo/http/channel_manager.h"
#include "talvo/http/client/channel_http_client.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_url.h"
#include "talvo/testing/scripted_http.h"
#include "talvo/transport/proxy_route.h"
#include "tests/http/tls_front.h"
#include "tests/support/channel_sink.h"
#include "tests/support/network_fixture.h"
#include "tests/support/test.h"

using CAnswer = CCmScriptedAnswer;
using CAnswers = CCmScriptedHttpServer::CAnswers;
using CScriptServer = CCmScriptedHttpServer;

inline CAnswer Answer(const std::string& aStatus, const std::string& aHeaders, const std::string& aBody) {
    return CAnswer::Make(aStatus, aHeaders, aBody);
}

// A client of the calling thread with its sink.
class CTestHttpClient {
public:
    // aProxies: URIs; "": no proxies; "browser": those of the process's source.
    explicit CTestHttpClient(const std::string& aUrl, const std::string& aProxies = "") {
        CCmChannelManager& manager = *CCmChannelManager::Instance();
        CCmRefPtrT<CCmHttpUrl> pUrl;
        EXPECT_EQ(CM_OK, manager.CreateUrl(pUrl.ParaOut(), aUrl));
        CCmProxyRoute route;
        const bool bBrowser = aProxies == "browser", bRoute = !bBrowser && !aProxies.empty();
        EXPECT_EQ(CM_OK, bRoute ? CCmProxyRoute::FromUris(aProxies, route) : CM_OK) << aProxies;
        const CCmRefPtrT<CCmHttpProxyInfo> pProxy(new CCmHttpProxyInfo(route));
        const DWORD dwFlags = bBrowser ? CCmChannelManager::BROWSER_PROXY : 0;
        EXPECT_EQ(CM_OK, !bRoute ? manager.CreateChannelHttpClient(m_pChannel.ParaOut(), pUrl.Get(), dwFlags)
                                 : manager.CreateChannelHttpClientWithProxy(m_pChannel.ParaOut(), pUrl.Get(), pProxy.Get()));
    }
    CmResult Set(DWORD aOption, DWORD aValue) const { return m_pChannel->SetOption(aOption, &aValue); }
    CmResult Header(const char* aName, const std::string& aValue, BOOL aMerge = FALSE) const {
        return m_pChannel->SetRequestHeader(CCmHttpAtomList::Instance()->ResolveAtom(aName, 1), aValue, aMerge);
    }
    // With a body unless it is empty.
    void Ask(const char* aMethod, const std::string& aBody = "") const {
        EXPECT_EQ(CM_OK, m_pChannel->SetRequestMethod(CCmHttpAtomList::Instance()->ResolveAtom(aMethod, 1)));
        EXPECT_EQ(CM_OK, aBody.empty() ? CM_OK : m_pChannel->SetRequestBody(ViewOf(aBody)));
    }
    void Open() { EXPECT_EQ(CM_OK, m_pChannel->AsyncOpen(&m_Sink)); }
    bool IsOver() const { return m_Sink.m_nDisconnects > 0; }
    // Status and body, and behind them the reason if it is not CM_OK.
    std::string Result() const {
        const std::string strResult = std::to_string(m_pChannel->GetResponseStatus()) + " " + m_Sink.m_strBody;
        return m_Sink.m_Reason == CM_OK ? strResult : strResult + " !" + std::to_string(m_Sink.m_Reason);
    }

    CTestChannelSink m_Sink;
    CCmRefPtrT<ICmChannelHttpClient> m_pChannel;
};

// The main thread is the network thread, so that no proxy stands between. With "tls" as the family the servers are real ones.
class CHttpClientTest : public testing::Test {
protected:
    explicit CHttpClientTest(bool aTls = std::string_view(OwnFamily()) == "tls")
        : m_Http(aTls ? "https" : "http"), m_pFront(aTls ? std::make_unique<CTlsFront>() : nullptr) {}

    // The servers answer meanwhile.
    template <class Condition>
    void RunUntil(Condition aCondition) const {
        m_Network.RunUntil([&] {
            CCmScriptedHttp::Play();
            return aCondition();
        });
    }
    void Turn() const {
        m_Network.RunPosted();
        CCmScriptedHttp::Play();
        m_Network.RunPosted();
    }
    std::string Run(CTestHttpClient& aClient) const {
        aClient.Open();
        RunUntil([&] { return aClient.IsOver(); });
        return aClient.Result();
    }
    static std::string ProxyOf(const CScriptServer& aServer, const std::string& aCredentials = "") {
        return "http://" + aCredentials + cm_address_text(aServer.GetAddr());
    }
    std::string Get(
        const CScriptServer& aServer, const std::function<void(CTestHttpClient&)>& aSet = [](CTestHttpClient&) {}) const {
        CTestHttpClient client(aServer.GetUrl());
        aSet(client);
        return Run(client);
    }

    CCmFakeClock m_Clock;
    const CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
    const CCmScriptedHttp m_Http;
    const std::unique_ptr<CTlsFront> m_pFront;
};
