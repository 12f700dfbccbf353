// Echoes the method, the path and the body of each request, then ends:   http_server [PORT [REQUESTS]]
//
// Without arguments: a port that the system chooses, one request. Try   curl -d 'some text' http://127.0.0.1:PORT/path
#include <cstdio>
#include <cstdlib>

#include "talvo/talvo.h"

// One request. It receives the body, answers, and deletes itself.
class Request : public ICmChannelHttpServerSink {
public:
    explicit Request(ICmChannelHttpServer* aChannel) : m_pChannel(aChannel) {}
    void OnReceive(CCmMessageBlock& a, ICmTransport*, CCmTransportParameter*) override { m_strBody += a.FlattenChained(); }
    void OnRequestEnd(ICmChannelHttpServer*) override {
        const CCmHttpRequestHead& head = m_pChannel->GetRequest();
        m_pChannel->AnswerText(200, "text/plain", CCmString(head.GetMethod()) + " " + head.GetRequestURI() + "\n" + m_strBody);
        delete this;
    }
    void OnDisconnect(CmResult, ICmTransport*) override { delete this; }

private:
    CCmRefPtrT<ICmChannelHttpServer> m_pChannel;
    CCmString m_strBody;
};

class Server : public ICmChannelServerAcceptorSink {
public:
    explicit Server(int aRequests) : m_nLeft(aRequests) {}
    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor* aAcceptor) override {
        aChannel->ReceiveRequest(new Request(aChannel));
        if (--m_nLeft == 0)
            aAcceptor->StopListen(CM_OK);  // requests that have begun are finished first
    }
    void OnStopped(ICmChannelServerAcceptor*) override {
        CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_MAIN)->StopEventLoop();
    }

private:
    int m_nLeft;
};

int main(int argc, char** argv) {
    CCmThreadManager* pThreads = CCmThreadManager::Instance();
    Server server(argc > 2 ? std::atoi(argv[2]) : 1);
    CCmRefPtrT<ICmChannelServerAcceptor> pAcceptor;
    CCmInetAddr addr("127.0.0.1", static_cast<WORD>(argc > 1 ? std::atoi(argv[1]) : 0));
    if (pThreads->InitMainThread(argc, argv) != CM_OK ||
        CCmChannelManager::Instance()->CreateHttpAcceptor(pAcceptor.ParaOut()) != CM_OK)
        return 1;
    if (pAcceptor->StartListen(&server, addr) != CM_OK || pAcceptor->GetListenAddr(addr) != CM_OK) {
        CCmFailure failure;
        pAcceptor->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
        std::fprintf(stderr, "cannot %s\n", failure.ToString().c_str());
        return 1;
    }
    std::printf("listening on %s\n", cm_address_text(addr).c_str());
    std::fflush(stdout);
    pThreads->GetThreadReactor(CCmThreadManager::TT_MAIN)->RunEventLoop();
    CCmConnectionManager::Instance()->Drain(nullptr);
    pAcceptor.Reset();
    pThreads->StopAllThreads(nullptr);
    pThreads->JoinAllThreads();
    CCmConnectionManager::CleanupInstance();
    pThreads->GetThread(CCmThreadManager::TT_MAIN)->Destory(CM_OK);
    return 0;
}
