// An HTTP server with a test for its application and its clients.
#pragma once

#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/server/channel_http_server_acceptor.h"
#include "tests/support/fake_lower.h"
#include "tests/support/network_fixture.h"
#include "tests/support/test.h"

// A client without a socket.
class CTestClient : public CFakeLower {
public:
    // The answers since the last call, "STATUS:BODY " for each answer, and "end" when the server has ended its side.
    std::string TakeAnswers() {
        std::string strAnswers;
        for (std::string strLeft = TakeSent(); !strLeft.empty();) {
            const size_t stBody = strLeft.find("\r\n\r\n") + 4;
            const size_t stLength = strLeft.substr(0, stBody).find("Content-Length: ");
            const size_t stSize = stLength == std::string::npos ? 0 : std::stoul(strLeft.substr(stLength + 16));
            strAnswers += strLeft.substr(9, 3) + ":" + strLeft.substr(stBody, stSize) + " ";
            strLeft.erase(0, stBody + stSize);
        }
        return strAnswers + (m_bEnded ? "end" : "");
    }
};

// One request and its upcalls; takes the body and answers with it, unless told otherwise.
class CTestRequest : public ICmChannelHttpServerSink {
public:
    CTestRequest(ICmChannelHttpServer& aChannel, std::string& aLog) : m_pChannel(&aChannel), m_strLog(aLog) {}
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        m_strBody += aData.FlattenChained();
        Upcall("receive", m_bEnded);
    }
    void OnRequestEnd(ICmChannelHttpServer*) override { Upcall("end", std::exchange(m_bEnded, TRUE)); }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { Upcall("send"); }
    void OnClientEnd(ICmChannelHttpServer*) override { Upcall("client-end"); }
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        Upcall("gone:" + std::to_string(aReason), std::exchange(m_bGone, TRUE));
    }

    CCmRefPtrT<ICmChannelHttpServer> m_pChannel;
    std::string m_strBody;
    // Runs inside each upcall.
    std::function<void(const std::string&)> m_Inside = [this](const std::string& aUpcall) {
        if (aUpcall != "end")
            return;
        m_pChannel->AnswerText(200, "text/plain", m_strBody);
        m_pChannel.Reset();
    };

private:
    void Upcall(const std::string& aUpcall, BOOL aTooLate = FALSE) {
        EXPECT_FALSE(aTooLate || (m_bGone && !aUpcall.starts_with("gone"))) << aUpcall;
        m_strLog += aUpcall + " ";
        m_Inside(aUpcall);
    }
    std::string& m_strLog;
    BOOL m_bEnded = FALSE, m_bGone = FALSE;
};

// The main thread is network thread and application. A POST is answered with its body, anything else with its URI, at once.
class HttpServerTest : public testing::Test, public ICmChannelServerAcceptorSink, public ICmHttpRefusalSink {
protected:
    void SetUp() override {
        m_pAcceptor = new CCmChannelHttpServerAcceptor(0);
        Set<ICmHttpRefusalSink*>(CM_OPT_CHANNEL_SERVER_REFUSAL_SINK, this);
        ASSERT_EQ(CM_OK, m_pAcceptor->StartListen(this, Loopback()));
    }
    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override { m_Request(*aChannel); }
    void OnRequestLost(CmResult, ICmChannelHttpServer*, ICmChannelServerAcceptor*) override { m_strLog += "lost "; }
    void OnClientEnd(ICmChannelHttpServer*, ICmChannelServerAcceptor*) override { m_strLog += "client-end "; }
    void OnStopped(ICmChannelServerAcceptor*) override { m_strLog += "stopped "; }
    void OnRefused(int aStatus, const CCmHttpRequestHead& aRequest, const CCmInetAddr&, DWORD aBytes) override {
        m_Refusals.push_back(std::to_string(aStatus) + " " + aRequest.GetRequestURI() + " " + std::to_string(aBytes));
    }

    void AnswerWithURI(ICmChannelHttpServer& aChannel) {
        if (aChannel.GetRequest().GetMethod() == CCmHttpAtomList::Post)
            Keep(aChannel);
        else
            aChannel.AnswerText(200, "text/plain", aChannel.GetRequest().GetRequestURI());
    }
    CTestRequest& Keep(ICmChannelHttpServer& aChannel) {
        m_Requests.push_back(std::make_unique<CTestRequest>(aChannel, m_strLog));
        EXPECT_EQ(CM_OK, aChannel.ReceiveRequest(m_Requests.back().get()));
        return *m_Requests.back();
    }
    // Without an answer.
    void Hold(ICmChannelHttpServer& aChannel) {
        Keep(aChannel).m_Inside = [](const std::string&) {};
    }
    void HoldRequests() {
        m_Request = [this](ICmChannelHttpServer& a) { Hold(a); };
    }
    CmResult Answer(size_t aRequest, const char* aText) {
        return m_Requests.at(aRequest)->m_pChannel->AnswerText(200, "text/plain", aText);
    }
    // The upcalls of the requests and the acceptor since the last call.
    std::string TakeLog() { return std::exchange(m_strLog, {}); }
    CCmRefPtrT<CTestClient> Connect(const std::string& aBytes = "") {
        CCmRefPtrT<CTestClient> pClient(new CTestClient);
        m_pAcceptor->Serve(pClient.Get());
        if (!aBytes.empty())
            pClient->Receive(aBytes);
        return pClient;
    }
    template <class Value>
    void Set(DWORD aOption, Value aValue) {
        EXPECT_EQ(CM_OK, m_pAcceptor->SetOption(aOption, &aValue));
    }
    void Turn() {
        for (int i = 0; i < 3; ++i)
            m_Network.RunPosted();
    }
    void Pass(int aSeconds) {
        for (int i = 0; i < aSeconds; ++i) {
            m_Clock.Advance(CCmTimeValue(1));
            Turn();
        }
    }
    void TearDown() override {
        m_Requests.clear();
        m_pAcceptor.Reset();
        Turn();
    }

    CCmFakeClock m_Clock;
    CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
    CCmRefPtrT<CCmChannelHttpServerAcceptor> m_pAcceptor;
    std::function<void(ICmChannelHttpServer&)> m_Request = [this](ICmChannelHttpServer& a) { AnswerWithURI(a); };
    std::vector<std::unique_ptr<CTestRequest>> m_Requests;
    std::string m_strLog;
    std::vector<std::string> m_Refusals;
};
