// Messages on the bare system, a 4-byte length before each: the floor. There is no network thread; the application's thread
// itself calls send and recv, for many messages at once if possible.
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "benchmarks/messages/work.h"
#include "benchmarks/support/system.h"

namespace {

constexpr size_t BATCH = 262144;  // bytes gathered for one send, and read by one recv

class CEnd {
public:
    explicit CEnd(const bench::CMessageWork& aWork)
        : m_nSize(aWork.m_nSize), m_Fd(aWork.IsListener() ? Accept(aWork) : Connect(aWork)) {
        bench::SetNoDelay(m_Fd);
        epoll_event event{};
        event.events = EPOLLIN;
        if (epoll_ctl(m_Epoll, EPOLL_CTL_ADD, m_Fd, &event) == -1)
            bench::Fail("epoll_ctl");
        m_Out.reserve(BATCH + m_nSize + sizeof(uint32_t));
        m_In.resize(BATCH + m_nSize + sizeof(uint32_t));
    }

    void Send(uint64_t aNumber) {
        const std::unique_ptr<char[]> pMessage(new char[m_nSize]);
        bench::FillMessage(pMessage.get(), m_nSize, aNumber);
        const uint32_t dwLength = htonl(static_cast<uint32_t>(m_nSize));
        const char* pLength = reinterpret_cast<const char*>(&dwLength);
        m_Out.insert(m_Out.end(), pLength, pLength + sizeof(dwLength));
        m_Out.insert(m_Out.end(), pMessage.get(), pMessage.get() + m_nSize);
        if (m_Out.size() >= BATCH)
            Flush();
    }

    bench::CArrived Receive() {
        uint32_t dwLength = 0;
        for (;;) {
            const size_t nHave = m_nInEnd - m_nInBegin;
            if (nHave >= sizeof(dwLength)) {
                std::memcpy(&dwLength, m_In.data() + m_nInBegin, sizeof(dwLength));
                dwLength = ntohl(dwLength);
                if (nHave - sizeof(dwLength) >= dwLength)
                    break;
            }
            Flush();
            Read();
        }
        m_nInBegin += sizeof(dwLength) + dwLength;
        return {m_In.data() + m_nInBegin - dwLength, dwLength};
    }

private:
    static int Accept(const bench::CMessageWork& aWork) {
        const int listener = aWork.m_strPath.empty() ? bench::ListenLoopback(aWork.m_wPort) : Open(aWork.m_strPath, bind);
        listen(listener, bench::BACKLOG);
        bench::PrintReady();
        pollfd entry{listener, POLLIN, 0};
        const int fd = poll(&entry, 1, -1) == 1 ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        if (fd == -1)
            bench::Fail("accept");
        close(listener);
        return fd;
    }

    static int Connect(const bench::CMessageWork& aWork) {
        if (!aWork.m_strPath.empty())
            return Open(aWork.m_strPath, connect);
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in addr = bench::LoopbackAddress(aWork.m_wPort);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == -1)
            bench::Fail("connect");
        return fd;
    }

    // aAttach is bind or connect.
    static int Open(const std::string& aPath, int (*aAttach)(int, const sockaddr*, socklen_t)) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        aPath.copy(addr.sun_path, sizeof(addr.sun_path) - 1);
        if (aAttach(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == -1)
            bench::Fail(aPath.c_str());
        return fd;
    }

    // Sending large messages from their own memory is no faster than through this buffer.
    void Flush() {
        for (size_t nSent = 0; nSent < m_Out.size();) {
            const ssize_t nNow = send(m_Fd, m_Out.data() + nSent, m_Out.size() - nSent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (nNow == -1 && (errno == ECONNRESET || errno == EPIPE))
                std::exit(0);  // the peer has all it needs
            if (nNow == -1 && errno != EAGAIN)
                bench::Fail("send");
            if (nNow == -1)
                Wait(EPOLLOUT);
            else
                nSent += static_cast<size_t>(nNow);
        }
        m_Out.clear();
    }

    // At this point the buffer contains only the start of the next message.
    void Read() {
        std::memmove(m_In.data(), m_In.data() + m_nInBegin, m_nInEnd - m_nInBegin);
        m_nInEnd -= std::exchange(m_nInBegin, 0);
        for (;;) {
            Wait(EPOLLIN);
            const ssize_t nRead = recv(m_Fd, m_In.data() + m_nInEnd, m_In.size() - m_nInEnd, MSG_DONTWAIT);
            if (nRead > 0) {
                m_nInEnd += static_cast<size_t>(nRead);
                return;
            }
            if (nRead == 0 || errno == ECONNRESET)
                std::exit(0);
            if (errno != EAGAIN)
                bench::Fail("recv");
        }
    }

    void Wait(uint32_t aEvents) {
        epoll_event event{};
        event.events = aEvents;
        if (m_dwWatched != aEvents && epoll_ctl(m_Epoll, EPOLL_CTL_MOD, m_Fd, &event) == -1)
            bench::Fail("epoll_ctl");
        m_dwWatched = aEvents;
        while (epoll_wait(m_Epoll, &event, 1, -1) == -1) {
            if (errno != EINTR)
                bench::Fail("epoll_wait");
        }
    }

    const size_t m_nSize;
    const int m_Fd;
    const int m_Epoll = epoll_create1(EPOLL_CLOEXEC);
    uint32_t m_dwWatched = EPOLLIN;
    std::vector<char> m_Out;
    std::vector<char> m_In;
    size_t m_nInBegin = 0;
    size_t m_nInEnd = 0;
};

}  // namespace

int main(int argc, char** argv) { return bench::RunMessageWork<CEnd>(argc, argv); }
