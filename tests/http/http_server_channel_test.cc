// The operations of an application on a request, at each moment of it.
#include "tests/http/server_fixture.h"

namespace {

using namespace std::string_literals;

const std::string GET = "GET /a HTTP/1.1\r\nHost: h\r\n\r\n";
const std::string POST = "POST / HTTP/1.1\r\nHost: h\r\nContent-Length: 6\r\n\r\nabcdef";

CmResult Send(CTestRequest& aRequest, const std::string& aText, DWORD* aTaken = nullptr) {
    CCmMessageBlock block = ViewOf(aText);
    CCmTransportParameter para;
    const CmResult rv = aRequest.m_pChannel->SendData(block, &para);
    EXPECT_EQ(para.m_dwHaveSent, aText.size() - block.GetChainedLength());
    if (aTaken)
        *aTaken = para.m_dwHaveSent;
    return rv;
}

TEST_F(HttpServerTest, StreamsAsFastAsTheClientTakes) {
    HoldRequests();
    const std::string strData = Pattern(90000);
    for (const BOOL bChunked : {FALSE, TRUE}) {
        const auto pClient = Connect(GET);
        CTestRequest& request = *m_Requests.back();
        pClient->m_dwRoom = 1000;
        size_t stAt = 0;
        request.m_Inside = [&](const std::string&) {
            for (CmResult rv = CM_OK; rv == CM_OK && stAt < strData.size();) {
                DWORD dwTaken = 0;
                rv = Send(request, strData.substr(stAt, 30000), &dwTaken);
                stAt += dwTaken;
            }
        };
        ASSERT_EQ(CM_OK, request.m_pChannel->BeginAnswer(bChunked ? ICmChannelHttpServer::UNKNOWN_LENGTH : strData.size()));
        request.m_Inside("send");
        EXPECT_LT(stAt, 60000u);
        for (int i = 0; i < 200 && !(stAt == strData.size() && pClient->m_dwRoom > 0); ++i)
            pClient->MakeRoom(1000);
        pClient->MakeRoom();
        EXPECT_EQ(CM_OK, request.m_pChannel->EndAnswer());
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, Send(request, "x"));
        std::string strExpected;
        for (size_t i = 0; i < strData.size(); i += 30000)
            strExpected += bChunked ? "7530\r\n" + strData.substr(i, 30000) + "\r\n" : strData.substr(i, 30000);
        const std::string strSent = pClient->TakeSent();
        EXPECT_TRUE(strExpected + (bChunked ? "0\r\n\r\n" : "") == strSent.substr(strSent.find("\r\n\r\n") + 4));
        pClient->Receive(GET);
        EXPECT_EQ(2u, std::exchange(m_Requests, {}).size());
        pClient->Vanish();
    }
}

TEST_F(HttpServerTest, WaitsForAnAnswerAndHoldsTheNextRequestsBack) {
    HoldRequests();
    const auto pClient = Connect(GET + GET);
    EXPECT_FALSE(pClient->m_bPaused);
    pClient->Receive(std::string(70000, '\n'));
    EXPECT_TRUE(pClient->m_bPaused);
    Pass(1000);  // the application has its time
    EXPECT_EQ(CM_OK, Answer(0, "first"));
    EXPECT_EQ(1u, m_Requests.size());  // no upcall inside a call
    Turn();
    EXPECT_EQ(CM_OK, Answer(1, "second"));
    Turn();
    EXPECT_FALSE(pClient->m_bPaused);
    EXPECT_EQ("200:first 200:second ", pClient->TakeAnswers());
}

TEST_F(HttpServerTest, AForgottenRequestIsAnswered) {
    m_Request = [](ICmChannelHttpServer&) {};
    EXPECT_EQ("500:500 Internal Server Error\n end", Connect(GET)->TakeAnswers());
}

// A chunked body without its end, and fewer bytes than the length.
TEST_F(HttpServerTest, AnAnswerThatIsNotWholeEndsTheConnection) {
    HoldRequests();
    const auto pChunked = Connect(GET), pLength = Connect(GET);
    EXPECT_EQ(CM_OK, Send(*m_Requests[0], "a chunk"));
    m_Requests[0]->m_pChannel.Reset();
    EXPECT_EQ(CM_OK, m_Requests[1]->m_pChannel->BeginAnswer(3));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, Send(*m_Requests[1], "four"));
    EXPECT_EQ(CM_OK, Send(*m_Requests[1], "ab"));
    EXPECT_EQ(CM_ERROR_FAILURE, m_Requests[1]->m_pChannel->EndAnswer());
    EXPECT_EQ(2u, pChunked->m_Disconnects.size() + pLength->m_Disconnects.size());
    EXPECT_EQ("end end ", TakeLog());
}

