// Time zones for scripts.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// The zone in the form of the variable TZ that needs no file, such as "CET-1CEST,M3.5.0,M10.5.0/3". aZone: that form, the name
// of a zone such as "Europe/Berlin", or "" for the process's zone in the year of aSeconds. "" (out): the zone is unknown, and
// UTC stands for it. Reads at most one small file. Throws std::bad_alloc.
TALVO_API CCmString PosixZoneOf(const CCmString& aZone, int64_t aSeconds);

}  // namespace talvo
