#include "talvo/http/message/ntlm_permission.h"
#include "talvo/transport/bad_proxies.h"
#include "talvo/transport/proxy_credentials.h"
#include "tests/http/client_fixture.h"

// Proxies are scripts, too: a request in absolute form goes to them and not to the server of its URL.
class HttpClientProxyTest : public CHttpClientTest {
protected:
    ~HttpClientProxyTest() override { talvo::CBadProxies::Instance().Clear(); }

    std::string Get(
        const std::string& aUrl, const std::string& aProxies,
        const std::function<void(CTestHttpClient&)>& aSet = [](CTestHttpClient&) {}) const {
        CTestHttpClient client(aUrl, aProxies);
        aSet(client);
        return Run(client);
    }
};

TEST_F(HttpClientProxyTest, RequestsInAbsoluteFormShareTheConnectionsToTheProxy) {
    const CAnswer found = Answer("200 OK", "", "x");
    const CScriptServer proxy({{found, found, Answer("307 T", "Location: http://b.test:81/c\r\n", ""), found}}),
        server({{found}});
    EXPECT_EQ("200 x", Get("http://a.test/a b?q#part", ProxyOf(proxy), [](CTestHttpClient& a) { a.Ask("POST", "body"); }));
    EXPECT_EQ("200 x", Get("http://[fe80::1%25eth0]:8080", ProxyOf(proxy)));
    EXPECT_EQ("200 x", Get("http://a.test/", ProxyOf(proxy)));
    EXPECT_EQ("POST http://a.test/a%20b?q HTTP/1.1\r\nHost: a.test\r\nUser-Agent: talvo\r\nContent-Length: 4\r\n\r\nbody",
              proxy.m_Requests[0]);
    EXPECT_TRUE(proxy.m_Requests[1].starts_with("GET http://[fe80::1]:8080/ HTTP/1.1\r\nHost: [fe80::1]:8080\r\n"));
    EXPECT_TRUE(proxy.m_Requests[3].starts_with("GET http://b.test:81/c HTTP/1.1\r\nHost: b.test:81\r\n"));
    EXPECT_EQ(1u, proxy.GetConnections());
    // The same host as a server: another connection.
    EXPECT_EQ("200 x", Get(proxy.GetUrl("/"), "direct"));
    EXPECT_EQ(2u, proxy.GetConnections());
}

TEST_F(HttpClientProxyTest, TheNextServerIsForOneThatCannotBeReached) {
    const CAnswer found = Answer("200 OK", "", "x"),
                  ask = Answer("407 Who", "Proxy-Authenticate: Basic realm=\"r\"\r\n", "out");
    const CScriptServer proxy({{ask, found}}), server({{found}});
    const std::string strDead = "http://u:p@127.0.0.1:9";
    const auto set = [](CTestHttpClient& a) { a.Header("Proxy-Authorization", "x"); };
    CTestHttpClient lost("http://a.test/", strDead + ",http://127.0.0.1:8");
    EXPECT_EQ("0  !20008", Run(lost));
    CCmString strText;
    EXPECT_EQ(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, lost.m_pChannel->GetFailure(strText));
    EXPECT_EQ("connect to 127.0.0.1:8: Connection refused",
              ::Get<CCmFailure>(*lost.m_pChannel, CM_OPT_CHANNEL_LAST_FAILURE).ToString());
    talvo::CBadProxies::Instance().Clear();
    EXPECT_EQ("407 out", Get("http://a.test/", strDead + "," + ProxyOf(proxy), set));
    EXPECT_EQ(std::string::npos, proxy.m_Requests.at(0).find("Proxy-Authorization"));
    EXPECT_EQ("200 x", Get("http://a.test/", strDead + "," + ProxyOf(proxy), set));  // the dead one comes last now
    EXPECT_NE(std::string::npos, proxy.m_Requests.at(1).find("Proxy-Authorization: x\r\n"));
    EXPECT_EQ("200 x", Get(server.GetUrl(), strDead + ",direct"));
    EXPECT_TRUE(server.m_Requests.at(0).starts_with("GET / HTTP/1.1\r\n"));
    const CScriptServer broken({{{"nonsense\r\n\r\n"}}});  // it has been reached
    EXPECT_EQ("0  !20008", Get("http://a.test/", ProxyOf(broken) + "," + ProxyOf(proxy)));
}

