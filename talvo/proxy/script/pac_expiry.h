// How long a fetched script serves, and when a failed fetch is repeated.
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

constexpr DWORD LEAST_PAC_SECONDS = 5 * 60;
constexpr DWORD MOST_PAC_SECONDS = 24 * 3600;
constexpr DWORD USUAL_PAC_SECONDS = 4 * 3600;

// The seconds until a script expires: max-age of aCacheControl, no-cache and no-store there as 0; else aExpires minus aDate,
// the texts of these headers; within LEAST_PAC_SECONDS and MOST_PAC_SECONDS. USUAL_PAC_SECONDS: both headers are empty.
TALVO_API DWORD PacLifetimeOf(std::string_view aCacheControl, std::string_view aExpires, std::string_view aDate);

// The seconds until the next fetch after so many failed ones in a row.
TALVO_API DWORD PacRetryAfter(DWORD aFailures);

}  // namespace talvo
