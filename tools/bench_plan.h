// What `talvo bench` sends, and when.
#pragma once

#include <cstdint>
#include <string>

#include "talvo/talvo.h"

namespace tool {

// The times of the messages of one connection: its n-th message is due at a fixed time, whenever the others were answered. So a
// server that stalls for a second delays each message that was due in it, and not only the one that it has.
struct BenchPlan {
    enum EKind {
        ECHO,     // each message comes back
        ONE_WAY,  // no message comes back
        HTTP      // a request has one reply, before the next one is sent
    };

    EKind m_Kind = ECHO;
    size_t m_stSize = 64;      // of a message, bytes
    std::string m_strRequest;  // HTTP
    double m_dRate = 0;        // messages a second of all connections; 0: the next one after an answer
    size_t m_stConnections = 1;
    int64_t m_llSeconds = 10;
    bool m_bNumbered = false;    // messages keep apart, may be lost, and are recognized by a number
    bool m_bTakesTimes = false;  // ONE_WAY: the receiver measures by the times in the messages
    int64_t m_llStart = 0;       // from here on nanoseconds on the monotonic clock
    int64_t GetEnd() const { return m_llStart + m_llSeconds * 1000000000; }

    // When message aNumber of connection aIndex is due. With a rate only.
    int64_t GetDue(size_t aIndex, uint64_t aNumber) const {
        const double dAt = static_cast<double>(aNumber * m_stConnections + aIndex) / m_dRate;
        return m_llStart + static_cast<int64_t>(dAt * 1e9);
    }
    // Messages of one connection without an answer.
    size_t GetWindow() const { return m_dRate == 0 || m_Kind == HTTP ? 1 : 4096; }
};

}  // namespace tool
