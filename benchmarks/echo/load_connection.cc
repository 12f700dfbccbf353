#include "benchmarks/echo/load_connection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "benchmarks/support/system.h"

CPattern::CPattern(size_t aSize) : m_Bytes(aSize + SHIFTS) {
    uint64_t ullState = 1;
    for (char& c : m_Bytes) {
        ullState = ullState * 6364136223846793005u + 1442695040888963407u;
        c = static_cast<char>(ullState >> 56);
    }
}

CLoadConnection::CLoadConnection(const CLoadSettings& aSettings, const CPattern& aPattern, CLoadCounters& aCounters, int aIndex)
    : m_Settings(aSettings),
      m_Pattern(aPattern),
      m_Counters(aCounters),
      m_ullFirst(static_cast<uint64_t>(aIndex) * 17),
      m_bGoesOn(!aSettings.m_bReconnect && (aSettings.m_Busy == 0 || aIndex < aSettings.m_Busy)),
      m_SendTimes(static_cast<size_t>(aSettings.m_InFlight)) {}

CLoadConnection::~CLoadConnection() {
    if (m_Fd != -1)
        close(m_Fd);
}

bool CLoadConnection::Failed() {
    ++m_Counters.m_ullErrors;
    return false;
}

bool CLoadConnection::Start() {
    if (m_Fd != -1)
        close(m_Fd);
    m_strOut.clear();
    m_nOutSent = 0;
    const int64_t llNow = bench::NowNs();  // if every message connects, the connect counts
    if (!Connect())
        return Failed();
    for (int n = 0; n < (m_bGoesOn ? m_Settings.m_InFlight : 1); ++n)
        QueueMessage(llNow);
    return Flush();
}

// Uses one of many loopback addresses, so that recently closed connections do not exhaust the ports.
bool CLoadConnection::Connect() {
    m_Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int nOn = 1;
    setsockopt(m_Fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &nOn, sizeof(nOn));
    sockaddr_in local = bench::LoopbackAddress(0);
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1 + static_cast<uint32_t>((m_ullReceived + m_ullFirst) % 200));
    const sockaddr_in peer = bench::LoopbackAddress(m_Settings.m_wPort);
    if (bind(m_Fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == -1 ||
        connect(m_Fd, reinterpret_cast<const sockaddr*>(&peer), sizeof(peer)) == -1)
        return false;
    bench::SetNoDelay(m_Fd);
    return fcntl(m_Fd, F_SETFL, O_NONBLOCK) != -1;
}

void CLoadConnection::QueueMessage(int64_t aNow) {
    m_SendTimes[m_ullSent % m_SendTimes.size()] = aNow;
    m_strOut.append(m_Pattern.Message(m_ullFirst + m_ullSent), m_Settings.m_nSize);
    ++m_ullSent;
}

bool CLoadConnection::Flush() {
    const ssize_t nSent = send(m_Fd, m_strOut.data() + m_nOutSent, m_strOut.size() - m_nOutSent, MSG_NOSIGNAL);
    if (nSent == -1)
        return errno == EAGAIN || Failed();
    m_nOutSent += static_cast<size_t>(nSent);
    if (!HasUnsent()) {
        m_strOut.clear();
        m_nOutSent = 0;
    }
    return true;
}

bool CLoadConnection::OnReadable(char* aBuffer, size_t aSize) {
    const ssize_t nRead = recv(m_Fd, aBuffer, aSize, 0);
    if (nRead == -1 && errno == EAGAIN)
        return true;
    if (nRead <= 0 || !Compare(aBuffer, static_cast<size_t>(nRead), bench::NowNs()))
        return Failed();
    if (m_Settings.m_bReconnect && m_ullReceived == m_ullSent)
        return false;
    return !HasUnsent() || Flush();
}

bool CLoadConnection::Compare(const char* aData, size_t aSize, int64_t aNow) {
    while (aSize > 0) {
        const size_t nChunk = std::min(aSize, m_Settings.m_nSize - m_nOffset);
        if (m_ullReceived == m_ullSent ||
            std::memcmp(aData, m_Pattern.Message(m_ullFirst + m_ullReceived) + m_nOffset, nChunk) != 0)
            return false;
        aData += nChunk;
        aSize -= nChunk;
        m_nOffset += nChunk;
        if (m_nOffset < m_Settings.m_nSize)
            return true;
        m_nOffset = 0;
        m_Counters.m_Latencies.Record(aNow - m_SendTimes[m_ullReceived % m_SendTimes.size()]);
        ++m_ullReceived;
        ++m_Counters.m_ullMessages;
        if (m_bGoesOn)
            QueueMessage(aNow);
    }
    return true;
}
