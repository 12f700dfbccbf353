// Clients and servers of HTTP over TLS.
#include "tests/http/client_fixture.h"
#include "tests/http/server_fixture.h"

namespace {

constexpr auto CLOSES = CAnswer::CLOSES, RESETS = CAnswer::RESETS;

CmResult CauseOf(const CTestHttpClient& aClient) {
    CCmString strText;
    return aClient.m_pChannel->GetFailure(strText);
}

class HttpsTest : public CHttpClientTest {
protected:
    HttpsTest() : CHttpClientTest(true) {}
};

// The tickets come behind the handshake, while the connection is in use or idle.
TEST_F(HttpsTest, AConnectionIsReusedForItsContextAlone) {
    const auto always = [](const char* aBody) { return CAnswers(9, Answer("200 OK", "", aBody)); };
    const CScriptServer server({always("a"), always("b"), always("c")});
    const auto pOther = CTestCertificates::Get().MakeClient();
    const auto setOther = [&](CTestHttpClient& aClient) { Set(*aClient.m_pChannel, CM_OPT_CHANNEL_SSL_CONTEXT, pOther); };
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("200 a", Get(server));
        Turn();
    }
    EXPECT_EQ("200 b", Get(server, setOther));
    EXPECT_EQ("200 b", Get(server, setOther));
    CTestHttpClient plain(server.GetUrl("/", "http"));
    EXPECT_EQ("200 c", Run(plain));
    EXPECT_EQ("200 a", Get(server));
    EXPECT_EQ(3u, server.GetConnections());
}

// The system has the end of the connection, but the loop has not seen it: a POST cannot be repeated.
TEST_F(HttpsTest, AnEndThatIsNotReadYetIsNoticed) {
    const CScriptServer server({{Answer("200 OK", "", "a")}, {Answer("200 OK", "", "b")}});
    EXPECT_EQ("200 a", Get(server));
    server.GetPeer().EndSide();
    EXPECT_EQ("200 b", Get(server, [](CTestHttpClient& aClient) { aClient.Ask("POST"); }));
}

TEST_F(HttpsTest, TheNameOfTheUrlIsChecked) {
    const CScriptServer server({{Answer("200 OK", "", "")}});
    const auto untrusting = CCmRefPtrT<CCmSslContext>(new CCmSslContext);
    const auto run = [&](const char* aUrl, const CCmRefPtrT<CCmSslContext>& aContext, CmResult aCause) {
        CTestHttpClient client(aUrl);
        Set(*client.m_pChannel, CM_OPT_CHANNEL_CONNECT_TO, server.GetAddr());
        Set(*client.m_pChannel, CM_OPT_CHANNEL_SSL_CONTEXT, aContext);
        CCmSslInfo info;
        client.m_Sink.m_Connect = [&] { info = ::Get<CCmSslInfo>(*client.m_pChannel, CM_OPT_TRANSPORT_SSL_INFO); };
        EXPECT_EQ(aCause == CM_OK ? "200 " : "0  !20008", Run(client)) << aUrl;
        EXPECT_EQ(aCause, CauseOf(client)) << aUrl;
        return info;
    };
    const CCmSslInfo info = run("https://a.example.test./", m_pFront->m_pClient, CM_OK);
    EXPECT_TRUE(info.m_bVerified);
    EXPECT_EQ("http/1.1", info.m_strAlpn);
    EXPECT_EQ("a.example.test", info.m_strServerName);
    EXPECT_NE(std::string::npos, server.m_Requests[0].find("\r\nHost: a.example.test.\r\n"));
    EXPECT_EQ("", run("https://[::1]/", m_pFront->m_pClient, CM_OK).m_strServerName);
    run("https://b.test/", m_pFront->m_pClient, CM_ERROR_NETWORK_TLS_CERTIFICATE);
    run("https://a.example.test/", untrusting, CM_ERROR_NETWORK_TLS_CERTIFICATE);
    EXPECT_EQ(2u, server.m_Requests.size());
}

TEST_F(HttpsTest, ABodyThatTheEndDelimitsNeedsAnOrderlyEnd) {
    for (const auto& [end, szResult, cause] :
         {std::tuple{CLOSES, "200 body", CM_OK}, {RESETS, "200 body !20008", CM_ERROR_NETWORK_TLS_CUT}}) {
        const CScriptServer server({{{"HTTP/1.1 200 OK\r\n\r\nbody", end}}});
        CTestHttpClient client(server.GetUrl());
        EXPECT_EQ(szResult, Run(client));
        EXPECT_EQ(cause, CauseOf(client));
    }
}

