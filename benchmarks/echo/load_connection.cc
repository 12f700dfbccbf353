#include "benchmarks/echo/load_connection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "benchmarks/support/system.h"

CPattern::CPattern(size_t aSize) : m_Bytes(aSize + SHIFTS) {
    uint64_t ullState = 1;
    for (char& c : m_Bytes) {
        ullState = ullState * 6364136223846793005u + 1442695040888963407u;
        c = static_cast<char>(ullState >> 56);
    }
}

CLoadConnection::CLoadConnection(const CLoadSettings& aSettings, const CPattern& aPattern, CLoadCounters& aCounters, int aIndex,
                                 std::unique_ptr<CLoadStream> aStream)
    : m_Settings(aSettings),
      m_Pattern(aPattern),
      m_Counters(aCounters),
      m_ullFirst(static_cast<uint64_t>(aIndex) * 17),
      m_bGoesOn(!aSettings.m_bReconnect && (aSettings.m_Busy == 0 || aIndex < aSettings.m_Busy)),
      m_pStream(std::move(aStream)),
      m_SendTimes(static_cast<size_t>(aSettings.m_InFlight)) {}

bool CLoadConnection::Failed() {
    ++m_Counters.m_ullErrors;
    return false;
}

bool CLoadConnection::Start() {
    m_strOut.clear();
    m_nOutSent = 0;
    const int64_t llNow = bench::NowNs();  // if every message connects, the connect counts
    if (!m_pStream->Connect(m_Settings.m_wPort, m_ullReceived + m_ullFirst))
        return Failed();
    for (int n = 0; n < (m_bGoesOn ? m_Settings.m_InFlight : 1); ++n)
        QueueMessage(llNow);
    return Flush();
}

void CLoadConnection::QueueMessage(int64_t aNow) {
    m_SendTimes[m_ullSent % m_SendTimes.size()] = aNow;
    m_strOut.append(m_Pattern.Message(m_ullFirst + m_ullSent), m_Settings.m_nSize);
    ++m_ullSent;
}

bool CLoadConnection::Flush() {
    const ssize_t nSent = m_pStream->Send(m_strOut.data() + m_nOutSent, m_strOut.size() - m_nOutSent);
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
    const ssize_t nRead = m_pStream->Recv(aBuffer, aSize);
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
