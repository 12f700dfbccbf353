// What a session has done for its receivers.
#pragma once

#include <algorithm>
#include <cstdint>

#include "talvo/base/types.h"

// A number of messages, and the bytes of their payload.
struct CCmForwardCount {
    uint64_t m_ullMessages = 0;  // the number
    uint64_t m_ullBytes = 0;     // of payload

    // Both numbers.
    CCmForwardCount& operator+=(const CCmForwardCount& aOther) {
        m_ullMessages += aOther.m_ullMessages;
        m_ullBytes += aOther.m_ullBytes;
        return *this;
    }

    // Both numbers.
    CCmForwardCount& operator-=(const CCmForwardCount& aOther) {
        m_ullMessages -= aOther.m_ullMessages;
        m_ullBytes -= aOther.m_ullBytes;
        return *this;
    }
    friend CCmForwardCount operator+(CCmForwardCount aLeft, const CCmForwardCount& aRight) { return aLeft += aRight; }
    friend CCmForwardCount operator-(CCmForwardCount aLeft, const CCmForwardCount& aRight) { return aLeft -= aRight; }
    bool operator==(const CCmForwardCount&) const = default;
};

// Of one receiver or, as a sum, of a session. Always due = sent + dropped + conflated + lag.
struct CCmForwardStatistics {
    CCmForwardCount m_Forwarded;        // by the session since it was made; the same for each receiver
    CCmForwardCount m_Held;             // by the log now, the newest message of each key included; the same for each receiver
    CCmForwardCount m_Due;              // from the join point on, replayed messages included
    CCmForwardCount m_Sent;             // taken by the transport; the last one perhaps in part
    CCmForwardCount m_Dropped;          // by DROP_OLDEST, or still due at the receiver's end
    CCmForwardCount m_Conflated;        // skipped for a newer message of the same key
    CCmForwardCount m_Lag;              // due, and not yet decided: some may be skipped for a newer message later
    uint64_t m_ullLagMilliseconds = 0;  // age of the oldest message of the lag
    uint64_t m_ullLongestLag = 0;       // messages: the most at the end of a Forward
    uint64_t m_ullRefused = 0;          // sends that the transport refused in whole or in part
    CmDword m_dwReceivers = 0;          // present ones; 1 for a receiver

    // The sum: the ages and longest lags become the greater ones. m_Forwarded and m_Held stay.
    CCmForwardStatistics& operator+=(const CCmForwardStatistics& aOther) {
        m_Due += aOther.m_Due;
        m_Sent += aOther.m_Sent;
        m_Dropped += aOther.m_Dropped;
        m_Conflated += aOther.m_Conflated;
        m_Lag += aOther.m_Lag;
        m_ullLagMilliseconds = std::max(m_ullLagMilliseconds, aOther.m_ullLagMilliseconds);
        m_ullLongestLag = std::max(m_ullLongestLag, aOther.m_ullLongestLag);
        m_ullRefused += aOther.m_ullRefused;
        m_dwReceivers += aOther.m_dwReceivers;
        return *this;
    }
};
