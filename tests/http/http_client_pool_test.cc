#include "tests/http/client_fixture.h"

using HttpClientPoolTest = CHttpClientTest;

// Each answer is asked for twice, and the second request may come over the first connection only if nothing speaks against it.
TEST_F(HttpClientPoolTest, AConnectionIsUsedAgainOnlyIfItIsClean) {
    const std::pair<CAnswer, size_t> CASES[] = {
        {Answer("200 OK", "", "ab"), 1},
        {{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n0\r\n\r\n"}, 1},
        {{"HTTP/1.0 200 OK\r\nConnection: keep-alive\r\nContent-Length: 2\r\n\r\nab"}, 1},
        {{"HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nab"}, 2},
        {Answer("200 OK", "Connection: x, Close\r\n", "ab"), 2},
        {{"HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nabstray bytes"}, 2},
        {{"HTTP/1.1 200 OK\r\nContent-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n0\r\n\r\n"}, 2},
    };
    for (const auto& [answer, nConnections] : CASES) {
        SCOPED_TRACE(answer.m_strBytes);
        const CScriptServer server({{answer, answer}});
        EXPECT_EQ("200 ab", Get(server));
        EXPECT_EQ("200 ab", Get(server));
        EXPECT_EQ(nConnections, server.GetConnections());
        EXPECT_EQ("200 ab", Get(server, [](CTestHttpClient& a) { a.Set(CM_OPT_CHANNEL_KEEP_ALIVE, FALSE); }));
        EXPECT_EQ(nConnections + 1, server.GetConnections());
    }
}

// The first request is answered, the second kills the connection; it may only be sent again if that does no harm, and only
// once. A POST takes no chance with a connection that has rested.
TEST_F(HttpClientPoolTest, AStaleConnectionIsReplacedOnceForWhatMayBeRepeated) {
    const CAnswer first = Answer("200 OK", "", "a"), closes{"", CAnswer::CLOSES}, better = Answer("200 OK", "", "b");
    for (const auto& [szMethod, lRest, second, szResult, stConnections] : {std::tuple{"GET", 20L, better, "200 b", size_t{2}},
                                                                           {"POST", 0L, better, "0  !20008", size_t{1}},
                                                                           {"POST", 1L, better, "200 b", size_t{2}},
                                                                           {"GET", 0L, closes, "0  !20008", size_t{2}}}) {
        const CScriptServer server({{first, closes}, {second}});
        EXPECT_EQ("200 a", Get(server));
        m_Clock.Advance(CCmTimeValue(lRest));
        EXPECT_EQ(szResult, Get(server, [szAsked = szMethod](CTestHttpClient& aClient) { aClient.Ask(szAsked); }));
        EXPECT_EQ(stConnections, server.GetConnections());
    }
}

TEST_F(HttpClientPoolTest, AChosenAddressReplacesThatOfTheUrl) {
    const CAnswer moved = Answer("302 Found", "Location: http://b.test/\r\n", ""), found = Answer("200 OK", "", "x");
    const CScriptServer server({{found}}), chosen({{moved, found}, {found}});
    const auto choose = [&](CTestHttpClient& a) { Set(*a.m_pChannel, CM_OPT_CHANNEL_CONNECT_TO, chosen.GetAddr()); };
    EXPECT_EQ("200 x", Get(server, choose));
    EXPECT_EQ("200 x", Get(server, choose));
    EXPECT_EQ(2u, chosen.GetConnections());  // one a host, and each is used again
    EXPECT_NE(std::string::npos, chosen.m_Requests.back().find("Host: " + server.GetUrl("").substr(7)));
    EXPECT_EQ("200 x", Get(server));
    EXPECT_EQ(1u, server.GetConnections());
}

TEST_F(HttpClientPoolTest, LimitsAndWaitingInTurn) {
    CCmHttpPoolLimits limits{0, 1, 64, 30'000};
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmChannelManager::Instance()->SetHttpPoolLimits(limits));
    limits.m_dwMaxPerHost = 2;
    EXPECT_EQ(CM_OK, CCmChannelManager::Instance()->SetHttpPoolLimits(limits));
    const CScriptServer server({CAnswers(10, Answer("200 OK", "", "x"))});
    std::vector<std::unique_ptr<CTestHttpClient>> clients;
    for (int i = 0; i < 6; ++i) {
        clients.push_back(std::make_unique<CTestHttpClient>(server.GetUrl()));
        clients.back()->Open();
    }
    clients[3]->m_pChannel->Disconnect(CM_OK);  // it waits, and gives its turn to the others
    RunUntil([&] {
        return std::count_if(clients.begin(), clients.end(), [](const auto& pClient) { return pClient->IsOver(); }) == 5;
    });
    for (size_t i = 0; i < clients.size(); ++i)
        EXPECT_EQ(i == 3 ? "0 " : "200 x", clients[i]->Result());
    EXPECT_EQ("200 x", Get(server));
    EXPECT_EQ(2u, server.GetConnections());
    EXPECT_EQ(6u, server.m_Requests.size());

    limits.m_dwMaxIdle = 0;
    EXPECT_EQ(CM_OK, CCmChannelManager::Instance()->SetHttpPoolLimits(limits));
    EXPECT_EQ("200 x", Get(server));
    EXPECT_EQ(3u, server.GetConnections());
}

TEST_F(HttpClientPoolTest, WhatIsUnusedForLongIsClosed) {
    const CScriptServer server({{Answer("200 OK", "", "a")}});
    EXPECT_EQ("200 a", Get(server));
    for (const int nDisconnects : {0, 1}) {
        m_Clock.Advance(CCmTimeValue(29 - 27 * nDisconnects));
        Turn();
        EXPECT_EQ(nDisconnects, server.GetPeer().m_nDisconnects);
    }
}
