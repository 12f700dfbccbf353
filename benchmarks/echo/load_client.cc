#include "benchmarks/echo/load_client.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "benchmarks/support/system.h"

CLoadClient::CLoadClient(const CLoadSettings& aSettings, CLoadConnectionMaker aMake)
    : m_Settings(aSettings),
      m_Make(std::move(aMake)),
      m_Pattern(aSettings.m_nSize),
      m_Buffer(256 * 1024),
      m_Epoll(epoll_create1(EPOLL_CLOEXEC)) {}

CLoadClient::~CLoadClient() { close(m_Epoll); }

void CLoadClient::Start() {
    for (int n = 0; n < m_Settings.m_Connections; ++n) {
        m_Connections.push_back(m_Make(m_Settings, m_Pattern, m_Counters, n));
        StartConnection(*m_Connections.back());
    }
}

void CLoadClient::StartConnection(ILoadConnection& aConnection) {
    if (aConnection.Start())
        Watch(EPOLL_CTL_ADD, aConnection, aConnection.HasUnsent() ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

void CLoadClient::Watch(int aOperation, ILoadConnection& aConnection, uint32_t aEvents) {
    epoll_event event{};
    event.events = aEvents;
    event.data.ptr = &aConnection;
    if (epoll_ctl(m_Epoll, aOperation, aConnection.GetHandle(), &event) == -1)
        bench::Fail("epoll_ctl");
}

void CLoadClient::Dispatch(ILoadConnection& aConnection, uint32_t aEvents) {
    const bool bHadUnsent = aConnection.HasUnsent();
    const bool bAlive = (!bHadUnsent || !(aEvents & EPOLLOUT) || aConnection.Flush()) &&
                        (!(aEvents & ~EPOLLOUT) || aConnection.OnReadable(m_Buffer.data(), m_Buffer.size()));
    if (!bAlive && m_Settings.m_bReconnect)
        StartConnection(aConnection);  // closes the old socket, which removes it from the epoll set
    else if (!bAlive)
        Watch(EPOLL_CTL_DEL, aConnection, 0);
    else if (aConnection.HasUnsent() != bHadUnsent)
        Watch(EPOLL_CTL_MOD, aConnection, bHadUnsent ? EPOLLIN : EPOLLIN | EPOLLOUT);
}

void CLoadClient::Turn(int aWaitMs) {
    std::array<epoll_event, 256> events;
    const int nReady = epoll_wait(m_Epoll, events.data(), static_cast<int>(events.size()), aWaitMs);
    for (int n = 0; n < nReady; ++n) {
        const epoll_event& event = events[static_cast<size_t>(n)];
        Dispatch(*static_cast<ILoadConnection*>(event.data.ptr), event.events);
    }
}

int64_t CLoadClient::Run(int64_t aNs, uint64_t aMessages) {
    m_Counters.m_ullMessages = 0;
    m_Counters.m_Latencies.Reset();
    const int64_t llStart = bench::NowNs();
    for (;;) {
        const int64_t llPassed = bench::NowNs() - llStart;
        if (llPassed >= aNs || (aMessages > 0 && m_Counters.m_ullMessages >= aMessages))
            return llPassed;
        Turn(static_cast<int>((aNs - llPassed) / 1000000) + 1);
    }
}

void CLoadClient::Settle() {
    for (const auto& pConnection : m_Connections) {
        while (!pConnection->HasAnswered() && m_Counters.m_ullErrors == 0)
            Turn(-1);
    }
}
