#include "tests/http/client_fixture.h"

namespace {

using HttpClientTest = CHttpClientTest;

constexpr auto STAYS = CAnswer::STAYS, CLOSES = CAnswer::CLOSES, RESETS = CAnswer::RESETS;
// Answer, method, what the server does then, and the result.
const std::tuple<const char*, const char*, CAnswer::EEnd, const char*> CASES[] = {
    {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", "GET", STAYS, "200 hello"},
    {"HTTP/1.1 404\r\nContent-Length: 0\r\n\r\n", "GET", STAYS, "404 "},
    {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4;x=1\r\nwiki\r\n5\r\npedia\r\n0\r\nX-T: 1\r\n\r\n", "GET", STAYS,
     "200 wikipedia"},
    {"HTTP/1.1 200 OK\r\n\r\nuntil close", "GET", CLOSES, "200 until close"},
    {"HTTP/1.0 200 OK\r\n\r\n", "GET", CLOSES, "200 "},
    {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", "HEAD", STAYS, "200 "},
    {"HTTP/1.1 204 No Content\r\nContent-Length: 5\r\n\r\n", "GET", STAYS, "204 "},
    {"HTTP/1.1 304 Not Modified\r\nTransfer-Encoding: chunked\r\n\r\n", "GET", STAYS, "304 "},
    {"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Hints\r\nLink: a\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", "GET",
     STAYS, "200 ok"},
    {"HTTP/1.1 200 OK\r\nContent-Length: 5, 5\r\n\r\nhello", "GET", CLOSES, "200 hello"},
    {"HTTP/1.1 200 OK\r\nContent-Length:\r\n \t5\r\nX: a \r\n\r\nhello", "GET", STAYS, "200 hello"},
    {"HTTP/1.1 200 OK\r\nX: a\r\n Transfer-Encoding: chunked\r\nContent-Length: 2\r\n\r\nok", "GET", STAYS, "200 ok"},
    {"HTTP/1.1 302 Found\r\nX: a\r\n\tLocation: /b\r\nContent-Length: 2\r\n\r\nok", "GET", STAYS, "302 ok"},
    {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nok\r\n0\r\nX: 1\r\n 2\r\n\r\n", "GET", STAYS, "200 ok"},
    // Failures: what has arrived is delivered before.
    {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhel", "GET", CLOSES, "200 hel !20008"},
    {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n", "GET", CLOSES, "200 hello !20008"},
    {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\nzz\r\n", "GET", STAYS, "200 hello !20008"},
    {"HTTP/1.1 200 OK\r\n\r\nuntil close", "GET", RESETS, "200 until close !20008"},
    {"HTTP/1.1 200 OK\r\nContent-Le", "GET", CLOSES, "0  !20008"},
    {"", "GET", CLOSES, "0  !20008"},
    {"SSH-2.0-x\r\n\r\n", "GET", STAYS, "0  !20008"},
    {"HTTP/1.1 99 Low\r\nContent-Length: 0\r\n\r\n", "GET", STAYS, "0  !20008"},
    {"HTTP/1.1 2000 High\r\nContent-Length: 0\r\n\r\n", "GET", STAYS, "0  !20008"},
    {"HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nab", "GET", STAYS, "0  !20008"},
    {"HTTP/1.1 200 OK\r\n Transfer-Encoding: chunked\r\n\r\n2\r\nok\r\n0\r\n\r\n", "GET", STAYS, "0  !20008"},
    {"HTTP/1.1 200 OK\r\nTransfer-Encoding chunked\r\n\r\n2\r\nok\r\n0\r\n\r\n", "GET", STAYS, "0  !20008"},
    {"HTTP/1.1 200 OK\r\nContent-Length=3\r\n\r\nabc", "GET", STAYS, "0  !20008"},
    {"HTTP/1.1 200 OK\r\nContent-Length: 3\r\nnonsense\r\n\r\nabc", "GET", STAYS, "0  !20008"},
    {"HTTP/1.1 200 OK\r\nX: a\rContent-Length: 3\r\n\r\nabc", "GET", CLOSES, "0  !20008"},
    {"HTTP/1.1 200 OK\r\nContent-Length: 3\r\r\n\r\nabc", "GET", STAYS, "0  !20008"},
    {"HTTP/1.1 103 Hints\r\nContent-Length 3\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", "GET", STAYS, "0  !20008"},
    {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nok\r\n0\r\nX: 1\rY: 2\r\n\r\n", "GET", STAYS, "200 ok !20008"},
    {"HTTP/1.1 101 Switching Protocols\r\n\r\n", "GET", STAYS, "0  !20008"},
};

// Answers of a server, whole and byte by byte, and the reports of the channel.
TEST_F(HttpClientTest, AnswersAsTheyCome) {
    for (const auto& [szAnswer, szMethod, end, szResult] : CASES) {
        for (const size_t stPiece : {std::string::npos, size_t{1}}) {
            SCOPED_TRACE(std::string(szAnswer) + " in pieces of " + std::to_string(stPiece));
            const CScriptServer server({{{szAnswer, end}}}, stPiece);
            const CCmTraceCapture trace;
            const std::string strResult = Get(server, [szAsked = szMethod](CTestHttpClient& aClient) { aClient.Ask(szAsked); });
            EXPECT_EQ(szResult, strResult);
            EXPECT_EQ(strResult.ends_with("!20008") ? 1u : 0u, trace.Count("CCmChannelHttpClient::OnDisconnect, "));
        }
    }
    std::string strInterims;
    for (int i = 1; i <= 33; ++i) {
        strInterims += "HTTP/1.1 102 Processing\r\n\r\n";
        const CScriptServer server({{{strInterims + Answer("200 OK", "", "").m_strBytes}}});
        EXPECT_EQ(i <= 32 ? "200 " : "0  !20008", Get(server));
    }
}

TEST_F(HttpClientTest, EndsWhereverTheSinkWants) {
    for (const auto& [nWhere, szUpcalls] :
         {std::pair{0, ""}, {1, "connect"}, {2, "connect, receive abc"}, {3, "connect, receive abcdef, disconnect 0"}}) {
        for (const bool bRelease : {false, true}) {
            const CScriptServer server(
                {{{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n3\r\ndef\r\n0\r\n\r\n"}}});
            CTestHttpClient client(server.GetUrl());
            bool bDone = false;
            const std::function<void()> end = [&] {
                bDone = true;
                if (bRelease)
                    client.m_pChannel.Reset();
                else
                    EXPECT_EQ(CM_OK, client.m_pChannel->Disconnect(CM_OK));
            };
            (nWhere == 1 ? client.m_Sink.m_Connect : nWhere == 2 ? client.m_Sink.m_Receive : client.m_Sink.m_Disconnect) = end;
            client.Open();
            EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, client.m_pChannel->AsyncOpen(&client.m_Sink));
            if (nWhere == 0)
                end();
            RunUntil([&] { return bDone; });
            Turn();
            EXPECT_EQ(nWhere == 0, server.m_Requests.empty()) << "what was given up is asked for";
            EXPECT_EQ(szUpcalls, client.m_Sink.Take());
        }
    }
}

TEST_F(HttpClientTest, DeliversTheWholeBodyByOption) {
    const std::string strBody = Pattern(100000);
    const CScriptServer server({{Answer("200 OK", "", strBody),
                                 Answer("200 OK", "", ""),
                                 {"HTTP/1.1 200 OK\r\nContent-Length: 4294967296\r\n\r\nabc"}}},
                               1000);
    for (const std::string& strResult : {"200 " + strBody, std::string("200 "), std::string("0  !20008")}) {
        CTestHttpClient client(server.GetUrl());
        client.Set(CM_OPT_CHANNEL_WHOLE_BODY, TRUE);
        EXPECT_EQ(strResult, Run(client));
        EXPECT_EQ(strResult[0] == '2' ? 1 : 0, client.m_Sink.m_nReceives);
    }
}

// Nothing more comes while the sink pauses, however much is there already; the rest stays with the system.
TEST_F(HttpClientTest, ASinkThatPausesIsLeftInPeace) {
    const std::string strBody = Pattern(100000);
    const CScriptServer server({{Answer("200 OK", "", strBody)}}, 20000);
    CTestHttpClient client(server.GetUrl());
    const auto pause = [&](BOOL aPause) { client.Set(CM_OPT_TRANSPORT_PAUSE_READING, static_cast<DWORD>(aPause)); };
    client.m_Sink.m_Connect = client.m_Sink.m_Receive = [&] { pause(TRUE); };
    client.Open();
    RunUntil([&] { return client.m_Sink.m_nConnects == 1; });
    for (int nReceives = 0; !client.IsOver(); ++nReceives) {
        Turn();
        EXPECT_EQ(nReceives, client.m_Sink.m_nReceives);
        EXPECT_EQ(nReceives < 6, server.GetPeer().m_bPaused);
        ASSERT_GT(20, nReceives);
        pause(FALSE);
        Turn();
    }
    EXPECT_TRUE("200 " + strBody == client.Result());
}

}  // namespace
