// HTTP server on this library, in its network thread: 200 and a few bytes for every GET of "/". With a certificate it speaks
// https. Ends in order on SIGTERM.
#include <algorithm>

#include "benchmarks/support/talvo_server.h"
#include "benchmarks/tls/server_arguments.h"

namespace {

class CHelloServer : public ICmChannelServerAcceptorSink {
public:
    // aContext: null for http.
    CmResult Open(uint16_t aPort, CCmRefPtrT<CCmSslContext> aContext) {
        CmResult rv = CCmChannelManager::Instance()->CreateHttpAcceptor(m_pAcceptor.ParaOut());
        if (rv == CM_OK)
            rv = m_pAcceptor->SetOption(CM_OPT_CHANNEL_SERVER_SSL_CONTEXT, &aContext);
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
    CCmRefPtrT<CCmSslContext> pContext;
    if (argc > 2) {
        const bench::CServerArguments arguments(argc, argv);
        pContext = bench::MakeServerContext(arguments.m_pChain, arguments.m_pKey);
    }
    CHelloServer server;
    return bench::RunNetworkServer(std::min(argc, 2), argv, server,
                                   [&](uint16_t aPort) { return server.Open(aPort, pContext); });
}
