// The time of a question.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace pac {

// From now on the script's clock shows aUsec, microseconds since 1970, and runs on from there. aZone: in the form of the
// variable TZ that needs no file, such as "CET-1CEST,M3.5.0,M10.5.0/3".
void SetClock(int64_t aUsec, const std::string& aZone);

// The time by that clock, in the zone or in UTC.
tm GetTime(bool aInUtc);

}  // namespace pac
