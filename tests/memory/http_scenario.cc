// HTTP: a server and clients in one thread, over connections that are kept alive.
#include "talvo/talvo.h"
#include "tests/memory/scenario.h"

namespace {

using Atoms = CCmHttpAtomList;

const std::string TEXT = Pattern(20000, 3);

// Answers one request after the other: with TEXT, a redirection, or the request's body.
class CWebServer : public ICmChannelServerAcceptorSink, public ICmChannelHttpServerSink {
public:
    ~CWebServer() override {
        CWorld::Do([&] { m_pAcceptor.Reset(); });
    }
    bool Start() {
        const CCmInetAddr addr(OwnLoopback(), 0);
        CCmInetAddr listened;
        const bool bListens = CWorld::Do([&] {
            return CCmChannelManager::Instance()->CreateHttpAcceptor(m_pAcceptor.ParaOut()) == CM_OK &&
                   m_pAcceptor->StartListen(this, addr) == CM_OK && m_pAcceptor->GetListenAddr(listened) == CM_OK;
        });
        m_strUrl = std::string("http://") + OwnLoopback() + ":" + std::to_string(listened.GetPort());
        return bListens;
    }
    void Stop(CWorld& aWorld) {
        if (m_pAcceptor && CWorld::Do([&] { return m_pAcceptor->StopListen(CM_OK); }) == CM_OK)
            Require(aWorld.Run([&] { return m_nStops == 1; }), "a server does not stop");
    }
    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        const CCmSafeCode safe;
        static const CCmString TARGET = "/a-target-with-a-long-name";
        const CCmHttpRequestHead& head = aChannel->GetRequest();
        const bool bMoved = head.GetRequestURI() == "/moved";
        m_strBody.clear();
        CWorld::Do([&] {
            if (head.GetMethod() == Atoms::Post)
                m_pChannel = aChannel->ReceiveRequest(this) == CM_OK ? aChannel : nullptr;
            else if (!bMoved)
                aChannel->AnswerText(200, "text/plain", TEXT);
            else if (aChannel->SetStatus(302) == CM_OK && aChannel->SetHeader(Atoms::Location, TARGET) == CM_OK)
                aChannel->Answer(nullptr);
        });
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        const CCmSafeCode safe;
        m_strBody += aData.FlattenChained();
    }
    void OnRequestEnd(ICmChannelHttpServer*) override {
        std::exchange(m_pChannel, {})->AnswerText(200, "text/plain", m_strBody);
    }
    void OnDisconnect(CmResult, ICmTransport*) override { m_pChannel.Reset(); }
    void OnStopped(ICmChannelServerAcceptor*) override { ++m_nStops; }

    std::string m_strUrl;

private:
    CCmRefPtrT<ICmChannelServerAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmChannelHttpServer> m_pChannel;  // while it receives
    std::string m_strBody;
    int m_nStops = 0;
};

// Asks once.
class CWebClient : public ICmChannelSink {
public:
    ~CWebClient() override {
        CWorld::Do([&] { m_pChannel.Reset(); });
    }
    bool Ask(CWorld& aWorld, const std::string& aUrl, bool aBody) {
        if (!CWorld::Do([&] { return Prepare(aUrl, aBody); }))
            return false;
        const CmResult rv = CWorld::Do([&] { return m_pChannel->AsyncOpen(this); });
        Require(m_nConnects + m_nEnds == 0, "an upcall from inside AsyncOpen");
        if (rv != CM_OK)
            return false;
        Require(aWorld.Run([&] { return m_nEnds > 0; }), "a channel has no end");
        const bool bWell = m_Reason == CM_OK && m_pChannel->GetResponseStatus() == 200;
        Require(!bWell || m_strBody == TEXT, "an end in order without the whole body");
        return bWell;
    }
    void OnConnect(CmResult aReason, ICmChannel*) override {
        Require(aReason == CM_OK && m_nConnects++ == 0 && m_nEnds == 0, "OnConnect out of turn");
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        const CCmSafeCode safe;
        Require(m_nConnects == 1 && m_nEnds == 0, "OnReceive out of turn");
        m_strBody += aData.FlattenChained();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult aReason, ICmTransport*) override {
        Require(m_nEnds++ == 0, "two ends");
        m_Reason = aReason;
    }

private:
    bool Prepare(const std::string& aUrl, bool aBody) {
        CCmChannelManager& manager = *CCmChannelManager::Instance();
        CCmRefPtrT<CCmHttpUrl> pUrl;
        return manager.CreateUrl(pUrl.ParaOut(), aUrl) == CM_OK &&
               manager.CreateChannelHttpClient(m_pChannel.ParaOut(), pUrl.Get()) == CM_OK &&
               (!aBody ||
                (m_pChannel->SetRequestMethod(Atoms::Post) == CM_OK && m_pChannel->SetRequestBody(ViewOf(TEXT)) == CM_OK));
    }
    CCmRefPtrT<ICmChannelHttpClient> m_pChannel;
    int m_nConnects = 0, m_nEnds = 0;
    CmResult m_Reason = CM_OK;
    std::string m_strBody;
};

}  // namespace

bool AskAndAnswer(CWorld& aWorld) {
    CWebServer server;
    bool bAll = server.Start();
    for (const char* szPath : {"/plain", "/moved", "/body"})
        bAll = bAll && CWebClient().Ask(aWorld, server.m_strUrl + szPath, szPath[1] == 'b');
    server.Stop(aWorld);
    return bAll;
}
