#include "benchmarks/wan/shaped_pipe.h"

#include <algorithm>
#include <utility>

namespace bench {

void CShapedPipe::Put(int64_t aNow, const char* aPacket, size_t aLength) {
    const auto dLength = static_cast<double>(aLength);
    const int64_t llStart = std::max(aNow, m_llIdle);
    if (static_cast<double>(llStart - aNow) / m_Settings.m_dNsPerByte + dLength > m_Settings.m_dQueueBytes) {
        ++m_Counters.m_ullDropped;
        return;
    }
    m_llIdle = llStart + static_cast<int64_t>(dLength * m_Settings.m_dNsPerByte);
    if (std::uniform_real_distribution<>()(m_Random) < m_Settings.m_dLoss) {
        ++m_Counters.m_ullLost;
        return;
    }
    ++m_Counters.m_ullPackets;
    m_Packets.push_back({m_llIdle + m_Settings.m_llDelayNs, std::string(aPacket, aLength)});
    if (aLength < FULL_PACKET)
        return;
    if (m_llFirstFull == NEVER)
        m_llFirstFull = aNow;
    m_llLastFull = m_Packets.back().m_llExit;
}

std::string CShapedPipe::Take() {
    std::string strPacket = std::move(m_Packets.front().m_strBytes);
    m_Packets.pop_front();
    return strPacket;
}

CPipeCounters CShapedPipe::GetCounters() const {
    CPipeCounters counters = m_Counters;
    if (m_llFirstFull != NEVER)
        counters.m_llFullNs = m_llLastFull - m_llFirstFull - m_Settings.m_llDelayNs;
    return counters;
}

}  // namespace bench
