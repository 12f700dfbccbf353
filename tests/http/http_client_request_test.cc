#include "tests/http/client_fixture.h"

using HttpClientBodyTest = CHttpClientTest;

TEST_F(HttpClientBodyTest, SendsWhatWasSet) {
    const std::string strFirst = " /a%20b?c=%C3%A4 HTTP/1.1\r\nHost: example.com\r\nUser-Agent: talvo\r\n";
    const std::pair<std::function<void(CTestHttpClient&)>, std::string> CASES[] = {
        {[](CTestHttpClient& aClient) {
             aClient.Ask("POST", "some body");
             aClient.Header("X-One", "1");
             aClient.Header("x-one", "2", TRUE);
         },
         "POST" + strFirst + "X-One: 1, 2\r\nContent-Length: 9\r\n\r\nsome body"},
        {[](CTestHttpClient& aClient) {
             aClient.Ask("PATCH", "abc");
             aClient.Header("Transfer-Encoding", "chunked");
         },
         "PATCH" + strFirst + "Transfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n"},
        {[](CTestHttpClient& aClient) {
             aClient.Ask("PUT");
             aClient.Header("Expect", "100-continue");
             aClient.Set(CM_OPT_CHANNEL_KEEP_ALIVE, FALSE);
         },
         "PUT" + strFirst + "Connection: close\r\nContent-Length: 0\r\n\r\n"},
    };
    for (const auto& [set, strSent] : CASES) {
        const CScriptServer server({{Answer("200 OK", "", "")}});
        CTestHttpClient client(server.GetUrl("/a b?c=\xc3\xa4#part"));
        client.Header("Host", "example.com");
        set(client);
        EXPECT_EQ("200 ", Run(client));
        EXPECT_EQ(std::vector<std::string>{strSent}, server.m_Requests);
    }
}

TEST_F(HttpClientBodyTest, StreamsABodyOfKnownLengthOrInChunks) {
    const std::string strBody = Pattern(300000);
    for (const bool bChunked : {false, true}) {
        CScriptServer server({{Answer("200 OK", "", "done")}});
        server.m_dwRoom = 70000;
        CTestHttpClient client(server.GetUrl());
        client.Ask("POST");
        client.Header(bChunked ? "Transfer-Encoding" : "Content-Length", bChunked ? "chunked" : std::to_string(strBody.size()));
        size_t nSent = 0;
        client.m_Sink.m_Send = [&] {
            for (CmResult rv = CM_OK; rv == CM_OK && nSent < strBody.size();) {
                const std::string strPiece = strBody.substr(nSent, 100000);
                CCmMessageBlock block = ViewOf(strPiece);
                rv = client.m_pChannel->SendData(block);
                nSent += strPiece.size() - block.GetTopLevelLength();
            }
            const CmResult end = nSent == strBody.size() ? client.m_pChannel->EndRequestBody() : CM_OK;
            EXPECT_EQ(nSent < strBody.size() || bChunked ? CM_OK : CM_ERROR_NOT_AVAILABLE, end);
        };
        client.Open();
        EXPECT_EQ(bChunked ? CM_ERROR_PARTIAL_DATA : CM_ERROR_INVALID_ARG, SendText(*client.m_pChannel, strBody + "x"));
        client.m_Sink.m_Send();  // refused for want of a connection, and later of room
        RunUntil([&] { return server.GetConnections() > 0; });
        Turn();
        EXPECT_GT(strBody.size(), nSent);
        while (server.GetPeer().m_dwRoom < 70000)
            server.GetPeer().MakeRoom(70000);
        RunUntil([&] { return client.IsOver(); });
        EXPECT_EQ("200 done", client.Result());
        const std::string& strRequest = server.m_Requests.at(0);
        std::string strSeen = strRequest.substr(strRequest.find("\r\n\r\n") + 4);
        for (size_t stAt = 0, stSize = 1; bChunked && stSize > 0; stAt += stSize) {  // takes the sizes out
            stSize = std::stoul(strSeen.substr(stAt), nullptr, 16);
            strSeen.erase(stAt, strSeen.find("\r\n", stAt) + 2 - stAt).erase(stAt + stSize, 2);
        }
        EXPECT_TRUE(strBody == strSeen);
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*client.m_pChannel, "late"));
    }
}

