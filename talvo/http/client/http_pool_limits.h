// The limits on a thread's connections to HTTP servers.
#pragma once

#include "talvo/base/types.h"

// A host is a scheme, host and port, the chosen address and, for https, the context: what a connection is reused for.
struct CCmHttpPoolLimits {
    CmDword m_dwMaxPerHost = 32;       // connections to one host, idle or not, at least 1; further channels wait in turn
    CmDword m_dwMaxIdlePerHost = 8;    // the idle ones of them
    CmDword m_dwMaxIdle = 64;          // idle ones to all hosts; the one with the longest idle time is closed first
    CmDword m_dwIdleTimeout = 30'000;  // milliseconds until an idle one is closed
};
