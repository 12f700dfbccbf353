#include "tests/support/http_client_helpers.h"

namespace {

using HttpClientBodyTest = CHttpClientTest;

TEST_F(HttpClientBodyTest, SendsWhatWasSet) {
    struct CCase {
        std::function<void(CTestHttpClient&)> m_Set;
        const char* m_szSent;
    };
    const CCase CASES[] = {
        {[](CTestHttpClient& aClient) {
             aClient.Ask("POST", "some body");
             aClient.Header("Host", "example.com");
             aClient.Header("X-One", "1");
             aClient.Header("x-one", "2", TRUE);
         },
         "POST /a%20b?c=%C3%A4 HTTP/1.1\r\nHost: example.com\r\nUser-Agent: talvo\r\nX-One: 1, 2\r\nContent-Length: 9\r\n\r\n"
         "some body"},
        {[](CTestHttpClient& aClient) {
             aClient.Ask("PATCH", "abc");
             aClient.Header("Host", "h");
             aClient.Header("Transfer-Encoding", "chunked");
         },
         "PATCH /a%20b?c=%C3%A4 HTTP/1.1\r\nHost: h\r\nUser-Agent: talvo\r\nTransfer-Encoding: chunked\r\n\r\n"
         "3\r\nabc\r\n0\r\n\r\n"},
        {[](CTestHttpClient& aClient) {
             aClient.Ask("PUT");
             aClient.Header("Host", "h");
             aClient.Header("Expect", "100-continue");
             aClient.Set(CM_OPT_CHANNEL_KEEP_ALIVE, FALSE);
         },
         "PUT /a%20b?c=%C3%A4 HTTP/1.1\r\nHost: h\r\nUser-Agent: talvo\r\nConnection: close\r\nContent-Length: 0\r\n\r\n"},
    };
    for (const CCase& test : CASES) {
        std::string strSeen;
        CScriptServer server({[&](CScriptPeer& aPeer) {
            strSeen = aPeer.ReadRequest();
            aPeer.Send(Answer("200 OK", "", ""));
            aPeer.WaitForEnd();
        }});
        CTestHttpClient client(server.Url("/a b?c=\xc3\xa4#part"));
        test.m_Set(client);
        EXPECT_EQ("200 ", Run(client));
        EXPECT_EQ(test.m_szSent, strSeen);
    }
}

TEST_F(HttpClientBodyTest, StreamsABodyOfKnownLengthOrInChunks) {
    const std::string strBody = Pattern(8 << 20);  // more than the proxy and the system hold
    for (const bool bChunked : {false, true}) {
        std::string strSeen;
        std::atomic<int> nRefused = 0;
        CScriptServer server({[&](CScriptPeer& aPeer) {
            aPeer.ReadTo("\r\n\r\n");
            YieldUntil([&] { return nRefused > 1; });  // for want of a connection, and of room
            for (size_t nSize = bChunked ? 1 : 0; nSize > 0; aPeer.ReadTo("\r\n")) {
                nSize = std::stoul(aPeer.ReadTo("\r\n"), nullptr, 16);
                strSeen += aPeer.ReadBytes(nSize);
            }
            strSeen += bChunked ? "" : aPeer.ReadBytes(strBody.size());
            aPeer.Send(Answer("200 OK", "", "done"));
            aPeer.WaitForEnd();
        }});
        CTestHttpClient client(server.Url());
        client.Ask("POST");
        client.Header(bChunked ? "Transfer-Encoding" : "Content-Length", bChunked ? "chunked" : std::to_string(strBody.size()));
        size_t nSent = 0;
        client.m_Sink.m_Send = [&] {
            for (CmResult rv = CM_OK; rv == CM_OK && nSent < strBody.size();) {
                const std::string strPiece = strBody.substr(nSent, 100000);
                CCmMessageBlock block = ViewOf(strPiece);
                rv = client.m_pChannel->SendData(block);
                nSent += strPiece.size() - block.GetTopLevelLength();
                nRefused += rv == CM_ERROR_PARTIAL_DATA;
            }
            const CmResult end = nSent == strBody.size() ? client.m_pChannel->EndRequestBody() : CM_OK;
            EXPECT_EQ(nSent < strBody.size() || bChunked ? CM_OK : CM_ERROR_NOT_AVAILABLE, end);
        };
        client.Open();
        EXPECT_EQ(bChunked ? CM_ERROR_PARTIAL_DATA : CM_ERROR_INVALID_ARG, SendText(*client.m_pChannel, strBody + "x"));
        client.m_Sink.m_Send();
        m_Network.RunUntil([&] { return client.IsOver(); });
        server.End();
        EXPECT_EQ("200 done", client.Result());
        EXPECT_TRUE(strBody == strSeen);
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*client.m_pChannel, "late"));
    }
}