// The same host and port with another scheme is another origin.
TEST_F(HttpsTest, ARedirectLosesNoEncryption) {
    for (const bool bDown : {true, false}) {
        for (const BOOL bAllowed : {FALSE, TRUE}) {
            const std::string strFrom = bDown ? "https" : "http", strTo = bDown ? "http" : "https";
            std::vector<CAnswers> scripts(2);
            const CScriptServer target({{Answer("200 OK", "", "there")}});
            const CScriptServer server({{Answer("302 Found", "Location: " + target.GetUrl("/", strTo) + "\r\n", "")}});
            CTestHttpClient client(server.GetUrl("/", strFrom));
            client.Header("Authorization", "secret");
            EXPECT_EQ(CM_OK, client.Set(CM_OPT_CHANNEL_ALLOW_DOWNGRADE, static_cast<DWORD>(bAllowed)));
            EXPECT_EQ(bDown && !bAllowed ? "0  !20008" : "200 there", Run(client));
            EXPECT_EQ(bDown && !bAllowed, target.m_Requests.empty());
            for (const std::string& strRequest : target.m_Requests)
                EXPECT_EQ(std::string::npos, strRequest.find("secret"));
        }
    }
}

// Answers each request with its body.
class CSecureServer : private ICmChannelServerAcceptorSink {
public:
    CSecureServer() {
        Set(*m_pAcceptor, CM_OPT_CHANNEL_SERVER_SSL_CONTEXT, CCmRefPtrT<CCmSslContext>(new CCmSslContext));
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, m_pAcceptor->StartListen(this, Loopback()));
        auto pContext = CTestCertificates::Get().MakeServer();
        Set(*m_pAcceptor, CM_OPT_CHANNEL_SERVER_SSL_CONTEXT, pContext);
        Set(*m_pAcceptor, CM_OPT_CONNECT_HANDSHAKE_TIME, DWORD{500});
        EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(this, Loopback()));
        EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, m_pAcceptor->SetOption(CM_OPT_CHANNEL_SERVER_SSL_CONTEXT, &pContext));
        EXPECT_EQ(CM_OK, m_pAcceptor->GetListenAddr(m_Addr));
    }
    DWORD GetConnections() const { return m_pAcceptor->GetConnections(); }

    CCmInetAddr m_Addr;
    CCmSslInfo m_Info;

private:
    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        m_Info = Get<CCmSslInfo>(*aChannel, CM_OPT_TRANSPORT_SSL_INFO);
        m_Requests.push_back(std::make_unique<CTestRequest>(*aChannel, m_strLog));
        EXPECT_EQ(CM_OK, aChannel->ReceiveRequest(m_Requests.back().get()));
    }
    const CCmRefPtrT<CCmChannelHttpServerAcceptor> m_pAcceptor{new CCmChannelHttpServerAcceptor(0)};
    std::vector<std::unique_ptr<CTestRequest>> m_Requests;
    std::string m_strLog;
};

TEST(HttpsServerTest, ServesManyRequestsOverOneConnection) {
    const std::string strBody = Pattern(1000000);
    for (const auto mode : {CCmThreadManager::NETWORK_THREAD_MAIN, CCmThreadManager::NETWORK_THREAD_OWN}) {
        const CTestNetwork network(mode);
        {
            CSecureServer server;
            const auto pContext = CTestCertificates::Get().MakeClient();
            for (int i = 0; i < 3; ++i) {
                CTestHttpClient client("https://localhost/");
                Set(*client.m_pChannel, CM_OPT_CHANNEL_SSL_CONTEXT, pContext);
                Set(*client.m_pChannel, CM_OPT_CHANNEL_CONNECT_TO, server.m_Addr);
                client.Ask("POST", strBody);
                client.Open();
                network.RunUntil([&] { return client.IsOver(); });
                EXPECT_TRUE("200 " + strBody == client.Result());
            }
            EXPECT_EQ(1u, server.GetConnections());
            EXPECT_EQ("http/1.1", server.m_Info.m_strAlpn);
            EXPECT_EQ("localhost", server.m_Info.m_strServerName);
        }
        network.RunPosted();
    }
}

TEST(HttpsServerTest, ASilentPeerHasTheTimeOfTheOption) {
    CCmFakeClock clock;
    const CTestNetwork network(CCmThreadManager::NETWORK_THREAD_MAIN);
    CSecureServer server;
    const CTestFd silent = ConnectPlain(server.m_Addr);
    network.RunUntil([] { return CCmLiveCounter::Dump().find("CHandshakeRun 1\n") != std::string::npos; });
    clock.Advance(CCmTimeValue(0, 600000));
    std::string strData;
    network.RunUntil([&] { return ReadToEnd(silent, strData); });
}

}  // namespace
