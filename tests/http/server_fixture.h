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
    // What has come since it was last asked, "STATUS:BODY " for each answer, and "end" when the server has ended its side.
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

// What the application knows of one request; takes the body and answers with it unless told otherwise.
class CTestRequest : public ICmChannelHttpServerSink {
public:
    explicit CTestRequest(ICmChannelHttpServer* aChannel) : m_pChannel(aChannel) {}
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        EXPECT_EQ(0, m_nEnds + m_nDisconnects);
        m_strBody += aData.FlattenChained();
        m_Receive();
    }
    void OnRequestEnd(ICmChannelHttpServer*) override {
        EXPECT_EQ(0, m_nEnds++);
        m_End();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { m_Send(); }
    void OnClientEnd(ICmChannelHttpServer*) override { ++m_nClientEnds; }
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        EXPECT_EQ(0, m_nDisconnects++);
        m_Reason = aReason;
        m_Disconnect();
    }

    CCmRefPtrT<ICmChannelHttpServer> m_pChannel;
    std::string m_strBody;
    int m_nEnds = 0;
    int m_nClientEnds = 0;
    int m_nDisconnects = 0;
    CmResult m_Reason = CM_OK;
    std::function<void()> m_Receive = [] {};
    std::function<void()> m_End = [this] {
        m_pChannel->AnswerText(200, "text/plain", m_strBody);
        m_pChannel.Reset();
    };
    std::function<void()> m_Send = [] {};
    std::function<void()> m_Disconnect = [] {};
};

// The main thread is network thread and application. A POST is answered with its body, anything else with its URI, at once.
class HttpServerTest : public testing::Test, public ICmChannelServerAcceptorSink {
protected:
    void SetUp() override {
        m_pAcceptor = new CCmChannelHttpServerAcceptor(0);
        ASSERT_EQ(CM_OK, m_pAcceptor->StartListen(this, CCmInetAddr(OwnLoopback(), 0)));
    }
    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override { m_Request(*aChannel); }
    void OnRequestLost(CmResult, ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        m_Lost.push_back(aChannel);
    }
    void OnClientEnd(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override { m_Ended.push_back(aChannel); }
    void OnStopped(ICmChannelServerAcceptor*) override { ++m_nStopped; }

    void AnswerWithURI(ICmChannelHttpServer& aChannel) {
        if (aChannel.GetRequest().GetMethod() == CCmHttpAtomList::Post)
            Keep(aChannel);
        else
            aChannel.AnswerText(200, "text/plain", aChannel.GetRequest().GetRequestURI());
    }
    CTestRequest& Keep(ICmChannelHttpServer& aChannel) {
        m_Requests.push_back(std::make_unique<CTestRequest>(&aChannel));
        EXPECT_EQ(CM_OK, aChannel.ReceiveRequest(m_Requests.back().get()));
        return *m_Requests.back();
    }
    CCmRefPtrT<CTestClient> Connect() {
        CCmRefPtrT<CTestClient> pClient(new CTestClient);
        m_pAcceptor->Serve(pClient.Get());
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
    std::vector<ICmChannelHttpServer*> m_Lost;
    std::vector<ICmChannelHttpServer*> m_Ended;
    int m_nStopped = 0;
};
