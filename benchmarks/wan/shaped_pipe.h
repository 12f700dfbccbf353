// One direction of a link.
#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <string>

namespace bench {

struct CLinkSettings {
    int64_t m_llDelayNs = 0;  // one way
    double m_dNsPerByte = 0;
    double m_dQueueBytes = 0;
    double m_dLoss = 0;  // 0 to 1
};

// Counts of the pipe, and the time from the first full packet's entry to the last one's exit, without the delay.
struct CPipeCounters {
    uint64_t m_ullPackets = 0;
    uint64_t m_ullDropped = 0;  // the queue was full
    uint64_t m_ullLost = 0;     // by chance
    int64_t m_llFullNs = 0;
};

//    Put --> [queue with a limit in bytes] --> rate --> delay --> Take
//
// Packets leave in the order of arrival. The exit time of each packet is known when it enters, hence one list. The caller
// passes the times in.
class CShapedPipe {
public:
    static constexpr int64_t NEVER = -1;

    explicit CShapedPipe(const CLinkSettings& aSettings) : m_Settings(aSettings) {}

    void Put(int64_t aNow, const char* aPacket, size_t aLength);

    // The exit time of the next packet; NEVER: the pipe is empty.
    int64_t NextExit() const { return m_Packets.empty() ? NEVER : m_Packets.front().m_llExit; }
    // Returns the next packet, whose exit time must have come.
    std::string Take();

    CPipeCounters GetCounters() const;

private:
    struct CPacket {
        int64_t m_llExit;
        std::string m_strBytes;
    };

    static constexpr size_t FULL_PACKET = 1000;  // bytes; shorter ones are acknowledgements, handshakes and heads

    const CLinkSettings m_Settings;
    std::mt19937 m_Random;  // with its default seed: each run loses the same packets
    std::deque<CPacket> m_Packets;
    int64_t m_llIdle = 0;  // the sender has sent all packets at this time
    int64_t m_llFirstFull = NEVER;
    int64_t m_llLastFull = NEVER;  // its exit
    CPipeCounters m_Counters;
};

}  // namespace bench
