// What an application may do with a request, and when.
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
    m_Request = [this](ICmChannelHttpServer& a) { Keep(a).m_End = [] {}; };
    const std::string strData = Pattern(100000);
    for (const BOOL bChunked : {FALSE, TRUE}) {
        const auto pClient = Connect();
        pClient->Receive(GET);
        CTestRequest& request = *m_Requests.back();
        pClient->m_dwRoom = 1000;
        size_t stAt = 0;
        const auto pump = [&] {
            for (CmResult rv = CM_OK; rv == CM_OK && stAt < strData.size();) {
                DWORD dwTaken = 0;
                rv = Send(request, strData.substr(stAt, 30000), &dwTaken);
                stAt += dwTaken;
            }
        };
        ASSERT_EQ(CM_OK, request.m_pChannel->BeginAnswer(bChunked ? ICmChannelHttpServer::UNKNOWN_LENGTH : strData.size()));
        request.m_Send = [&] { pump(); };
        pump();
        EXPECT_LT(stAt, 60000u);
        for (int i = 0; i < 200 && !(stAt == strData.size() && pClient->m_dwRoom > 0); ++i)
            pClient->MakeRoom(1000);
        pClient->MakeRoom();
        EXPECT_EQ(CM_OK, request.m_pChannel->EndAnswer());
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, Send(request, "x"));
        std::string strExpected = strData;
        if (bChunked)
            strExpected = "7530\r\n" + strData.substr(0, 30000) + "\r\n7530\r\n" + strData.substr(30000, 30000) +
                          "\r\n7530\r\n" + strData.substr(60000, 30000) + "\r\n2710\r\n" + strData.substr(90000) +
                          "\r\n0\r\n\r\n";
        const std::string strSent = pClient->TakeSent();
        EXPECT_TRUE(strExpected == strSent.substr(strSent.find("\r\n\r\n") + 4));
        pClient->Receive(GET);
        EXPECT_EQ(2u, std::exchange(m_Requests, {}).size());
        pClient->Vanish();
    }
}

TEST_F(HttpServerTest, ALengthIsKept) {
    m_Request = [this](ICmChannelHttpServer& a) { Keep(a).m_End = [] {}; };
    const auto pClient = Connect();
    pClient->Receive(GET);
    CTestRequest& request = *m_Requests.back();
    EXPECT_EQ(CM_OK, request.m_pChannel->BeginAnswer(3));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, Send(request, "four"));
    EXPECT_EQ(CM_OK, Send(request, "ab"));
    EXPECT_EQ(CM_ERROR_FAILURE, request.m_pChannel->EndAnswer());
    EXPECT_EQ(1u, pClient->m_Disconnects.size());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, Send(request, "c"));
    EXPECT_EQ(0, request.m_nDisconnects);
}

TEST_F(HttpServerTest, WaitsForAnAnswerAndHoldsTheNextRequestsBack) {
    m_Request = [this](ICmChannelHttpServer& a) { Keep(a).m_End = [] {}; };
    const auto pClient = Connect();
    pClient->Receive(GET + GET);
    EXPECT_FALSE(pClient->m_bPaused);
    pClient->Receive(std::string(70000, '\n'));
    EXPECT_TRUE(pClient->m_bPaused);
    ASSERT_EQ(1u, m_Requests.size());
    Pass(1000);  // the application has its time
    EXPECT_EQ(CM_OK, m_Requests[0]->m_pChannel->AnswerText(200, "text/plain", "first"));
    EXPECT_EQ(1u, m_Requests.size());  // no upcall inside a call
    Turn();
    ASSERT_EQ(2u, m_Requests.size());
    EXPECT_EQ(CM_OK, m_Requests[1]->m_pChannel->AnswerText(200, "text/plain", "second"));
    Turn();
    EXPECT_FALSE(pClient->m_bPaused);
    EXPECT_EQ("200:first 200:second ", pClient->TakeAnswers());
}

