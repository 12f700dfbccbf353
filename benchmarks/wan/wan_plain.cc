// A stream between two plain blocking sockets.
//
//   bench_wan_plain recv PORT BYTES         listens, accepts one connection, checks every byte, closes
//   bench_wan_plain send ADDRESS PORT BYTES connects, sends, waits for the close; prints "connect_ms"
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "benchmarks/support/report.h"
#include "benchmarks/support/system.h"
#include "benchmarks/wan/pattern.h"

namespace {

sockaddr_in Address(const char* aAddress, const char* aPort) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(std::atoi(aPort)));
    inet_pton(AF_INET, aAddress, &addr.sin_addr);
    return addr;
}

void Receive(const char* aPort, uint64_t aBytes) {
    const int nListen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in addr = Address("0.0.0.0", aPort);
    if (bind(nListen, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 || listen(nListen, 1) != 0)
        bench::Fail("listen");
    bench::PrintReady();
    const int nFd = accept4(nListen, nullptr, nullptr, SOCK_CLOEXEC);
    static char s_Buffer[bench::CPattern::LONGEST];
    bench::CPattern pattern;
    while (pattern.GetDone() < aBytes) {
        const ssize_t nLength = recv(nFd, s_Buffer, sizeof s_Buffer, 0);
        if (nLength <= 0)
            bench::Fail("recv");
        pattern.Check(s_Buffer, static_cast<size_t>(nLength));
    }
    close(nFd);
}

void Send(const char* aAddress, const char* aPort, uint64_t aBytes) {
    const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in addr = Address(aAddress, aPort);
    const int64_t llStart = bench::NowNs();
    if (connect(nFd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0)
        bench::Fail("connect");
    bench::CReport report;
    report.Add("connect_ms", static_cast<double>(bench::NowNs() - llStart) / 1e6);
    bench::CPattern pattern;
    while (pattern.GetDone() < aBytes) {
        const size_t stLength = static_cast<size_t>(std::min<uint64_t>(aBytes - pattern.GetDone(), bench::CPattern::LONGEST));
        const ssize_t nLength = send(nFd, pattern.Next(), stLength, MSG_NOSIGNAL);
        if (nLength <= 0)
            bench::Fail("send");
        pattern.Advance(static_cast<size_t>(nLength));
    }
    char cNothing;
    if (recv(nFd, &cNothing, 1, 0) != 0)
        bench::Fail("the end");
    report.Print();
    close(nFd);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string strRole = argc > 1 ? argv[1] : "";
    if (strRole == "recv" && argc == 4) {
        Receive(argv[2], std::strtoull(argv[3], nullptr, 10));
    } else if (strRole == "send" && argc == 5) {
        Send(argv[2], argv[3], std::strtoull(argv[4], nullptr, 10));
    } else {
        std::fputs("usage: bench_wan_plain recv PORT BYTES | send ADDRESS PORT BYTES\n", stderr);
        return 2;
    }
    return 0;
}
