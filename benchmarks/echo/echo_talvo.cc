// Echo server on this library, in its network thread: no proxy, no user thread. Takes any number of connections, holds back a
// client that does not read, and ends in order on SIGTERM. TCP_NODELAY is what the library's transports set by themselves.
#include "benchmarks/support/talvo_server.h"

namespace {

class CEchoSession : public bench::CTalvoSession<CEchoSession> {
public:
    CEchoSession(bench::CTalvoServer<CEchoSession>& aServer, ICmTransport* aTransport) : CTalvoSession(aServer, aTransport) {
        DWORD dwReadSize = 64 * 1024;  // what the servers on other libraries read at once
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
