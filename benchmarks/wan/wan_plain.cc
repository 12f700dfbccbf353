// A stream between two plain blocking sockets.
//
//   bench_wan_plain recv PORT BYTES         listens, accepts one connection, checks every byte, closes
//   bench_wan_plain send ADDRESS PORT BYTES connects, sends, waits for the close; prints "connect_ms"
//   bench_wan_plain relay PORT              is an HTTP proxy for one CONNECT on 127.0.0.1
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

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

int AcceptOne(const char* aAddress, const char* aPort) {
    const int nListen = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in addr = Address(aAddress, aPort);
    if (bind(nListen, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 || listen(nListen, 1) != 0)
        bench::Fail("listen");
    bench::PrintReady();
    return accept4(nListen, nullptr, nullptr, SOCK_CLOEXEC);
}

int Connect(const char* aAddress, const char* aPort) {
    const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in addr = Address(aAddress, aPort);
    if (connect(nFd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0)
        bench::Fail("connect");
    return nFd;
}

void SendAll(int aFd, const char* aBytes, size_t aLength) {
    for (size_t stSent = 0; stSent < aLength;) {
        const ssize_t nLength = send(aFd, aBytes + stSent, aLength - stSent, MSG_NOSIGNAL);
        if (nLength <= 0)
            bench::Fail("send");
        stSent += static_cast<size_t>(nLength);
    }
}

void Receive(const char* aPort, uint64_t aBytes) {
    const int nFd = AcceptOne("0.0.0.0", aPort);
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
    const int64_t llStart = bench::NowNs();
    const int nFd = Connect(aAddress, aPort);
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

// Until aFrom ends, which then ends aTo's direction.
void Carry(int aFrom, int aTo) {
    std::array<char, bench::CPattern::LONGEST> buffer;
    for (ssize_t nLength; (nLength = recv(aFrom, buffer.data(), buffer.size(), 0)) > 0;)
        SendAll(aTo, buffer.data(), static_cast<size_t>(nLength));
    shutdown(aTo, SHUT_WR);
}

// The client waits for the answer, so that no data follow the request at once.
void Relay(const char* aPort) {
    const int nClient = AcceptOne("127.0.0.1", aPort);
    std::string strHead;
    for (char c; strHead.find("\r\n\r\n") == std::string::npos; strHead += c) {
        if (recv(nClient, &c, 1, 0) != 1)
            bench::Fail("the request");
    }
    char szAddress[16] = "", szPort[6] = "";
    if (std::sscanf(strHead.c_str(), "CONNECT %15[0-9.]:%5[0-9] ", szAddress, szPort) != 2)
        bench::Fail("the request line");
    const int nServer = Connect(szAddress, szPort);
    constexpr std::string_view ANSWER = "HTTP/1.1 200 OK\r\n\r\n";
    SendAll(nClient, ANSWER.data(), ANSWER.size());
    std::thread answers([=] { Carry(nServer, nClient); });
    Carry(nClient, nServer);
    answers.join();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string strRole = argc > 1 ? argv[1] : "";
    if (strRole == "recv" && argc == 4) {
        Receive(argv[2], std::strtoull(argv[3], nullptr, 10));
    } else if (strRole == "send" && argc == 5) {
        Send(argv[2], argv[3], std::strtoull(argv[4], nullptr, 10));
    } else if (strRole == "relay" && argc == 3) {
        Relay(argv[2]);
    } else {
        std::fputs("usage: bench_wan_plain recv PORT BYTES | send ADDRESS PORT BYTES | relay PORT\n", stderr);
        return 2;
    }
    return 0;
}
