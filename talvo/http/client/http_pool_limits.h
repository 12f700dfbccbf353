// How many connections to HTTP servers a thread keeps.
#pragma once

#include "talvo/base/types.h"

struct CCmHttpPoolLimits {
    DWORD m_dwMaxPerHost = 32;       // connections to one host and port, idle or not, at least 1; further channels wait in turn
    DWORD m_dwMaxIdlePerHost = 8;    // those of them that are kept unused
    DWORD m_dwMaxIdle = 64;          // unused ones to all hosts; the one that has been so for longest is closed first
    DWORD m_dwIdleTimeout = 30'000;  // milliseconds until an unused one is closed
};
