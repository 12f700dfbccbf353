// Creates two network namespaces and a link between them: delays, limits and drops IPv4 packets between 10.0.0.1 in the first
// and 10.0.0.2 in the second.
//
//   bench_wan_link RTT_MS MBIT_PER_SECOND QUEUE_KIB LOSS_PERCENT
//
// Prints "ready NS1 NS2", two descriptors of this process for nsenter(1). Ends when its stdin ends, and prints one JSON object
// about the direction with more traffic: "full_ns" from the first full packet to the last, "packets", "dropped", "lost", and
// "cpu_ns" of this process. The namespaces end with it and the processes in them.
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"
#include "benchmarks/wan/shaped_pipe.h"
#include "benchmarks/wan/tun_device.h"

namespace {

using bench::CShapedPipe;

constexpr int64_t TICK_NS = 100000;  // packets that leave within one tick leave together
constexpr int PACKETS_PER_TURN = 64;

class CLink {
public:
    explicit CLink(const bench::CLinkSettings& aSettings)
        : m_Directions{{{m_First.GetFd(), m_Second.GetFd(), CShapedPipe(aSettings)},
                        {m_Second.GetFd(), m_First.GetFd(), CShapedPipe(aSettings)}}} {
        Watch(STDIN_FILENO);
        Watch(m_nTimer);
        for (const CDirection& direction : m_Directions)
            Watch(direction.m_nFrom);
    }

    void PrintReady() const {
        std::printf("ready %d %d\n", m_First.GetNamespaceFd(), m_Second.GetNamespaceFd());
        std::fflush(stdout);
    }

    void Run() {
        for (;;) {
            std::array<epoll_event, 4> events{};
            const int nEvents = epoll_wait(m_nEpoll, events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < nEvents; ++i) {
                if (events[static_cast<size_t>(i)].data.fd == STDIN_FILENO)
                    return;
            }
            for (CDirection& direction : m_Directions)
                Forward(direction);
            ArmTimer();
        }
    }

    void Print() const {
        bench::CPipeCounters counters = m_Directions[0].m_Pipe.GetCounters();
        const bench::CPipeCounters other = m_Directions[1].m_Pipe.GetCounters();
        if (other.m_llFullNs > counters.m_llFullNs)
            counters = other;
        bench::CReport report;
        report.Add("full_ns", static_cast<double>(counters.m_llFullNs));
        report.Add("packets", static_cast<double>(counters.m_ullPackets));
        report.Add("dropped", static_cast<double>(counters.m_ullDropped));
        report.Add("lost", static_cast<double>(counters.m_ullLost));
        report.Add("cpu_ns", static_cast<double>(bench::CpuNs(0)));
        report.Print();
    }

private:
    struct CDirection {
        int m_nFrom;
        int m_nTo;
        CShapedPipe m_Pipe;
    };

    void Watch(int aFd) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = aFd;
        if (epoll_ctl(m_nEpoll, EPOLL_CTL_ADD, aFd, &event) != 0)
            bench::Fail("epoll_ctl");
    }

    static void Forward(CDirection& aDirection) {
        std::array<char, bench::CTunDevice::MTU> packet{};
        for (int i = 0; i < PACKETS_PER_TURN; ++i) {
            const ssize_t nLength = read(aDirection.m_nFrom, packet.data(), packet.size());
            if (nLength <= 0)
                break;
            aDirection.m_Pipe.Put(bench::NowNs(), packet.data(), static_cast<size_t>(nLength));
        }
        while (aDirection.m_Pipe.NextExit() != CShapedPipe::NEVER && aDirection.m_Pipe.NextExit() <= bench::NowNs()) {
            const std::string strPacket = aDirection.m_Pipe.Take();
            if (write(aDirection.m_nTo, strPacket.data(), strPacket.size()) < 0)
                bench::Fail("write to the TUN device");
        }
    }

    void ArmTimer() {
        uint64_t ullExpired = 0;
        static_cast<void>(!read(m_nTimer, &ullExpired, sizeof ullExpired));
        int64_t llNext = CShapedPipe::NEVER;
        for (const CDirection& direction : m_Directions) {
            const int64_t llExit = direction.m_Pipe.NextExit();
            if (llExit != CShapedPipe::NEVER && (llNext == CShapedPipe::NEVER || llExit < llNext))
                llNext = llExit;
        }
        itimerspec time{};
        if (llNext != CShapedPipe::NEVER) {
            const int64_t llWait = std::max(llNext - bench::NowNs(), TICK_NS);
            time.it_value.tv_sec = static_cast<time_t>(llWait / 1000000000);
            time.it_value.tv_nsec = static_cast<long>(llWait % 1000000000);
        }
        timerfd_settime(m_nTimer, 0, &time, nullptr);
    }

    const int m_nEpoll = epoll_create1(EPOLL_CLOEXEC);
    const int m_nTimer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    bench::CTunDevice m_First{"10.0.0.1", "10.0.0.2"};
    bench::CTunDevice m_Second{"10.0.0.2", "10.0.0.1"};
    std::array<CDirection, 2> m_Directions;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fputs("usage: bench_wan_link RTT_MS MBIT_PER_SECOND QUEUE_KIB LOSS_PERCENT\n", stderr);
        return 2;
    }
    bench::CLinkSettings settings;
    settings.m_llDelayNs = static_cast<int64_t>(std::atof(argv[1]) * 1e6 / 2);
    settings.m_dNsPerByte = 8e3 / std::atof(argv[2]);
    settings.m_dQueueBytes = std::atof(argv[3]) * 1024;
    settings.m_dLoss = std::atof(argv[4]) / 100;
    CLink link(settings);
    link.PrintReady();
    link.Run();
    link.Print();
    return 0;
}
