// HTTP server on this library, in its network thread: 200 and a few bytes for every GET of "/". Ends in order on SIGTERM.
#include "benchmarks/support/talvo_server.h"

namespace {

class CHelloServer : public ICmChannelServerAcceptorSink {
public:
    CmResult Open(uint16_t aPort) {
        CmResult rv = CCmChannelManager::Instance()->CreateHttpAcceptor(m_pAcceptor.ParaOut());
        if (rv == CM_OK)
            rv = m_pAcceptor->StartListen(this, CCmInetAddr("127.0.0.1", aPort));
        return rv;
    }

    void Close() { m_pAcceptor.Reset(); }

    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        if (aChannel->GetRequest().GetRequestURI() == "/")
            aChannel->AnswerText(200, m_strType, m_strBody);
        else
            aChannel->AnswerText(404, m_strType, "Not Found\n");
    }

private:
    const CCmString m_strType = "text/plain";
    const CCmString m_strBody = "Hello, World!";
    CCmRefPtrT<ICmChannelServerAcceptor> m_pAcceptor;
};

}  // namespace

int main(int argc, char** argv) {
    CHelloServer server;
    return bench::RunNetworkServer(argc, argv, server, [&](uint16_t aPort) { return server.Open(aPort); });
}