TEST_F(HttpClientBodyTest, ExpectWaitsForLeaveAnAnswerOrTheTimeOut) {
    CCmFakeClock clock;
    for (const std::string& strFirst :
         {std::string("HTTP/1.1 100 Continue\r\n\r\n"), Answer("417 No", "", "no"), std::string()}) {
        const bool bRefuses = strFirst.ends_with("no");
        std::string strBody;
        std::atomic<bool> bHead = false;
        CScriptServer server({[&](CScriptPeer& aPeer) {
            aPeer.ReadTo("\r\n\r\n");
            bHead = true;
            aPeer.Send(strFirst);
            strBody = aPeer.ReadBytes(4);
            aPeer.Send(Answer("200 OK", "", "yes"));
            aPeer.WaitForEnd();
        }});
        CTestHttpClient client(server.Url());
        client.Ask("POST", "body");
        client.Header("Expect", "100-continue");
        client.Open();
        m_Network.RunUntil([&] { return bHead.load(); });
        clock.Advance(strFirst.empty() ? CCmTimeValue(1, 1) : CCmTimeValue::s_tvZero);
        m_Network.RunUntil([&] { return client.IsOver(); });
        server.End();
        EXPECT_EQ(bRefuses ? "417 no" : "200 yes", client.Result());
        EXPECT_EQ(bRefuses ? "" : "body", strBody);
    }
}

// Method, body, what describes it, and what is secret, on the way to the same place and to another.
TEST_F(HttpClientBodyTest, FollowsRedirectsByTheRules) {
    struct CCase {
        const char* m_szStatus;
        std::string m_strMethod;
        std::string m_strNext;
    };
    const CCase CASES[] = {{"301 M", "GET", "GET"},   {"301 M", "POST", "GET"}, {"302 F", "PUT", "PUT"},
                           {"302 F", "HEAD", "HEAD"}, {"303 S", "POST", "GET"}, {"303 S", "HEAD", "HEAD"},
                           {"307 T", "POST", "POST"}, {"308 P", "POST", "POST"}};
    for (const CCase& test : CASES) {
        for (const bool bOther : {false, true}) {
            std::string strNext;
            const CScriptServer::CScript there = [&](CScriptPeer& aPeer) {
                strNext = aPeer.ReadRequest();
                aPeer.Send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
                aPeer.WaitForEnd();
            };
            CScriptServer other({there});
            SCOPED_TRACE(test.m_szStatus + test.m_strMethod + (bOther ? " elsewhere" : " here"));
            CScriptServer server({[&](CScriptPeer& aPeer) {
                aPeer.ReadRequest();
                aPeer.Send(Answer(test.m_szStatus, "Location: " + (bOther ? other.Url("/c/d") : "../c/./d#x") + "\r\n",
                                  test.m_strMethod == "HEAD" ? "" : "gone"));
                bOther ? aPeer.WaitForEnd() : there(aPeer);
            }});
            const bool bBody = test.m_strMethod.starts_with('P');
            const bool bSame = test.m_strMethod == test.m_strNext;
            CTestHttpClient client(server.Url("/a/b?q"));
            client.Ask(test.m_strMethod.c_str(), bBody ? "body" : "");
            for (const char* szName : {"Content-Type", "Authorization", "Cookie", "X-Kept"})
                client.Header(szName, "value");
            EXPECT_EQ("200 ", Run(client));
            (bOther ? other : server).End();
            EXPECT_TRUE(strNext.starts_with(test.m_strNext + " /c/d HTTP/1.1\r\n")) << strNext;
            EXPECT_EQ(bBody && bSame, strNext.ends_with("\r\n\r\nbody")) << strNext;
            EXPECT_EQ(bSame, strNext.find("Content-Type") != std::string::npos) << strNext;
            EXPECT_EQ(bOther, strNext.find("Authorization") == std::string::npos) << strNext;
            EXPECT_EQ(bOther, strNext.find("Cookie") == std::string::npos) << strNext;
            EXPECT_NE(std::string::npos, strNext.find("X-Kept")) << strNext;
            EXPECT_EQ(1u, server.GetConnections());
            CCmRefPtrT<CCmHttpUrl> pUrl;
            EXPECT_EQ(CM_OK, client.m_pChannel->GetUrl(pUrl.ParaOut()));
            EXPECT_EQ((bOther ? other : server).Url("/c/d"), pUrl->GetAsciiSpec());
        }
    }
}