TEST_F(HttpClientBodyTest, ExpectWaitsForLeaveAnAnswerOrTheTimeOut) {
    for (const CAnswer& first : {CAnswer{"HTTP/1.1 100 Continue\r\n\r\n"}, Answer("417 No", "", "no"), CAnswer()}) {
        const CScriptServer server({CAnswers()});
        CTestHttpClient client(server.GetUrl());
        client.Ask("POST", "body");
        client.Header("Expect", "100-continue");
        client.Open();
        RunUntil([&] { return server.GetConnections() > 0 && !server.GetPeer().GetSent().empty(); });
        EXPECT_TRUE(server.GetPeer().TakeSent().ends_with("\r\n\r\n"));
        m_Clock.Advance(first.m_strBytes.empty() ? CCmTimeValue(1, 1) : CCmTimeValue::s_tvZero);
        server.GetPeer().Say(first);
        Turn();
        const bool bRefuses = first.m_strBytes.ends_with("no");
        EXPECT_EQ(bRefuses ? "" : "body", server.GetPeer().TakeSent());
        server.GetPeer().Say(Answer("200 OK", "", "yes"));
        RunUntil([&] { return client.IsOver(); });
        EXPECT_EQ(bRefuses ? "417 no" : "200 yes", client.Result());
    }
}

// Method, body, what describes it, and what is secret, on the way to the same place and to another.
TEST_F(HttpClientBodyTest, FollowsRedirectsByTheRules) {
    const std::tuple<std::string, std::string, std::string> CASES[] = {
        {"301", "GET", "GET"},  {"301", "POST", "GET"},  {"302", "PUT", "PUT"},   {"302", "HEAD", "HEAD"},
        {"303", "POST", "GET"}, {"303", "HEAD", "HEAD"}, {"307", "POST", "POST"}, {"308", "POST", "POST"}};
    for (const auto& [strStatus, strMethod, strNewMethod] : CASES) {
        for (const bool bOther : {false, true}) {
            SCOPED_TRACE(strStatus + strMethod + (bOther ? " elsewhere" : " here"));
            const CAnswer there = Answer("200 OK", "", "");
            const CScriptServer other({{there}});
            const std::string strLocation = "Location: " + (bOther ? other.GetUrl("/c/d") : "../c/./d#x") + "\r\n";
            const CScriptServer server({{Answer(strStatus, strLocation, strMethod == "HEAD" ? "" : "gone"), there}});
            const bool bBody = strMethod.starts_with('P'), bSame = strMethod == strNewMethod;
            CTestHttpClient client(server.GetUrl("/a/b?q"));
            client.Ask(strMethod.c_str(), bBody ? "body" : "");
            for (const char* szName : {"Content-Type", "Authorization", "Cookie", "X-Kept"})
                client.Header(szName, "value");
            EXPECT_EQ("200 ", Run(client));
            const CScriptServer& last = bOther ? other : server;
            const std::string& strNext = last.m_Requests.back();
            EXPECT_TRUE(strNext.starts_with(strNewMethod + " /c/d HTTP/1.1\r\n")) << strNext;
            EXPECT_EQ(bBody && bSame, strNext.ends_with("\r\n\r\nbody")) << strNext;
            for (const auto& [szName, bKept] :
                 {std::pair{"Content-Type", bSame}, {"Authorization", !bOther}, {"Cookie", !bOther}, {"X-Kept", true}})
                EXPECT_EQ(bKept, strNext.find(szName) != std::string::npos) << strNext;
            EXPECT_EQ(1u, server.GetConnections());
            CCmRefPtrT<CCmHttpUrl> pUrl;
            EXPECT_EQ(CM_OK, client.m_pChannel->GetUrl(pUrl.ParaOut()));
            EXPECT_EQ(last.GetUrl("/c/d"), pUrl->GetAsciiSpec());
        }
    }
}

TEST_F(HttpClientBodyTest, DoesNotFollowEverything) {
    const CAnswer found = Answer("302 Found", "Location: /\r\n", "body");
    for (const std::string strLocation : {"file:///etc/passwd", "http://a:b@127.0.0.1/", ""}) {
        const CCmTraceCapture trace;
        const CScriptServer server({{Answer("302 Found", "Location: " + strLocation + "\r\n", "body")}});
        EXPECT_EQ(strLocation.empty() ? "302 body" : "0  !20008", Get(server)) << strLocation;
        EXPECT_EQ(strLocation.empty() ? 0u : 1u, trace.Count("the redirect is not followed. location="));
    }
    for (const size_t stRedirects : {size_t{10}, size_t{11}}) {
        CAnswers answers(stRedirects, found);
        answers.push_back(Answer("200 OK", "", "there"));
        EXPECT_EQ(stRedirects == 10 ? "200 there" : "0  !20008", Get(CScriptServer({answers})));
    }
    EXPECT_EQ("302 body",
              Get(CScriptServer({{found}}), [](CTestHttpClient& aClient) { aClient.Set(CM_OPT_CHANNEL_MAX_REDIRECTS, 0); }));
    // A body that has gone by cannot be sent again.
    const CScriptServer server({{Answer("307 T", "Location: /b\r\n", "body")}});
    EXPECT_EQ("307 body", Get(server, [](CTestHttpClient& aClient) {
                  aClient.Ask("POST");
                  aClient.Header("Transfer-Encoding", "chunked");
                  PostTo(*CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_MAIN),
                         [&] { EXPECT_EQ(CM_OK, aClient.m_pChannel->EndRequestBody()); });
              }));
}

