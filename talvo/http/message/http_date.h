// Dates in headers.
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// "Sun, 06 Nov 1994 08:49:37 GMT". Seconds since 1970 UTC. A time outside the years 0 to 9999 becomes the nearest second within
// them.
TALVO_API CCmString cm_format_http_date(int64_t aSeconds);

// Reads that form and the two old ones, "Sunday, 06-Nov-94 08:49:37 GMT" and "Sun Nov  6 08:49:37 1994". A year of two digits
// is the year with these digits that is at most 50 years ahead. The day of the week is not checked against the date. FALSE: not
// such a date, and aSeconds is unchanged.
TALVO_API CmBool cm_parse_http_date(std::string_view aText, int64_t& aSeconds);
