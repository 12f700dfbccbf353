// Loads a datagram echo server on 127.0.0.1 from several sockets and prints the results as JSON: "rate" (messages per second),
// "cpu_ns" (the cost of a message to the process --pid), "lost". Every socket keeps a number of datagrams in flight. A datagram
// that does not come back within a tenth of a second counts as lost and is sent again.
#include <getopt.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"

namespace {

constexpr int BATCH = 32;
constexpr int64_t LOST_AFTER_NS = 100000000;

struct CArguments {
    uint16_t m_wPort = 0;
    int m_Peers = 1;
    size_t m_nSize = 64;
    int m_InFlight = 1;
    double m_dSeconds = 1;
    double m_dWarmUp = 0.2;
    pid_t m_Server = 0;
};

CArguments Parse(int aArgc, char** aArgv) {
    static const option s_Options[] = {
        {"port", required_argument, nullptr, 'p'},    {"peers", required_argument, nullptr, 'c'},
        {"size", required_argument, nullptr, 's'},    {"in-flight", required_argument, nullptr, 'f'},
        {"seconds", required_argument, nullptr, 'd'}, {"warm-up", required_argument, nullptr, 'w'},
        {"pid", required_argument, nullptr, 'i'},     {nullptr, 0, nullptr, 0}};
    CArguments arguments;
    for (int nOption; (nOption = getopt_long(aArgc, aArgv, "", s_Options, nullptr)) != -1;) {
        const double dValue = optarg ? std::atof(optarg) : 0;
        switch (nOption) {
        case 'p':
            arguments.m_wPort = static_cast<uint16_t>(dValue);
            break;
        case 'c':
            arguments.m_Peers = static_cast<int>(dValue);
            break;
        case 's':
            arguments.m_nSize = static_cast<size_t>(dValue);
            break;
        case 'f':
            arguments.m_InFlight = static_cast<int>(dValue);
            break;
        case 'd':
            arguments.m_dSeconds = dValue;
            break;
        case 'w':
            arguments.m_dWarmUp = dValue;
            break;
        case 'i':
            arguments.m_Server = static_cast<pid_t>(dValue);
            break;
        }
    }
    if (arguments.m_wPort == 0 || arguments.m_Peers < 1 || arguments.m_InFlight < 1 || arguments.m_InFlight > BATCH) {
        std::fputs(
            "usage: bench_udp_load --port PORT [--peers N] [--size BYTES] [--in-flight 1..32] [--seconds S] [--warm-up S] "
            "[--pid SERVER]\n",
            stderr);
        std::exit(2);
    }
    return arguments;
}

class CLoad {
public:
    explicit CLoad(const CArguments& aArguments) : m_Arguments(aArguments), m_strMessage(aArguments.m_nSize, 'x') {
        m_fdEpoll = epoll_create1(EPOLL_CLOEXEC);
        for (size_t i = 0; i < BATCH; ++i) {
            m_In[i] = {m_Buffers[i].data(), m_Buffers[i].size()};
            m_Out[i] = {m_strMessage.data(), m_strMessage.size()};
            m_Received[i].msg_hdr = {nullptr, 0, &m_In[i], 1, nullptr, 0, 0};
            m_Sent[i].msg_hdr = {nullptr, 0, &m_Out[i], 1, nullptr, 0, 0};
        }
        const sockaddr_in addr = bench::LoopbackAddress(aArguments.m_wPort);
        for (int i = 0; i < aArguments.m_Peers; ++i) {
            const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u32 = static_cast<uint32_t>(i);
            if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 ||
                epoll_ctl(m_fdEpoll, EPOLL_CTL_ADD, fd, &event) != 0)
                bench::Fail("connect");
            m_Peers.push_back({fd, 0, 0});
        }
    }

