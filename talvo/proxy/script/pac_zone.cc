#include "talvo/proxy/script/pac_zone.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "talvo/base/read_text.h"

namespace talvo {

namespace {

constexpr const char* ZONES = "/usr/share/zoneinfo/";
constexpr size_t MAX_ZONE_FILE = 64 * 1024;
constexpr time_t DAY = 86'400;

// Seconds that the process's zone is ahead of UTC.
long OffsetAt(time_t aTime) {
    tm local{};
    localtime_r(&aTime, &local);
    return local.tm_gmtoff;
}

// The first second in (aFrom, aTo] with another offset than aFrom; aTo: there is none. A change within a week of another one
// may be missed.
time_t FindChange(time_t aFrom, time_t aTo) {
    const long lOffset = OffsetAt(aFrom);
    time_t low = aFrom, high = aFrom;
    while (high < aTo && OffsetAt(high) == lOffset) {
        low = high;
        high = std::min(high + 7 * DAY, aTo);
    }
    if (OffsetAt(high) == lOffset)
        return aTo;
    while (high - low > 1) {
        const time_t middle = low + (high - low) / 2;
        (OffsetAt(middle) == lOffset ? low : high) = middle;
    }
    return high;
}

// TZ counts the hours that a zone is behind UTC.
CCmString NameOf(long aOffset) {
    char szName[48];
    const long lBehind = std::labs(aOffset);
    std::snprintf(szName, sizeof szName, "<%c%02ld>%s%ld:%02ld:%02ld", aOffset < 0 ? '-' : '+', lBehind / 3600,
                  aOffset < 0 ? "" : "-", lBehind / 3600, lBehind / 60 % 60, lBehind % 60);
    return szName;
}

// The change at aTime, in the local time before it.
CCmString RuleOf(time_t aTime, long aOffsetBefore) {
    const time_t shifted = aTime + aOffsetBefore;
    tm local{};
    gmtime_r(&shifted, &local);
    char szRule[32];
    std::snprintf(szRule, sizeof szRule, ",%d/%d:%02d:%02d", local.tm_yday, local.tm_hour, local.tm_min, local.tm_sec);
    return szRule;
}

// The names of the system's zones are in its environment and files, which other threads may change: only the C library reads
// them safely. So the rules come from its answers for one year.
CCmString ZoneOfProcess(time_t aNow) {
    tm utc{};
    gmtime_r(&aNow, &utc);
    utc.tm_mon = utc.tm_hour = utc.tm_min = utc.tm_sec = 0;
    utc.tm_mday = 1;
    const time_t year = timegm(&utc), end = year + 365 * DAY;
    const time_t first = FindChange(year, end), second = FindChange(first, end);
    const long lWinter = OffsetAt(year), lOther = OffsetAt(first);
    if (first == end || second == end)
        return NameOf(OffsetAt(aNow));
    if (lOther > lWinter)
        return NameOf(lWinter) + NameOf(lOther) + RuleOf(first, lWinter) + RuleOf(second, lOther);
    return NameOf(lOther) + NameOf(lWinter) + RuleOf(second, lOther) + RuleOf(first, lWinter);
}

// Rules for summer time have commas, and names in signs may have any number.
BOOL HasRules(const CCmString& aZone) { return aZone.find_first_of(",<") != aZone.npos; }

BOOL LeavesFolder(const CCmString& aZone) {
    return aZone.find("..") != aZone.npos || aZone.starts_with('/') || aZone.find('\0') != aZone.npos;
}

// A zone's file ends with its rules for the time to come, between two line ends.
CCmString ReadZone(const CCmString& aZone) {
    const HANDLE fd = open((ZONES + aZone).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd == CM_INVALID_HANDLE)
        return "";
    const auto text = ReadText(fd, MAX_ZONE_FILE);
    close(fd);
    if (!text || !text->starts_with("TZif") || !text->ends_with('\n'))
        return "";
    const size_t stBegin = text->rfind('\n', text->size() - 2);
    return stBegin == text->npos ? "" : text->substr(stBegin + 1, text->size() - stBegin - 2);
}

}  // namespace

CCmString PosixZoneOf(const CCmString& aZone, int64_t aSeconds) {
    if (aZone.empty())
        return ZoneOfProcess(static_cast<time_t>(aSeconds));
    if (HasRules(aZone))
        return aZone;
    if (LeavesFolder(aZone))
        return "";
    const CCmString strRules = ReadZone(aZone);
    const BOOL bHasNumber = aZone.find_first_of("0123456789") != aZone.npos;
    return strRules.empty() && bHasNumber ? aZone : strRules;
}

}  // namespace talvo
