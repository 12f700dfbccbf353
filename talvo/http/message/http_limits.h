// Limits of the memory that a peer can make this side keep.
#pragma once

#include "talvo/base/types.h"

// Parsers and body readers each take a copy. A message beyond a limit fails; IsBeyondLimit there reports this cause, so that a
// server can answer 431 or 413.
struct CCmHttpLimits {
    static constexpr uint64_t NO_MAX_BODY = UINT64_MAX;     // no limit
    static constexpr uint64_t SERVER_MAX_BODY = 64u << 20;  // bytes

    CmDword m_dwMaxLine = 64 * 1024;      // bytes of a line of a head, a trailer or a chunk size, without its line end
    CmDword m_dwMaxHeaders = 256;         // lines of a head behind its first, and of a trailer
    uint64_t m_ullMaxBody = NO_MAX_BODY;  // bytes of a body without its framing; servers begin with SERVER_MAX_BODY
};
