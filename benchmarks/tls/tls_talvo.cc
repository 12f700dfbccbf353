// Echo server on this library's TLS, in its network thread: no proxy, no user thread. Ends in order on SIGTERM.
#include "benchmarks/support/talvo_server.h"
#include "benchmarks/tls/server_arguments.h"

namespace {

class CEchoSession : public bench::CTalvoSession<CEchoSession> {
public:
    using CTalvoSession::CTalvoSession;
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override { Answer(aData); }
};

}  // namespace

int main(int argc, char** argv) {
    const bench::CServerArguments arguments(argc, argv);
    const auto pContext = bench::MakeServerContext(arguments.m_pChain, arguments.m_pKey);
    bench::CTalvoServer<CEchoSession> server;
    return bench::RunNetworkServer(2, argv, server,
                                   [&](uint16_t aPort) { return server.Open(CM_TRANSPORT_TYPE_TLS, aPort, pContext); });
}
