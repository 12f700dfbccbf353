// One to many on the bare system: the floor. The producer writes one buffer of messages to all sockets, and the next one when
// all have taken it. Messages have no header: their size is known.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <vector>

#include "benchmarks/forward/work.h"
#include "benchmarks/support/system.h"

namespace {

constexpr size_t BATCH = 65536;  // bytes of one buffer, at least one message
constexpr int MOST_EVENTS = 256;
constexpr int POLL_MS = 100;

class CEpoll {
public:
    void Watch(int aFd, size_t aIndex, uint32_t aEvents, int aOperation) const {
        epoll_event event{};
        event.events = aEvents;
        event.data.u64 = aIndex;
        if (epoll_ctl(m_Fd, aOperation, aFd, &event) == -1)
            bench::Fail("epoll_ctl");
    }
    // Calls aHandle with the index of each ready descriptor.
    template <class Handle>
    void Wait(Handle aHandle) const {
        epoll_event events[MOST_EVENTS];
        for (int n = 0, nEvents = epoll_wait(m_Fd, events, MOST_EVENTS, POLL_MS); n < nEvents; ++n)
            aHandle(events[n].data.u64);
    }

private:
    const int m_Fd = epoll_create1(EPOLL_CLOEXEC);
};

class CProducer {
public:
    explicit CProducer(const bench::CForwardWork& aWork) : m_Work(aWork), m_Forwarding(aWork) {}

    int Run() {
        AcceptAll();
        m_Forwarding.Start();
        const size_t nBatch = m_Work.m_ullRate > 0 ? 1 : std::max<size_t>(BATCH / m_Work.m_nSize, 1);
        while (!m_Forwarding.IsDone()) {
            m_Forwarding.Sleep();
            m_Buffer.clear();
            for (size_t n = 0; n < nBatch && !m_Forwarding.IsDone(); ++n) {
                m_Buffer.resize(m_Buffer.size() + m_Work.m_nSize);
                m_Forwarding.Fill(m_Buffer.data() + m_Buffer.size() - m_Work.m_nSize);
            }
            SendToAll();
        }
        for (const int fd : m_Sockets) {
            char byte = 0;
            while (recv(fd, &byte, 1, 0) == -1 && errno == EAGAIN)
                usleep(1000);
        }
        m_Forwarding.Print();
        return 0;
    }

private:
    void AcceptAll() {
        const int listener = bench::ListenLoopback(m_Work.m_wPort);
        m_Epoll.Watch(listener, 0, EPOLLIN, EPOLL_CTL_ADD);
        bench::PrintReady();
        while (m_Sockets.size() < m_Work.m_nReceivers) {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd == -1) {
                m_Epoll.Wait([](size_t) {});
                continue;
            }
            bench::SetNoDelay(fd);
            m_Epoll.Watch(fd, m_Sockets.size(), 0, EPOLL_CTL_ADD);
            m_Sockets.push_back(fd);
        }
        close(listener);
    }
    void SendToAll() {
        m_Sent.assign(m_Sockets.size(), 0);
        m_nWaiting = 0;
        for (size_t n = 0; n < m_Sockets.size(); ++n)
            Send(n, false);
        while (m_nWaiting > 0)
            m_Epoll.Wait([this](size_t aIndex) { Send(aIndex, true); });
    }
    void Send(size_t aIndex, bool aWatched) {
        size_t& nSent = m_Sent[aIndex];
        const ssize_t nNow = send(m_Sockets[aIndex], m_Buffer.data() + nSent, m_Buffer.size() - nSent, MSG_NOSIGNAL);
        if (nNow == -1 && errno != EAGAIN)
            bench::Fail("send");
        nSent += static_cast<size_t>(std::max<ssize_t>(nNow, 0));
        const bool bWatch = nSent < m_Buffer.size();
        if (bWatch == aWatched)
            return;
        m_Epoll.Watch(m_Sockets[aIndex], aIndex, bWatch ? uint32_t{EPOLLOUT} : 0, EPOLL_CTL_MOD);
        bWatch ? ++m_nWaiting : --m_nWaiting;
    }

    const bench::CForwardWork& m_Work;
    bench::CForwarding m_Forwarding;
    const CEpoll m_Epoll;
    std::vector<int> m_Sockets;
    std::vector<char> m_Buffer;
    std::vector<size_t> m_Sent;  // bytes of the buffer, by each socket
    size_t m_nWaiting = 0;       // sockets with an unsent rest
};

class CReceivers {
public:
    explicit CReceivers(const bench::CForwardWork& aWork) : m_Work(aWork), m_Deliveries(aWork), m_Ends(aWork.m_nReceivers) {}

    int Run() {
        const sockaddr_in addr = bench::LoopbackAddress(m_Work.m_wPort);
        for (size_t n = 0; n < m_Ends.size(); ++n) {
            m_Ends[n].m_Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (connect(m_Ends[n].m_Fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == -1)
                bench::Fail("connect");
            if (n >= m_Work.m_nStopped)
                m_Epoll.Watch(m_Ends[n].m_Fd, n, EPOLLIN, EPOLL_CTL_ADD);
        }
        while (!m_Deliveries.IsOver())
            m_Epoll.Wait([this](size_t aIndex) { Read(aIndex); });
        m_Deliveries.Print();
        return 0;
    }

private:
    struct CEnd {
        int m_Fd = -1;
        std::vector<char> m_Begun;  // the read part of a message
    };

    void Read(size_t aIndex) {
        CEnd& end = m_Ends[aIndex];
        std::copy(end.m_Begun.begin(), end.m_Begun.end(), m_Buffer.begin());
        const size_t nBegun = end.m_Begun.size();
        const ssize_t nRead = recv(end.m_Fd, m_Buffer.data() + nBegun, m_Buffer.size() - nBegun, MSG_DONTWAIT);
        if (nRead <= 0)
            return;
        const size_t nHave = nBegun + static_cast<size_t>(nRead);
        size_t nAt = 0;
        for (; nHave - nAt >= m_Work.m_nSize; nAt += m_Work.m_nSize)
            m_Deliveries.Take(aIndex, m_Buffer.data() + nAt, m_Work.m_nSize);
        end.m_Begun.assign(m_Buffer.data() + nAt, m_Buffer.data() + nHave);
    }

    const bench::CForwardWork& m_Work;
    bench::CDeliveries m_Deliveries;
    const CEpoll m_Epoll;
    std::vector<CEnd> m_Ends;
    std::vector<char> m_Buffer = std::vector<char>(BATCH + m_Work.m_nSize);
};

}  // namespace

int main(int argc, char** argv) {
    const bench::CForwardWork work = bench::ParseForwardWork(argc, argv);
    return work.m_bReceives ? CReceivers(work).Run() : CProducer(work).Run();
}
