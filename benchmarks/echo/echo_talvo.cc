// Echo server on this library, in its network thread: no proxy, no user thread. Takes any number of connections, applies
// back-pressure to a client that does not read, and ends in order on SIGTERM. The library's transports set TCP_NODELAY by
// themselves.
#include "benchmarks/support/talvo_server.h"

namespace {

class CEchoSession : public bench::CTalvoSession<CEchoSession> {
public:
    CEchoSession(bench::CTalvoServer<CEchoSession>& aServer, ICmTransport* aTransport) : CTalvoSession(aServer, aTransport) {
        DWORD dwReadSize = 64 * 1024;  // the read size of the servers on other libraries
        aTransport->SetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwReadSize);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override { Answer(aData); }
};

}  // namespace

int main(int argc, char** argv) {
    bench::CTalvoServer<CEchoSession> server;
    return bench::RunNetworkServer(argc, argv, server,
                                   [&](uint16_t aPort) { return server.Open(CCmConnectionManager::CTYPE_TCP, aPort); });
}
