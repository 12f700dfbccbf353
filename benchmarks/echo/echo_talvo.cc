// Echo server on this library, in its network thread: no proxy, no user thread. Takes any number of connections, holds back a
// client that does not read, and ends in order on SIGTERM. TCP_NODELAY is what the library's transports set by themselves.
#include <cstdio>

#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_process.h"
#include "benchmarks/support/talvo_server.h"

namespace {

class CEchoSession : public bench::CTalvoSession<CEchoSession> {
public:
    using CTalvoSession::CTalvoSession;
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override { Answer(aData); }
};

}  // namespace

int main(int argc, char** argv) {
    const uint16_t wPort = bench::PortArgument(argc, argv);
    bench::RaiseDescriptorLimit();
    bench::CTermination termination;
    bench::CTalvoProcess process(argc, argv);
    if (!CCmConnectionManager::Instance())
        return 1;
    ICmEventQueue& network = *CCmThreadManager::Instance()->GetThreadEventQueue(CCmThreadManager::TT_NETWORK);

    bench::CTalvoServer<CEchoSession> server;
    const CmResult rv = bench::Call(network, [&] { return server.Open(CCmConnectionManager::CTYPE_TCP, wPort); });
    if (rv == CM_OK) {
        bench::PrintReady();
        termination.Wait();
    } else {
        std::fprintf(stderr, "cannot listen on port %u: %s\n", unsigned{wPort}, cm_result_name(rv));
    }
    bench::Call(network, [&] { server.Close(); });
    return rv == CM_OK ? 0 : 1;
}