TEST_F(HttpServerTest, ABodyComesWhenItIsWanted) {
    CCmRefPtrT<ICmChannelHttpServer> pChannel;
    m_Request = [&](ICmChannelHttpServer& a) { pChannel = &a; };
    const auto pClient = Connect();
    pClient->Receive(POST.substr(0, POST.size() - 3));
    CTestRequest request(pChannel.Get());
    request.m_Receive = [&] { ::Set(*pChannel, CM_OPT_TRANSPORT_PAUSE_READING, BOOL{request.m_strBody == "abc"}); };
    EXPECT_EQ(CM_OK, pChannel->ReceiveRequest(&request));
    EXPECT_EQ("", request.m_strBody);
    Turn();
    pClient->Receive("def");
    EXPECT_EQ("abc", request.m_strBody);
    ::Set(*pChannel, CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
    Turn();
    EXPECT_EQ("200:abcdef ", pClient->TakeAnswers());
}

TEST_F(HttpServerTest, AForgottenRequestIsAnswered) {
    m_Request = [](ICmChannelHttpServer&) {};
    auto pClient = Connect();
    pClient->Receive(GET);
    EXPECT_EQ("500:500 Internal Server Error\n end", pClient->TakeAnswers());

    m_Request = [this](ICmChannelHttpServer& a) { Keep(a).m_End = [] {}; };
    pClient = Connect();
    pClient->Receive(GET);
    EXPECT_EQ(CM_OK, Send(*m_Requests.back(), "a chunk"));
    m_Requests.back()->m_pChannel.Reset();
    EXPECT_EQ(1u, pClient->m_Disconnects.size());
}

TEST_F(HttpServerTest, TheUserHearsOnceOfAnEndBeforeTheAnswerOnly) {
    m_Request = [this](ICmChannelHttpServer& a) { Keep(a).m_End = [] {}; };
    const auto pInBody = Connect(), pInAnswer = Connect(), pBehind = Connect();
    pInBody->Receive(POST.substr(0, POST.size() - 1));
    pInAnswer->Receive(GET);
    EXPECT_EQ(CM_OK, Send(*m_Requests[1], "begun"));
    pBehind->Receive(GET);
    EXPECT_EQ(CM_OK, m_Requests[2]->m_pChannel->Answer(nullptr));
    for (const auto& pClient : {pInBody, pInAnswer, pBehind})
        pClient->Vanish();
    Turn();
    EXPECT_EQ(1, m_Requests[0]->m_nDisconnects);
    EXPECT_EQ(1, m_Requests[1]->m_nDisconnects);
    EXPECT_EQ(0, m_Requests[2]->m_nDisconnects);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, Send(*m_Requests[1], "more"));
    EXPECT_EQ(0u, m_pAcceptor->GetConnections());
}

// The acceptor's sink, where the request has none. A client that has sent all of its request and ends its side may wait.
TEST_F(HttpServerTest, ARequestThatWasNotReceivedIsLostOnce) {
    std::vector<CCmRefPtrT<ICmChannelHttpServer>> channels;
    m_Request = [&](ICmChannelHttpServer& a) { channels.emplace_back(&a); };
    const std::string strChunked = "POST / HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n";
    const auto pAnswered = Connect(), pGivenUp = Connect(), pGone = Connect(), pCut = Connect(), pWhole = Connect();
    for (const auto& pClient : {pAnswered, pGivenUp, pGone})
        pClient->Receive(POST);
    pCut->Receive(strChunked + "3\r\nabc\r\n");
    pWhole->Receive(strChunked + "3\r\nabc\r\n0\r\n\r\n");
    channels[0]->AnswerText(200, "text/plain", "");
    channels[1]->Disconnect(CM_OK);
    for (const auto& pClient : {pAnswered, pGivenUp, pGone})
        pClient->Vanish();
    EXPECT_EQ((std::vector<ICmChannelHttpServer*>{channels[2].Get()}), m_Lost);
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, channels[2]->Answer(nullptr));
    for (const auto& pEnded : {channels[0], channels[2]}) {
        EXPECT_EQ(2, Get<CCmInetAddr>(*pEnded, CM_OPT_TRANSPORT_PEER_ADDR).GetPort());
        EXPECT_EQ(1, Get<CCmInetAddr>(*pEnded, CM_OPT_TRANSPORT_LOCAL_ADDR).GetPort());
        EXPECT_EQ(CM_TRANSPORT_TYPE_TCP, Get<DWORD>(*pEnded, CM_OPT_TRANSPORT_TRAN_TYPE));
    }
    const auto pBehind = Connect();
    pBehind->Receive(GET + strChunked);
    for (const auto& pClient : {pCut, pWhole, pBehind})
        pClient->EndSide();
    Turn();
    EXPECT_EQ((std::vector<ICmChannelHttpServer*>{channels[2].Get(), channels[3].Get()}), m_Lost);
    EXPECT_EQ((std::vector<ICmChannelHttpServer*>{channels[4].Get(), channels[5].Get()}), m_Ended);
    EXPECT_EQ(CM_OK, channels[4]->AnswerText(200, "text/plain", "whole"));
    EXPECT_EQ("200:whole ", pWhole->TakeAnswers());
    EXPECT_EQ(CM_OK, channels[5]->Answer(nullptr));
    Turn();
    EXPECT_EQ(channels.at(6).Get(), m_Lost.back()) << "what is behind it was cut short";
    EXPECT_EQ(2u, m_Ended.size());
}

