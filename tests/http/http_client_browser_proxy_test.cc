#include "talvo/connection/drain_sink.h"
#include "talvo/testing/trace_capture.h"
#include "talvo/transport/bad_proxies.h"
#include "tests/http/client_fixture.h"
#include "tests/support/proxy_source.h"

namespace {

constexpr CmResult PROXY = CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE;

}  // namespace

// Clients that ask a source for their routes. The proxies and servers are scripts.
class BrowserProxyTest : public CHttpClientTest {
protected:
    BrowserProxyTest() { m_Source.m_bNow = FALSE; }
    ~BrowserProxyTest() override { talvo::CBadProxies::Instance().Clear(); }

    void Route(const std::string& aUris) {
        RunUntil([&] { return m_Source.m_pSink != nullptr; });
        EXPECT_EQ(CM_OK, CCmProxyRoute::FromUris(aUris, m_Source.m_Route));
        m_Source.Answer();
    }
    static CmResult ReasonOf(const CTestHttpClient& aClient) {
        CCmString strText;
        return aClient.m_pChannel->GetFailure(strText);
    }

    CTestSource m_Source;
};

TEST_F(BrowserProxyTest, EachRedirectHasARouteOfItsOwn) {
    const CScriptServer server({{Answer("200 OK", "", "in")}}),
        proxy({{Answer("302 F", "Location: http://b.test:81/p?q\r\n", ""),
                Answer("303 S", "Location: " + server.GetUrl() + "\r\n", "")}});
    CTestHttpClient client("http://a.test/secret?query#part", "browser");
    client.Header("Proxy-Authorization", "x");
    client.Open();
    Route(ProxyOf(proxy));
    RunUntil([&] { return m_Source.m_Urls.size() == 2; });
    for (int i = 0; i < 2; ++i)
        m_Source.m_pSink->OnProxySettingsChanged();
    EXPECT_EQ((std::vector<CCmString>{"http://a.test/", "http://b.test:81/", "http://b.test:81/"}), m_Source.m_Urls)
        << "again once, and never a path";
    Route(ProxyOf(proxy));
    Route("direct");
    RunUntil([&] { return client.IsOver(); });
    EXPECT_EQ("200 in", client.Result());
    EXPECT_TRUE(proxy.m_Requests.at(0).starts_with("GET http://a.test/secret?query HTTP/1.1\r\n"));
    EXPECT_NE(std::string::npos, proxy.m_Requests[0].find("Proxy-Authorization: x\r\n"));
    EXPECT_TRUE(server.m_Requests.at(0).starts_with("GET / HTTP/1.1\r\n"));
    ICmProxySource::Set(nullptr);
    const CScriptServer other({{Answer("200 OK", "", "in")}});
    CTestHttpClient direct(other.GetUrl(), "browser");
    EXPECT_EQ("200 in", Run(direct));
}

TEST_F(BrowserProxyTest, ABodyMayComeBeforeTheRoute) {
    const CScriptServer proxy({{Answer("200 OK", "", "in")}});
    CTestHttpClient client("http://a.test/", "browser");
    client.Ask("POST");
    client.Header("Transfer-Encoding", "chunked");
    client.Open();
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(*client.m_pChannel, "body"));
    bool bRoom = false;
    client.m_Sink.m_Send = [&] { bRoom = true; };
    Route(ProxyOf(proxy));
    RunUntil([&] { return bRoom; });
    EXPECT_EQ(CM_OK, SendText(*client.m_pChannel, "body"));
    EXPECT_EQ(CM_OK, client.m_pChannel->EndRequestBody());
    RunUntil([&] { return client.IsOver(); });
    EXPECT_EQ("200 in", client.Result());
    EXPECT_NE(std::string::npos, proxy.m_Requests.at(0).find("\r\n\r\n4\r\nbody\r\n0\r\n\r\n"));
}

TEST_F(BrowserProxyTest, ASearchEndsWithItsChannel) {
    CTestHttpClient closed("http://a.test/", "browser"), released("http://b.test/", "browser");
    closed.Open();
    EXPECT_EQ(CM_OK, closed.m_pChannel->Disconnect(CM_OK));
    EXPECT_EQ(nullptr, m_Source.m_pSink);
    released.Open();
    released.m_pChannel.Reset();
    EXPECT_EQ(nullptr, m_Source.m_pSink);
    CTestHttpClient drained("http://c.test/", "browser");
    drained.Open();
    struct CSink : ICmDrainSink {
        void OnDrained(CmResult, const CCmUndrained&) override { m_bCalled = true; }
        bool m_bCalled = false;
    } sink;
    CCmTimeValue tvLimit(1);
    EXPECT_EQ(CM_OK, m_Network.Manager().Drain(&tvLimit, &sink));
    RunUntil([&] {
        m_Clock.Advance(CCmTimeValue(0, 100000));
        return sink.m_bCalled;
    });
    EXPECT_TRUE(drained.IsOver());
    EXPECT_EQ("0  !20008", drained.Result());
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, ReasonOf(drained));
    EXPECT_EQ(nullptr, m_Source.m_pSink);
}

TEST_F(BrowserProxyTest, ASearchWithoutARouteIsAFailureWithItsReason) {
    const CCmTraceCapture trace;
    CTestHttpClient late("http://a.test/secret?query", "browser");
    late.Open();
    m_Source.Answer(PROXY);
    EXPECT_EQ("0  !20008", late.Result());
    EXPECT_EQ(PROXY, ReasonOf(late));
    EXPECT_TRUE(trace.Contains("the proxies for the URL are not known"));
    m_Source.m_bNow = TRUE;
    m_Source.m_Now = PROXY;
    CTestHttpClient now("http://a.test/secret?query", "browser");
    EXPECT_EQ(PROXY, now.m_pChannel->AsyncOpen(&now.m_Sink));
    EXPECT_TRUE(trace.Contains("::FindProxies, no route. url=http://a.test/ reason=20009"));
    m_Source.m_Now = CM_OK;
    m_Source.m_Route = CCmProxyRoute::Direct();
    CTestHttpClient file("file:///etc/hostname", "browser"), login("http://u@a.test/", "browser");
    EXPECT_EQ(CM_ERROR_NOT_IMPLEMENTED, file.m_pChannel->AsyncOpen(&file.m_Sink));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, login.m_pChannel->AsyncOpen(&login.m_Sink));
    EXPECT_EQ(2u, m_Source.m_Urls.size()) << "only good URLs are asked for";
    const CScriptServer server({{Answer("302 F", "Location: http://b.test/\r\n", "")}});
    CTestHttpClient redirected(server.GetUrl(), "browser");
    redirected.Open();
    m_Source.m_Now = CM_ERROR_NOT_AVAILABLE;
    RunUntil([&] { return redirected.IsOver(); });
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, ReasonOf(redirected));
}
