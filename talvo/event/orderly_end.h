// The stages of an orderly end, and the unfinished work.
#pragma once

#include <cstdint>

#include "talvo/base/types.h"

// The unfinished work of the tenants of one thread or of all threads.
struct CCmUndrained {
    CmDword m_dwConnections = 0;  // open, or closed by the user with data in flight
    CmDword m_dwLingering = 0;    // those of the connections that were closed with CM_OK
    CmDword m_dwRequests = 0;     // HTTP: connections of a server, requests of clients
    uint64_t m_ullBytes = 0;      // taken from users and not acknowledged by the peer's system
    // Of the drain under way: connections that failed, or that the peer ended as well, before its system had
    // acknowledged everything. They are no unfinished work.
    CmDword m_dwLost = 0;
    uint64_t m_ullLostBytes = 0;

    CmBool IsNothing() const { return m_dwConnections == 0 && m_dwRequests == 0; }  // no work is left
    // The sums of all numbers.
    CCmUndrained& operator+=(const CCmUndrained& aOther) {
        m_dwConnections += aOther.m_dwConnections;
        m_dwLingering += aOther.m_dwLingering;
        m_dwRequests += aOther.m_dwRequests;
        m_ullBytes += aOther.m_ullBytes;
        m_dwLost += aOther.m_dwLost;
        m_ullLostBytes += aOther.m_ullLostBytes;
        return *this;
    }
};

// Tenants are notified of the current stage every few milliseconds, so that tenants that join late are notified as well.
enum class ECmDrainStage {
    NONE,    // no drain is under way, or it is over
    FINISH,  // new work is refused; requests under way are finished
    CLOSE,   // connections close after they have sent the data that they took
    LINGER,  // the thread stops: lingering connections continue, all others are closed at once
    CUT      // the time limit has passed: everything is closed at once
};

namespace talvo {

// TRUE: this stage ends connections and connect attempts.
constexpr CmBool ends_connections(ECmDrainStage aStage) {
    return aStage == ECmDrainStage::CLOSE || aStage == ECmDrainStage::CUT;
}

}  // namespace talvo
