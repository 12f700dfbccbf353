// Many connections of one kind between two processes on this library, each with one thread that is its network thread.
//
//   bench_growth_talvo server PORT --type TYPE
//   bench_growth_talvo load --port PORT --type TYPE --connections N [--busy N] [--seconds S] [--warm-up S] --pid SERVER
//
// TYPE is raw, length, package, or keepalive: package with keep-alives and, in the server, a timer of every connection that
// fires each second. The server sends every message back. The load opens all connections, sends a message of 64 bytes on each,
// and then keeps one in flight on each of the first --busy (100). Prints "rate", "p50_us", "p99_us", "cpu_ns" (the server's
// cost of a message) and "kib_per_connection" (the growth of the server's memory until it had answered on each).
#include <getopt.h>

#include <cstring>
#include <string>

#include "benchmarks/growth/growth_load.h"
#include "benchmarks/support/system.h"
#include "benchmarks/support/talvo_messages.h"
#include "benchmarks/support/talvo_server.h"

namespace {

class CGrowthSession : public bench::CTalvoSession<CGrowthSession> {
public:
    using CTalvoSession::CTalvoSession;
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override { Answer(aData); }
};

// The same with a timer of its own, as many servers have one.
class CTimedSession : public bench::CTalvoSession<CTimedSession>, public ICmTimerHandler {
public:
    using CTalvoSession::CTalvoSession;
    ~CTimedSession() override { Timers().CancelTimer(this); }

    CmResult Open(CPlace aPlace) {
        Timers().ScheduleTimer(this, nullptr, CCmTimeValue(1, 0), 0);
        return CTalvoSession::Open(aPlace);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override { Answer(aData); }
    void OnTimeout(const CCmTimeValue&, void*) override {}

private:
    static ICmTimerQueue& Timers() { return *CCmThreadManager::Instance()->GetThreadTimerQueue(CCmThreadManager::TT_NETWORK); }
};

DWORD TypeOf(const std::string& aName) {
    if (aName == "raw")
        return CCmConnectionManager::CTYPE_TCP;
    if (aName == "keepalive")
        return bench::MessageType("package") | CCmConnectionManager::CTYPE_PDU_KEEPALIVE;
    return bench::MessageType(aName);
}

template <class Session>
void RunServer(DWORD aType, uint16_t aPort, bench::CTermination& aTermination) {
    bench::CTalvoServer<Session> server;
    bench::Expect(server.Open(aType, aPort));
    bench::PrintReady();
    bench::RunMainLoop(aTermination);
    server.Close();
}

void Take(CGrowthWork& aWork, int aOption) {
    switch (aOption) {
    case 'p':
        aWork.m_wPort = static_cast<uint16_t>(std::atoi(optarg));
        break;
    case 't':
        aWork.m_dwType = TypeOf(optarg);
        break;
    case 'c':
        aWork.m_nConnections = static_cast<size_t>(std::atoi(optarg));
        break;
    case 'b':
        aWork.m_nBusy = static_cast<size_t>(std::atoi(optarg));
        break;
    case 'd':
        aWork.m_dSeconds = std::atof(optarg);
        break;
    case 'w':
        aWork.m_dWarmUp = std::atof(optarg);
        break;
    case 'i':
        aWork.m_Server = static_cast<pid_t>(std::atoi(optarg));
        break;
    default:
        std::exit(2);
    }
}

}  // namespace

int main(int argc, char** argv) {
    static const option s_Options[] = {
        {"port", required_argument, nullptr, 'p'},        {"type", required_argument, nullptr, 't'},
        {"connections", required_argument, nullptr, 'c'}, {"busy", required_argument, nullptr, 'b'},
        {"seconds", required_argument, nullptr, 'd'},     {"warm-up", required_argument, nullptr, 'w'},
        {"pid", required_argument, nullptr, 'i'},         {nullptr, 0, nullptr, 0}};
    CGrowthWork work;
    for (int nOption; (nOption = getopt_long(argc, argv, "", s_Options, nullptr)) != -1;)
        Take(work, nOption);
    const bool bServer = argc - optind == 2 && std::strcmp(argv[optind], "server") == 0;
    if (work.m_dwType == 0 || (!bServer && (argc - optind != 1 || work.m_nConnections == 0))) {
        std::fputs("usage: see the head of growth_talvo.cc\n", stderr);
        return 2;
    }
    bench::RaiseDescriptorLimit();
    bench::CTermination termination;
    CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN);
    bench::CTalvoProcess process(argc, argv);
    if (!CCmConnectionManager::Instance())
        return 1;
    const uint16_t wPort = bServer ? static_cast<uint16_t>(std::atoi(argv[optind + 1])) : work.m_wPort;
    if (!bServer)
        CGrowthLoad(work).Run();
    else if (work.m_dwType & CCmConnectionManager::CTYPE_PDU_KEEPALIVE)
        RunServer<CTimedSession>(work.m_dwType, wPort, termination);
    else
        RunServer<CGrowthSession>(work.m_dwType, wPort, termination);
    return 0;
}
