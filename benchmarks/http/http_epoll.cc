// The floor of the HTTP servers: answers on the bare system, and parses nothing. It expects a request in one piece and one
// request in flight, as wrk sends them.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string_view>

#include "benchmarks/support/system.h"

namespace {

// With the headers that the library's server sends.
constexpr std::string_view ANSWER =
    "HTTP/1.1 200 OK\r\nDate: Mon, 23 Nov 2026 22:00:00 GMT\r\nContent-Type: text/plain\r\nContent-Length: 13\r\n\r\n"
    "Hello, World!";

void Watch(int aEpoll, int aFd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = aFd;
    if (epoll_ctl(aEpoll, EPOLL_CTL_ADD, aFd, &event) == -1)
        bench::Fail("epoll_ctl");
}

void Accept(int aEpoll, int aListener) {
    for (int fd; (fd = accept4(aListener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) != -1;) {
        bench::SetNoDelay(fd);
        Watch(aEpoll, fd);
    }
}

void Answer(int aFd) {
    std::array<char, 16384> buffer;
    const ssize_t nRead = recv(aFd, buffer.data(), buffer.size(), 0);
    if (nRead == -1 && errno == EAGAIN)
        return;
    const std::string_view strRead(buffer.data(), nRead > 0 ? static_cast<size_t>(nRead) : 0);
    if (strRead.ends_with("\r\n\r\n") && send(aFd, ANSWER.data(), ANSWER.size(), MSG_NOSIGNAL) == ssize_t{ANSWER.size()})
        return;
    close(aFd);
}

}  // namespace

int main(int argc, char** argv) {
    bench::RaiseDescriptorLimit();
    const int listener = bench::ListenLoopback(bench::PortArgument(argc, argv));
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    Watch(epoll, listener);
    bench::PrintReady();
    std::array<epoll_event, 256> events;
    for (;;) {
        const int nReady = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
        for (int n = 0; n < nReady; ++n) {
            const int fd = events[static_cast<size_t>(n)].data.fd;
            fd == listener ? Accept(epoll, listener) : Answer(fd);
        }
    }
}