    // Returns the elapsed nanoseconds. The counters start at 0.
    int64_t Run(int64_t aNs) {
        m_ullMessages = m_ullLost = 0;
        const int64_t llStart = bench::NowNs();
        int64_t llNow = llStart;
        for (CPeer& peer : m_Peers)
            Fill(peer, llNow);
        while (llNow - llStart < aNs) {
            epoll_event events[256];
            const int nReady = epoll_wait(m_fdEpoll, events, 256, 10);
            llNow = bench::NowNs();
            for (int i = 0; i < nReady; ++i)
                Turn(m_Peers[events[i].data.u32], llNow);
            if (nReady == 0)
                Resend(llNow);
        }
        return llNow - llStart;
    }
    uint64_t GetMessages() const { return m_ullMessages; }
    uint64_t GetLost() const { return m_ullLost; }

private:
    struct CPeer {
        int m_Fd;
        int m_UnderWay;
        int64_t m_llHeard;
    };

    void Turn(CPeer& aPeer, int64_t aNow) {
        const int nReceived = recvmmsg(aPeer.m_Fd, m_Received.data(), BATCH, MSG_DONTWAIT, nullptr);
        if (nReceived <= 0)
            return;
        m_ullMessages += static_cast<uint64_t>(nReceived);
        aPeer.m_UnderWay -= nReceived;
        aPeer.m_llHeard = aNow;
        Fill(aPeer, aNow);
    }
    void Fill(CPeer& aPeer, int64_t aNow) {
        const int nMissing = m_Arguments.m_InFlight - aPeer.m_UnderWay;
        if (nMissing <= 0)
            return;
        if (aPeer.m_llHeard == 0)
            aPeer.m_llHeard = aNow;
        const int nSent = sendmmsg(aPeer.m_Fd, m_Sent.data(), static_cast<unsigned>(nMissing), MSG_DONTWAIT);
        aPeer.m_UnderWay += nSent > 0 ? nSent : 0;
    }
    void Resend(int64_t aNow) {
        for (CPeer& peer : m_Peers) {
            if (aNow - peer.m_llHeard < LOST_AFTER_NS)
                continue;
            m_ullLost += static_cast<uint64_t>(peer.m_UnderWay);
            peer.m_UnderWay = 0;
            peer.m_llHeard = aNow;
            Fill(peer, aNow);
        }
    }

    const CArguments m_Arguments;
    std::string m_strMessage;
    int m_fdEpoll;
    std::vector<CPeer> m_Peers;
    std::array<std::array<char, 2048>, BATCH> m_Buffers;
    std::array<iovec, BATCH> m_In;
    std::array<iovec, BATCH> m_Out;
    std::array<mmsghdr, BATCH> m_Received{};
    std::array<mmsghdr, BATCH> m_Sent{};
    uint64_t m_ullMessages = 0;
    uint64_t m_ullLost = 0;
};

int64_t CpuNs(pid_t aPid) {
    clockid_t clock;
    timespec used{};
    if (aPid != 0 && (clock_getcpuclockid(aPid, &clock) != 0 || clock_gettime(clock, &used) != 0))
        bench::Fail("the clock of --pid");
    return int64_t{used.tv_sec} * 1000000000 + used.tv_nsec;
}

}  // namespace

int main(int argc, char** argv) {
    const CArguments arguments = Parse(argc, argv);
    CLoad load(arguments);
    load.Run(static_cast<int64_t>(arguments.m_dWarmUp * 1e9));
    const int64_t llCpuBefore = CpuNs(arguments.m_Server);
    const int64_t llNs = load.Run(static_cast<int64_t>(arguments.m_dSeconds * 1e9));
    const double dMessages = static_cast<double>(load.GetMessages());
    bench::CReport report;
    report.Add("rate", dMessages * 1e9 / static_cast<double>(llNs));
    report.Add("lost", static_cast<double>(load.GetLost()));
    report.Add("cpu_ns", static_cast<double>(CpuNs(arguments.m_Server) - llCpuBefore) / dMessages);
    report.Print();
    return load.GetMessages() > 0 ? 0 : 1;
}