TEST_F(HttpServerTest, AClientThatEndsItsSideGetsWhatItHasAskedFor) {
    m_Request = [this](ICmChannelHttpServer& a) { Keep(a).m_End = [] {}; };
    const auto pWaiting = Connect(), pInBody = Connect(), pIdle = Connect();
    pWaiting->Receive(GET + GET);
    pInBody->Receive(POST.substr(0, POST.size() - 1));
    for (const auto& pClient : {pWaiting, pInBody, pIdle})
        pClient->EndSide();
    Turn();
    EXPECT_EQ(1u, m_pAcceptor->GetConnections());
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, m_Requests[1]->m_Reason);
    EXPECT_EQ(CM_OK, m_Requests[0]->m_pChannel->AnswerText(200, "text/plain", "one"));
    Turn();
    for (const int i : {0, 1, 2})
        EXPECT_EQ(i != 1, m_Requests[static_cast<size_t>(i)]->m_nClientEnds);
    EXPECT_EQ(CM_OK, m_Requests[2]->m_pChannel->AnswerText(200, "text/plain", "two"));
    EXPECT_EQ("200:one 200:two ", pWaiting->TakeAnswers());
    Turn();
    EXPECT_EQ(0u, m_pAcceptor->GetConnections());
    EXPECT_EQ(std::vector<CmResult>{CM_OK}, pWaiting->m_Disconnects);
}

// In each upcall each thing that may be done there; what must not happen is found by the sanitizers and the live counters.
TEST_F(HttpServerTest, AnythingMayBeDoneInsideAnyUpcall) {
    using Deed = std::function<void(CTestRequest&)>;
    const Deed deeds[] = {
        [](CTestRequest& a) { a.m_pChannel.Reset(); },
        [](CTestRequest& a) { a.m_pChannel->Disconnect(CM_OK); },
        [](CTestRequest& a) { a.m_pChannel->AnswerText(200, "text/plain", std::string(10000, 'x')); },
        [this](CTestRequest&) { m_pAcceptor->StopListen(CM_OK); },
        [this](CTestRequest&) { m_pAcceptor.Reset(); },
        [this](CTestRequest& a) {
            a.m_pChannel.Reset();
            m_pAcceptor.Reset();
        },
    };
    for (const Deed& deed : deeds) {
        for (int nWhere = 0; nWhere < 5; ++nWhere) {
            m_Request = [&](ICmChannelHttpServer& a) {
                CTestRequest& request = Keep(a);
                const auto act = [&] { deed(request); };
                request.m_End = [&request] { Send(request, std::string(20000, 'y')); };
                std::function<void()>* const upcalls[] = {&request.m_Receive, &request.m_End, &request.m_Send,
                                                          &request.m_Disconnect};
                if (nWhere < 4)
                    *upcalls[nWhere] = act;
                else
                    act();
            };
            const auto pClient = Connect();
            pClient->m_dwRoom = 500;
            pClient->Receive(POST + POST);
            pClient->MakeRoom(1000);
            pClient->MakeRoom();
            pClient->Vanish();
            Turn();
            m_Requests.clear();
            if (!m_pAcceptor || m_pAcceptor->StopListen(CM_OK) != CM_OK) {
                m_pAcceptor.Reset();
                Turn();
                SetUp();
            } else {
                Turn();
                EXPECT_EQ(CM_OK, m_pAcceptor->StartListen(this, CCmInetAddr(OwnLoopback(), 0)));
            }
        }
    }
}

}  // namespace
