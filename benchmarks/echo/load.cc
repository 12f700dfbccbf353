// Loads an echo server on 127.0.0.1 and prints the results as JSON: "rate" (messages per second), "p50_us" to "p9999_us",
// "messages", "errors". With --pid also "cpu_ns", the cost of a message to that process, and "kib_per_connection", the growth
// of its resident memory until it had answered once on each connection. In the warm-up only errors count. With --handshakes a
// message is a connection to any server of TLS: connect, handshake, close.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "benchmarks/echo/load_client.h"
#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"
#include "benchmarks/tls/handshakes.h"

namespace {

constexpr const char* USAGE =
    "usage: bench_load --port PORT [--connections N] [--size BYTES] [--in-flight N] [--seconds S] [--messages N]\n"
    "                  [--warm-up S] [--reconnect] [--busy N] [--pid SERVER] [--tls] [--handshakes full|resumed]\n"
    "ends after --seconds (default 1) or --messages, whichever comes first\n";

constexpr std::pair<const char*, double> PERCENTILES[] = {
    {"p50_us", 0.5}, {"p90_us", 0.9}, {"p99_us", 0.99}, {"p999_us", 0.999}, {"p9999_us", 0.9999}};

enum EKind { TCP, TLS, FULL_HANDSHAKES, RESUMED_HANDSHAKES };

struct CArguments {
    CLoadSettings m_Load;
    EKind m_Kind = TCP;
    double m_dSeconds = 1;
    double m_dWarmUp = 0.2;
    uint64_t m_ullMessages = 0;
    pid_t m_Server = 0;
};

bool TakeHandshakes(CArguments& aArguments, std::string_view aText) {
    aArguments.m_Load.m_bReconnect = true;
    aArguments.m_Kind = aText == "full" ? FULL_HANDSHAKES : RESUMED_HANDSHAKES;
    return aText == "full" || aText == "resumed";
}

bool Take(CArguments& aArguments, int aOption, const char* aText) {
    const double dValue = aText ? std::atof(aText) : 1;
    switch (aOption) {
    case 'p':
        aArguments.m_Load.m_wPort = static_cast<uint16_t>(dValue);
        break;
    case 'c':
        aArguments.m_Load.m_Connections = static_cast<int>(dValue);
        break;
    case 's':
        aArguments.m_Load.m_nSize = static_cast<size_t>(dValue);
        break;
    case 'f':
        aArguments.m_Load.m_InFlight = static_cast<int>(dValue);
        break;
    case 'd':
        aArguments.m_dSeconds = dValue;
        break;
    case 'm':
        aArguments.m_ullMessages = static_cast<uint64_t>(dValue);
        break;
    case 'w':
        aArguments.m_dWarmUp = dValue;
        return dValue >= 0;
    case 'r':
        aArguments.m_Load.m_bReconnect = true;
        break;
    case 'b':
        aArguments.m_Load.m_Busy = static_cast<int>(dValue);
        break;
    case 'i':
        aArguments.m_Server = static_cast<pid_t>(dValue);
        break;
    case 't':
        aArguments.m_Kind = TLS;
        break;
    case 'h':
        return TakeHandshakes(aArguments, aText);
    default:
        return false;
    }
    return dValue > 0;
}

CArguments Parse(int aArgc, char** aArgv) {
    static const option s_Options[] = {{"port", required_argument, nullptr, 'p'},
                                       {"connections", required_argument, nullptr, 'c'},
                                       {"size", required_argument, nullptr, 's'},
                                       {"in-flight", required_argument, nullptr, 'f'},
                                       {"seconds", required_argument, nullptr, 'd'},
                                       {"messages", required_argument, nullptr, 'm'},
                                       {"warm-up", required_argument, nullptr, 'w'},
                                       {"reconnect", no_argument, nullptr, 'r'},
                                       {"busy", required_argument, nullptr, 'b'},
                                       {"pid", required_argument, nullptr, 'i'},
                                       {"tls", no_argument, nullptr, 't'},
                                       {"handshakes", required_argument, nullptr, 'h'},
                                       {nullptr, 0, nullptr, 0}};
    CArguments arguments;
    bool bGood = true;
    for (int nOption; bGood && (nOption = getopt_long(aArgc, aArgv, "", s_Options, nullptr)) != -1;)
        bGood = Take(arguments, nOption, optarg);
    if (!bGood || optind != aArgc || arguments.m_Load.m_wPort == 0) {
        std::fputs(USAGE, stderr);
        std::exit(2);
    }
    return arguments;
}

// Makes the connections of one kind.
class CMaker {
public:
    explicit CMaker(const CArguments& aArguments) : m_Kind(aArguments.m_Kind) {
        if (m_Kind != TCP)
            m_pContext = MakeClientContext();
        if (m_Kind == RESUMED_HANDSHAKES)
            m_pTicket = TakeTicket(*m_pContext, aArguments.m_Load.m_wPort);
    }

