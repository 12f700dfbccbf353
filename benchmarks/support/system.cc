#include "benchmarks/support/system.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace bench {

int64_t NowNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

void Fail(const char* aWhat) {
    std::fprintf(stderr, "%s failed: %s\n", aWhat, std::strerror(errno));
    std::exit(1);
}

uint16_t PortArgument(int aArgc, char** aArgv) {
    const long lPort = aArgc == 2 ? std::strtol(aArgv[1], nullptr, 10) : 0;
    if (lPort < 1 || lPort > 65535) {
        std::fprintf(stderr, "usage: %s PORT\n", aArgv[0]);
        std::exit(2);
    }
    return static_cast<uint16_t>(lPort);
}

void RaiseDescriptorLimit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == -1)
        Fail("getrlimit");
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) == -1)
        Fail("setrlimit");
}

void PinThisThread(int aCore) {
    // The cores of the first caller, which is not bound yet: threads inherit the core of the thread that starts them.
    static const cpu_set_t s_Allowed = [] {
        cpu_set_t allowed;
        CPU_ZERO(&allowed);
        sched_getaffinity(0, sizeof(allowed), &allowed);
        return allowed;
    }();
    int nLeft = aCore;
    for (size_t nCore = 0; nCore < CPU_SETSIZE; ++nCore) {
        if (!CPU_ISSET(nCore, &s_Allowed) || nLeft-- > 0)
            continue;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(nCore, &one);
        pthread_setaffinity_np(pthread_self(), sizeof(one), &one);
        return;
    }
}

int64_t CpuNs(pid_t aProcess) {
    clockid_t clock;
    timespec used{};
    if (clock_getcpuclockid(aProcess, &clock) != 0 || clock_gettime(clock, &used) != 0)
        Fail("the clock of a process");
    return int64_t{used.tv_sec} * 1000000000 + used.tv_nsec;
}

double ResidentKib(pid_t aProcess) {
    std::ifstream sums("/proc/" + (aProcess == 0 ? "self" : std::to_string(aProcess)) + "/smaps_rollup");
    double dKib = 0;
    for (std::string strWord; sums >> strWord;) {
        if (strWord == "Rss:" && sums >> dKib)
            return dKib;
    }
    Fail("the memory of a process");
}

sockaddr_in LoopbackAddress(uint16_t aPort) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(aPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

int ListenLoopback(uint16_t aPort) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int nOn = 1;
    const sockaddr_in addr = LoopbackAddress(aPort);
    if (fd == -1 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn)) == -1)
        Fail("socket");
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == -1)
        Fail("bind");
    if (listen(fd, BACKLOG) == -1)
        Fail("listen");
    return fd;
}

void SetNoDelay(int aFd) {
    const int nOn = 1;
    setsockopt(aFd, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn));
}

void PrintReady() {
    std::puts("ready");
    std::fflush(stdout);
}

}  // namespace bench
