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

// What went through: the time from the first full packet's entry to the last one's exit, less the delay.
struct CPipeCounters {
    uint64_t m_ullPackets = 0;
    uint64_t m_ullDropped = 0;  // the queue was full
    uint64_t m_ullLost = 0;     // by chance
    int64_t m_llFullNs = 0;
};

//    Put --> [queue, bytes bounded] --> rate --> delay --> Take
//
// Packets leave in the order in which they came. The time of each packet's exit is known when it enters, hence one list.
// Times are passed in.
class CShapedPipe {
public:
    static constexpr int64_t NEVER = -1;

    explicit CShapedPipe(const CLinkSettings& aSettings) : m_Settings(aSettings) {}

    void Put(int64_t aNow, const char* aPacket, size_t aLength);

    // When the next packet leaves; NEVER: the pipe is empty.
    int64_t NextExit() const { return m_Packets.empty() ? NEVER : m_Packets.front().m_llExit; }
    // The next packet, which has to leave by now.
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
    int64_t m_llIdle = 0;  // when the sender has put everything on the wire
    int64_t m_llFirstFull = NEVER;
    int64_t m_llLastFull = NEVER;  // its exit
    CPipeCounters m_Counters;
};

}  // namespace bench