// The user answers the first question, and gives up at the second.
TEST_F(HttpClientProxyTest, WaitsForTheUser) {
    struct CAsker : ICmProxyCredentials {
        CmResult GetCredentials(const CCmProxyQuestion&, CCmCredentials&, ICmProxyCredentialsSink* aSink) override {
            m_pSink = aSink;
            return aSink ? CM_ERROR_WOULD_BLOCK : CM_ERROR_NOT_FOUND;
        }
        CmResult Cancel(ICmProxyCredentialsSink*) override {
            m_pSink = nullptr;
            return CM_OK;
        }
        void Forget(const CCmProxyQuestion&, const CCmCredentials&) override {}
        BOOL MayHaveCredentials(const CCmString&) override { return TRUE; }
        void Answer(CmResult aReason) {
            CCmCredentials credentials;
            EXPECT_EQ(CM_OK, credentials.Set("u", std::to_string(++m_nAnswers)));
            std::exchange(m_pSink, nullptr)->OnProxyCredentials(aReason, credentials);
        }

        ICmProxyCredentialsSink* m_pSink = nullptr;
        int m_nAnswers = 0;
    } asker;
    ICmProxyCredentials* const pBefore = ICmProxyCredentials::Get();
    ICmProxyCredentials::Set(&asker);
    const CAnswer ask = Answer("407 Who", "Proxy-Authenticate: Basic realm=\"r\"\r\n", "out");
    for (const std::string strResult : {"200 in", "407 out", "0 "}) {
        const CScriptServer proxy({{ask, ask, strResult == "200 in" ? Answer("200 OK", "", "in") : ask}});
        CTestHttpClient client("http://a.test/", ProxyOf(proxy));
        client.Open();
        RunUntil([&] { return asker.m_pSink != nullptr; });
        asker.Answer(CM_OK);
        RunUntil([&] { return asker.m_pSink != nullptr; });
        if (strResult == "0 ") {
            client.m_pChannel->Disconnect(CM_OK);
            EXPECT_EQ(nullptr, asker.m_pSink);
            continue;
        }
        asker.Answer(strResult == "200 in" ? CM_OK : CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE);
        RunUntil([&] { return client.IsOver(); });
        EXPECT_EQ(strResult, client.Result());
    }
    ICmProxyCredentials::Set(pBefore);
}

// NTLM authenticates a connection: it carries all three messages, and serves its user alone from then on.
TEST_F(HttpClientProxyTest, AConnectionOfNtlmServesOneUser) {
    talvo::AllowNtlm(TRUE);
    const std::string strChallenge =
        "TlRMTVNTUAACAAAADAAMADgAAAAzgoriASNFZ4mrze8AAAAAAAAAACQAJABEAAAABgBwFwAAAA9TAGUAcgB2AGUAcgACAAwARABvAG0AYQBpAG4AAQAMAF"
        "MAZQ"
        "ByAHYAZQByAAAAAAA=";
    for (const bool bProxy : {true, false}) {
        const auto ask = [bProxy](const std::string& aToken) {
            return Answer(bProxy ? "407 Who" : "401 Who",
                          (bProxy ? "Proxy-Authenticate: NTLM" : "WWW-Authenticate: NTLM") + aToken + "\r\n", "out");
        };
        const CAnswer found = Answer("200 OK", "", "in"), second = ask(" " + strChallenge);
        CAnswer closes = second;
        closes.m_End = CAnswer::CLOSES;
        const CScriptServer peer({{ask(""), ask(""), ask(""), ask("")}, {second, found, found}, {second, found}, {closes}});
        const auto get = [&](const std::string& aUser) {
            return Get(bProxy ? "http://a.test/" : peer.GetUrl(), bProxy ? ProxyOf(peer, aUser + ":p@") : "direct",
                       [&](CTestHttpClient& a) { a.m_pChannel->SetCredentials(bProxy ? "x" : aUser, "p"); });
        };
        EXPECT_EQ("200 in", get("u"));
        EXPECT_EQ(2u, peer.GetConnections());
        const size_t stFirst = peer.m_Requests.size();
        EXPECT_EQ(3u, stFirst);
        EXPECT_NE(std::string::npos, peer.m_Requests[1].find("Authorization: NTLM TlRMTVNTUAAB"));
        EXPECT_NE(std::string::npos, peer.m_Requests[2].find("Authorization: NTLM TlRMTVNTUAAD"));
        EXPECT_EQ("200 in", get("u"));
        EXPECT_EQ(2u, peer.GetConnections());
        EXPECT_EQ(std::string::npos, peer.m_Requests.back().find("Authorization"));
        EXPECT_EQ("200 in", get("v"));
        EXPECT_EQ(3u, peer.GetConnections());
        EXPECT_EQ("0  !20008", get("w")) << "a connection that closes in between is no reason for another attempt";
        EXPECT_EQ(4u, peer.GetConnections());
    }
    talvo::AllowNtlm(FALSE);
}
