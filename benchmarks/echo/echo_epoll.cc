// Echo server on the bare system: the floor, which no library can undercut by much. Level-triggered, so that a message costs
// only a wait, a read and a write: bytes that one read leaves are reported again.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

#include "benchmarks/support/system.h"

namespace {

struct CConnection {
    int m_Fd = -1;
    std::string m_strRest;  // read and not yet taken by the peer; reading is off meanwhile
};

class CServer {
public:
    explicit CServer(uint16_t aPort) : m_Epoll(epoll_create1(EPOLL_CLOEXEC)) {
        m_Listener.m_Fd = bench::ListenLoopback(aPort);
        Watch(EPOLL_CTL_ADD, m_Listener, EPOLLIN);
    }

    [[noreturn]] void Run() {
        std::array<epoll_event, 256> events;
        for (;;) {
            const int nReady = epoll_wait(m_Epoll, events.data(), static_cast<int>(events.size()), -1);
            for (int n = 0; n < nReady; ++n)
                Dispatch(*static_cast<CConnection*>(events[static_cast<size_t>(n)].data.ptr));
        }
    }

private:
    void Watch(int aOperation, CConnection& aConnection, uint32_t aEvents) {
        epoll_event event{};
        event.events = aEvents;
        event.data.ptr = &aConnection;
        if (epoll_ctl(m_Epoll, aOperation, aConnection.m_Fd, &event) == -1)
            bench::Fail("epoll_ctl");
    }

    void Dispatch(CConnection& aConnection) {
        if (&aConnection == &m_Listener)
            Accept();
        else if (aConnection.m_strRest.empty())
            Echo(aConnection);
        else
            SendRest(aConnection);
    }

    void Accept() {
        for (int fd; (fd = accept4(m_Listener.m_Fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) != -1;) {
            bench::SetNoDelay(fd);
            Watch(EPOLL_CTL_ADD, *new CConnection{fd, {}}, EPOLLIN);
        }
    }

    void Echo(CConnection& aConnection) {
        const ssize_t nRead = recv(aConnection.m_Fd, m_Buffer.data(), m_Buffer.size(), 0);
        if (nRead <= 0)
            return CloseUnlessBlocked(aConnection, nRead);
        const ssize_t nSent = send(aConnection.m_Fd, m_Buffer.data(), static_cast<size_t>(nRead), MSG_NOSIGNAL);
        if (nSent == nRead)
            return;
        if (nSent == -1 && errno != EAGAIN)
            return Close(aConnection);
        const ssize_t nTaken = std::max<ssize_t>(nSent, 0);
        aConnection.m_strRest.assign(m_Buffer.data() + nTaken, static_cast<size_t>(nRead - nTaken));
        Watch(EPOLL_CTL_MOD, aConnection, EPOLLOUT);
    }

    void SendRest(CConnection& aConnection) {
        const ssize_t nSent = send(aConnection.m_Fd, aConnection.m_strRest.data(), aConnection.m_strRest.size(), MSG_NOSIGNAL);
        if (nSent == -1)
            return CloseUnlessBlocked(aConnection, nSent);
        aConnection.m_strRest.erase(0, static_cast<size_t>(nSent));
        if (aConnection.m_strRest.empty())
            Watch(EPOLL_CTL_MOD, aConnection, EPOLLIN);
    }

    void CloseUnlessBlocked(CConnection& aConnection, ssize_t aResult) {
        if (aResult == 0 || errno != EAGAIN)
            Close(aConnection);
    }

    void Close(CConnection& aConnection) {
        close(aConnection.m_Fd);
        delete &aConnection;
    }

    int m_Epoll;
    CConnection m_Listener;
    std::array<char, 65536> m_Buffer;
};

}  // namespace

int main(int argc, char** argv) {
    bench::RaiseDescriptorLimit();
    static CServer s_Server(bench::PortArgument(argc, argv));
    bench::PrintReady();
    s_Server.Run();
}