    std::unique_ptr<ILoadConnection> Make(const CLoadSettings& aSettings, const CPattern& aPattern, CLoadCounters& aCounters,
                                          int aIndex) {
        if (m_Kind == FULL_HANDSHAKES || m_Kind == RESUMED_HANDSHAKES)
            return std::make_unique<CHandshakeConnection>(*m_pContext, m_pTicket.get(), aSettings.m_wPort, aCounters, aIndex);
        std::unique_ptr<CLoadStream> pStream;
        if (m_Kind == TCP)
            pStream = std::make_unique<CLoadStream>();
        else
            pStream = std::make_unique<CTlsClientStream>(*m_pContext);
        return std::make_unique<CLoadConnection>(aSettings, aPattern, aCounters, aIndex, std::move(pStream));
    }

private:
    const EKind m_Kind;
    std::unique_ptr<SSL_CTX, CFreeSsl> m_pContext;
    std::unique_ptr<SSL_SESSION, CFreeSsl> m_pTicket;
};

}  // namespace

int main(int argc, char** argv) {
    const CArguments arguments = Parse(argc, argv);
    bench::RaiseDescriptorLimit();
    CMaker maker(arguments);
    CLoadClient client(arguments.m_Load, [&](auto&&... aArguments) { return maker.Make(aArguments...); });
    const double dKibBefore = bench::ResidentKib(arguments.m_Server);
    client.Start();
    client.Settle();
    const double dKib = bench::ResidentKib(arguments.m_Server) - dKibBefore;
    client.Run(static_cast<int64_t>(arguments.m_dWarmUp * 1e9), 0);
    const int64_t llCpuBefore = bench::CpuNs(arguments.m_Server);
    const int64_t llNs = client.Run(static_cast<int64_t>(arguments.m_dSeconds * 1e9), arguments.m_ullMessages);
    const int64_t llCpu = bench::CpuNs(arguments.m_Server) - llCpuBefore;

    const CLoadCounters& counters = client.GetCounters();
    const double dMessages = static_cast<double>(counters.m_ullMessages);
    bench::CReport report;
    report.Add("rate", dMessages * 1e9 / static_cast<double>(llNs));
    for (const auto& [pName, dShare] : PERCENTILES)
        report.Add(pName, counters.m_Latencies.PercentileUs(dShare));
    report.Add("messages", dMessages);
    report.Add("errors", static_cast<double>(counters.m_ullErrors));
    if (arguments.m_Server != 0)
        report.Add("kib_per_connection", dKib / arguments.m_Load.m_Connections);
    if (arguments.m_Server != 0 && counters.m_ullMessages > 0)
        report.Add("cpu_ns", static_cast<double>(llCpu) / dMessages);
    report.Print();
    return counters.m_ullErrors == 0 && counters.m_ullMessages > 0 ? 0 : 1;
}