// Of the request's sink, or of the acceptor's where the application has not received the request. A client that has sent all
// of a request and ends its side may wait for the answer.
TEST_F(HttpServerTest, AnEndBeforeTheAnswerIsReportedOnce) {
    using Deed = std::function<void(ICmChannelHttpServer&)>;
    const Deed waits = [](ICmChannelHttpServer&) {}, begins = [](ICmChannelHttpServer&a) { SendText(a, "begun"); },
               answers = [](ICmChannelHttpServer&a) { a.AnswerText(200, "text/plain", "early"); },
               givesUp = [](ICmChannelHttpServer&a) { a.Disconnect(CM_OK); };
    const std::string strCut = POST.substr(0, POST.size() - 1);
    const std::string strChunked = "POST / HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n";
    // Whether the application receives it, the bytes, a deed on the first request, whether the client vanishes or ends its
    // side, the upcalls, and the answers after that.
    const std::tuple<BOOL, std::string, Deed, BOOL, const char*, const char*> rows[] = {
        {TRUE, strCut, waits, TRUE, "receive gone:20001 ", ""},
        {TRUE, GET, begins, TRUE, "end gone:20001 ", ""},
        {TRUE, GET, answers, TRUE, "end ", ""},
        {TRUE, strCut, waits, FALSE, "receive gone:20001 ", ""},
        {TRUE, "", waits, FALSE, "", ""},
        {TRUE, GET + GET, waits, FALSE, "end client-end end client-end ", "200:late 200:late "},
        {FALSE, POST, answers, TRUE, "", ""},
        {FALSE, POST, givesUp, TRUE, "", ""},
        {FALSE, POST, waits, TRUE, "lost ", ""},
        {FALSE, strChunked, waits, FALSE, "lost ", ""},
        {FALSE, strChunked + "0\r\n\r\n", waits, FALSE, "client-end ", "200:late "},
        {FALSE, GET + strChunked, waits, FALSE, "client-end lost ", "200:late "}};
    for (const auto& [bReceived, strBytes, apply, bVanishes, szLog, szAnswers] : rows) {
        SCOPED_TRACE(strBytes + szLog);
        std::deque<CCmRefPtrT<ICmChannelHttpServer>> channels;
        m_Request = [&, bHeld = bReceived](ICmChannelHttpServer& a) {
            channels.emplace_back(&a);
            if (bHeld)
                Hold(a);
        };
        const auto pClient = Connect(strBytes);
        if (!channels.empty())
            apply(*channels[0]);
        pClient->TakeSent();
        bVanishes ? pClient->Vanish() : pClient->EndSide();
        Turn();
        for (size_t i = 0; i < channels.size(); ++i) {
            const auto& pChannel = channels[i];
            const BOOL bWaits = *szLog && pChannel->AnswerText(200, "text/plain", "late") == CM_OK;
            EXPECT_TRUE(bWaits || SendText(*pChannel, "late") != CM_OK);
            Turn();
            EXPECT_EQ(2, Get<CCmInetAddr>(*pChannel, CM_OPT_TRANSPORT_PEER_ADDR).GetPort());
            EXPECT_EQ(1, Get<CCmInetAddr>(*pChannel, CM_OPT_TRANSPORT_LOCAL_ADDR).GetPort());
            EXPECT_EQ(CM_TRANSPORT_TYPE_TCP, Get<DWORD>(*pChannel, CM_OPT_TRANSPORT_TRAN_TYPE));
        }
        EXPECT_EQ(szAnswers, pClient->TakeAnswers());
        EXPECT_EQ(szLog, TakeLog());
        EXPECT_EQ(0u, m_pAcceptor->GetConnections());
        EXPECT_TRUE(bVanishes || 1u == pClient->m_Disconnects.size());
        m_Requests.clear();
    }
}

// In each upcall each thing that may be done there; what must not happen is found by the sanitizers and the live counters.
TEST_F(HttpServerTest, AnythingMayBeDoneInsideAnyUpcall) {
    const std::function<void(CTestRequest&)> deeds[] = {
        [](CTestRequest& a) { a.m_pChannel.Reset(); },
        [](CTestRequest& a) { a.m_pChannel->Disconnect(CM_OK); },
        [](CTestRequest& a) { a.m_pChannel->AnswerText(200, "text/plain", std::string(10000, 'x')); },
        [this](CTestRequest&) { m_pAcceptor->StopListen(CM_OK); },
        [this](CTestRequest&) { m_pAcceptor.Reset(); },
    };
    for (const auto& deed : deeds) {
        for (const std::string strWhere : {"request", "receive", "end", "send", "gone:20001"}) {
            m_Request = [&](ICmChannelHttpServer& a) {
                CTestRequest& request = Keep(a);
                request.m_Inside = [&](const std::string& aUpcall) {
                    if (aUpcall == strWhere)
                        deed(request);
                    else if (aUpcall == "end")
                        Send(request, std::string(20000, 'y'));
                };
                request.m_Inside("request");
            };
            const auto pClient = Connect();
            pClient->m_dwRoom = 500;
            pClient->Receive(POST + POST);
            pClient->MakeRoom(1000);
            pClient->MakeRoom();
            pClient->Vanish();
            Turn();
            TearDown();
            SetUp();
        }
    }
}

}  // namespace
