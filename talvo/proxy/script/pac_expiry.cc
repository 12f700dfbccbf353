#include "talvo/proxy/script/pac_expiry.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>

#include "talvo/base/ascii.h"
#include "talvo/base/clock.h"
#include "talvo/http/message/http_date.h"
#include "talvo/http/message/http_list.h"

namespace talvo {

namespace {

constexpr DWORD RETRIES[] = {10, 30, 120, 600};
constexpr std::string_view MAX_AGE = "max-age=";

std::optional<int64_t> MaxAgeOf(std::string_view aCacheControl) {
    std::optional<int64_t> seconds;
    for (std::string_view strElement; cm_next_list_element(aCacheControl, strElement);) {
        const CCmString strName = to_lower(strElement);
        if (strName == "no-cache" || strName == "no-store")
            return 0;
        if (!strName.starts_with(MAX_AGE))
            continue;
        DWORD dwSeconds = 0;
        const auto [pEnd, error] = std::from_chars(strName.data() + MAX_AGE.size(), strName.data() + strName.size(), dwSeconds);
        seconds = error == std::errc::result_out_of_range ? MOST_PAC_SECONDS : dwSeconds;
    }
    return seconds;
}

// A text that is no date, such as "0", has expired.
int64_t SecondsUntil(std::string_view aExpires, std::string_view aDate) {
    int64_t llExpires = 0, llDate = CCmClock::GetWallUsec() / 1'000'000;
    cm_parse_http_date(aDate, llDate);
    return cm_parse_http_date(aExpires, llExpires) ? llExpires - llDate : 0;
}

}  // namespace

DWORD PacLifetimeOf(std::string_view aCacheControl, std::string_view aExpires, std::string_view aDate) {
    const auto maxAge = MaxAgeOf(aCacheControl);
    if (!maxAge && aExpires.empty())
        return USUAL_PAC_SECONDS;
    const int64_t llSeconds = maxAge ? *maxAge : SecondsUntil(aExpires, aDate);
    return static_cast<DWORD>(std::clamp<int64_t>(llSeconds, LEAST_PAC_SECONDS, MOST_PAC_SECONDS));
}

DWORD PacRetryAfter(DWORD aFailures) { return RETRIES[std::clamp<size_t>(aFailures, 1, std::size(RETRIES)) - 1]; }

}  // namespace talvo
