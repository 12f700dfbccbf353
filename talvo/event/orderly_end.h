// The stages of an orderly end, and what is left of the work.
#pragma once

#include <cstdint>

#include "talvo/base/types.h"

// What the tenants of a thread, or of all threads, have not finished.
struct CCmUndrained {
    DWORD m_dwConnections = 0;  // open, or ended by their user with data on its way
    DWORD m_dwLingering = 0;    // those of the connections that were ended in order
    DWORD m_dwRequests = 0;     // HTTP: connections of a server, requests of clients
    uint64_t m_ullBytes = 0;    // taken from users and not acknowledged by the peer's system

    BOOL IsNothing() const { return m_dwConnections == 0 && m_dwRequests == 0; }
    CCmUndrained& operator+=(const CCmUndrained& aOther) {
        m_dwConnections += aOther.m_dwConnections;
        m_dwLingering += aOther.m_dwLingering;
        m_dwRequests += aOther.m_dwRequests;
        m_ullBytes += aOther.m_ullBytes;
        return *this;
    }
};

// A tenant is told a stage every few milliseconds while it lasts, so that tenants that join late are told as well.
enum class ECmDrainStage {
    NONE,    // no end is under way, or it is over
    FINISH,  // nothing new is accepted; requests that have begun are finished
    CLOSE,   // connections end, and what they have taken goes out
    LINGER,  // the thread stops: what lingers may go on, all other connections end at once
    CUT      // the time is over: everything ends at once
};

namespace talvo {

// Whether connections, and attempts to make one, end in this stage of a drain.
constexpr BOOL ends_connections(ECmDrainStage aStage) { return aStage == ECmDrainStage::CLOSE || aStage == ECmDrainStage::CUT; }

}  // namespace talvo
