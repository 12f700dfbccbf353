// The choices of the user for a transfer.
#pragma once

#include <string>

#include "talvo/talvo.h"

namespace tool {

struct TransferOptions {
    std::string m_strRate;   // --limit-rate as given, or ""
    uint64_t m_ullRate = 0;  // from it, in bytes a second; 0: no limit
    DWORD m_dwRetries = 0;   // --retry: further attempts after a failure that may be temporary
};

}  // namespace tool