TEST_F(HttpClientBodyTest, GivesCredentialsWhereTheyAreAskedFor) {
    // The first and second challenge, the value in the last request, the requests and the result.
    using CCase = std::tuple<const char*, const char*, const char*, size_t, const char*>;
    const std::string strLong(100000, 'x');  // not waited for, at the price of the connection
    const CCase CASES[] = {
        {"Basic realm=\"r\"", "", "Basic dTpw\r\n", 2, "200 in"},
        {"Basic realm=\"r\"\r\nX-Authenticate: Digest realm=\"r\", nonce=\"n\"", "",
         "Digest username=\"u\", realm=\"r\", nonce=\"n\", uri=\"@\", response=\"", 2, "200 in"},
        {"Negotiate abc==", "", "", 1, " out"},
        {"Basic realm=\"r\"", "Basic realm=\"r\"", "Basic", 2, " out"},
        {"Digest realm=\"r\", nonce=\"n\"", "Digest realm=\"r\", nonce=\"m\", stale=TRUE",
         "Digest username=\"u\", realm=\"r\", nonce=\"m\"", 3, "200 in"},
    };
    for (const bool bProxy : {false, true}) {
        for (const auto& [szFirst, szSecond, szValue, stRequests, szResult] : CASES) {
            SCOPED_TRACE(szFirst + std::string(bProxy ? " of a proxy" : ""));
            const std::string strStatus = bProxy ? "407" : "401";
            const auto ask = [&](const char* aChallenge, const std::string& aBody) {
                std::string strHeader = "X-Authenticate: " + std::string(aChallenge) + "\r\n";
                for (size_t st = 0; (st = strHeader.find("X-A")) != std::string::npos;)
                    strHeader.replace(st, 2, bProxy ? "Proxy-" : "WWW-");
                return Answer(strStatus + " Who", strHeader, aBody);
            };
            const bool bLong = stRequests == 3;
            CAnswers first{ask(szFirst, bLong ? strLong : "out")}, then{Answer("200 OK", "", "in")};
            if (*szSecond)
                then.push_front(ask(szSecond, "out"));
            if (!bLong)
                first.insert(first.end(), then.begin(), then.end());
            const CScriptServer server({first, then});
            CTestHttpClient client(bProxy ? "http://a.test/" : server.GetUrl(), bProxy ? ProxyOf(server, "u:p@") : "");
            client.Ask("POST", "body");
            client.m_pChannel->SetCredentials(bProxy ? "other" : "u", "p");
            EXPECT_EQ((*szResult == ' ' ? strStatus : "") + szResult, Run(client));
            ASSERT_EQ(stRequests, server.m_Requests.size());
            EXPECT_EQ(std::string::npos, server.m_Requests.front().find("Authorization"));
            const std::string strLast = server.m_Requests.back();
            std::string strValue = szValue;
            if (const size_t st = strValue.find('@'); st != std::string::npos)
                strValue.replace(st, 1, bProxy ? "http://a.test/" : "/");
            const std::string strField = bProxy ? "\r\nProxy-Authorization: " : "\r\nAuthorization: ";
            EXPECT_EQ(!strValue.empty(), strLast.find(strField + strValue) != std::string::npos) << strLast;
            EXPECT_TRUE(strLast.ends_with("\r\n\r\nbody"));
            EXPECT_EQ(bLong ? 2u : 1u, server.GetConnections());
        }
    }
    // They belong to one origin.
    const CScriptServer other({{Answer("401 Who", "WWW-Authenticate: Basic realm=\"r\"\r\n", "out")}});
    const CScriptServer server({{Answer("302 Found", "Location: " + other.GetUrl() + "\r\n", "")}});
    EXPECT_EQ("401 out", Get(server, [](CTestHttpClient& aClient) { aClient.m_pChannel->SetCredentials("u", "p"); }));
}