TEST_F(HttpClientBodyTest, DoesNotFollowEverything) {
    for (const std::string strLocation : {"https://127.0.0.1/", "file:///etc/passwd", "http://a:b@127.0.0.1/", ""}) {
        const CCmTraceCapture trace;
        CScriptServer server({CScriptServer::Answers({Answer("302 Found", "Location: " + strLocation + "\r\n", "body")})});
        EXPECT_EQ(strLocation.empty() ? "302 body" : "0  !20008", Get(server)) << strLocation;
        EXPECT_EQ(strLocation.empty() ? 0u : 1u, trace.Count("the redirect is not followed. location="));
    }
    for (const size_t stRedirects : {size_t{10}, size_t{11}}) {
        std::vector<std::string> answers(stRedirects, Answer("302 Found", "Location: /\r\n", "body"));
        answers.push_back(Answer("200 OK", "", "there"));
        CScriptServer chain({CScriptServer::Answers(answers)});
        EXPECT_EQ(stRedirects == 10 ? "200 there" : "0  !20008", Get(chain));
    }
    CScriptServer loop({CScriptServer::Answers({Answer("302 Found", "Location: /\r\n", "body")})});
    EXPECT_EQ("302 body", Get(loop, [](CTestHttpClient& aClient) { aClient.Set(CM_OPT_CHANNEL_MAX_REDIRECTS, 0); }));
    // A body that has gone by cannot be sent again.
    CScriptServer server({CScriptServer::Answers({Answer("307 T", "Location: /b\r\n", "body")})});
    EXPECT_EQ("307 body", Get(server, [](CTestHttpClient& aClient) {
                  aClient.Ask("POST");
                  aClient.Header("Transfer-Encoding", "chunked");
                  PostTo(*CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_MAIN),
                         [&] { EXPECT_EQ(CM_OK, aClient.m_pChannel->EndRequestBody()); });
              }));
}

TEST_F(HttpClientBodyTest, GivesCredentialsWhereTheyAreAskedFor) {
    struct CCase {
        const char* m_szFirst;  // challenge
        const char* m_szSecond;
        const char* m_szAuthorization;  // in the last request
        size_t m_nRequests;
        const char* m_szResult;
    };
    const std::string strLong(100000, 'x');  // not waited for, at the price of the connection
    const CCase CASES[] = {
        {"Basic realm=\"r\"", "", "Authorization: Basic dTpw\r\n", 2, "200 in"},
        {"Basic realm=\"r\"\r\nWWW-Authenticate: Digest realm=\"r\", nonce=\"n\"", "",
         "Authorization: Digest username=\"u\", realm=\"r\", nonce=\"n\", uri=\"/\", response=\"", 2, "200 in"},
        {"Negotiate abc==", "", "", 1, "401 out"},
        {"Basic realm=\"r\"", "Basic realm=\"r\"", "Authorization: Basic", 2, "401 out"},
        {"Digest realm=\"r\", nonce=\"n\"", "Digest realm=\"r\", nonce=\"m\", stale=TRUE", "nonce=\"m\"", 3, "200 in"},
    };
    for (const CCase& test : CASES) {
        SCOPED_TRACE(test.m_szFirst);
        std::vector<std::string> seen;
        CScriptServer server({[&](CScriptPeer& aPeer) {
            for (std::string strRequest; !(strRequest = aPeer.ReadRequest()).empty();) {
                seen.push_back(strRequest);
                const std::string strAsk = seen.size() == 1 ? test.m_szFirst : seen.size() == 2 ? test.m_szSecond : "";
                aPeer.Send(strAsk.empty() ? Answer("200 OK", "", "in")
                                          : Answer("401 Who", "WWW-Authenticate: " + strAsk + "\r\n",
                                                   seen.size() == 1 && test.m_nRequests == 3 ? strLong : "out"));
            }
        }});
        EXPECT_EQ(test.m_szResult, Get(server, [](CTestHttpClient& aClient) {
                      aClient.Ask("POST", "body");
                      EXPECT_EQ(CM_OK, aClient.m_pChannel->SetCredentials("u", "p"));
                  }));
        ASSERT_EQ(test.m_nRequests, seen.size());
        EXPECT_EQ(std::string::npos, seen.front().find("Authorization"));
        EXPECT_NE(std::string::npos, seen.back().find(test.m_szAuthorization)) << seen.back();
        EXPECT_TRUE(seen.back().ends_with("\r\n\r\nbody"));
        EXPECT_EQ(test.m_nRequests == 3 ? 2u : 1u, server.GetConnections());
    }
    // They belong to one origin.
    CScriptServer other({CScriptServer::Answers({Answer("401 Who", "WWW-Authenticate: Basic realm=\"r\"\r\n", "out")})});
    CScriptServer server({CScriptServer::Answers({Answer("302 Found", "Location: " + other.Url() + "\r\n", "")})});
    EXPECT_EQ("401 out", Get(server, [](CTestHttpClient& aClient) { aClient.m_pChannel->SetCredentials("u", "p"); }));
}

}  // namespace
