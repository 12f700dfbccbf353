#include "talvo/http/message/http_date.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "talvo/base/clock.h"
#include "talvo/http/message/http_text.h"

namespace {

using std::chrono::sys_days;
using std::chrono::year_month_day;

constexpr const char* DAYS[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr int64_t DAY = 24 * 60 * 60;
constexpr int64_t FIRST_SECOND = -719528 * DAY;     // of the year 0
constexpr int64_t LAST_SECOND = 2932897 * DAY - 1;  // of the year 9999

struct CFields {
    int m_nYear = 0, m_nDay = 0, m_nHour = 0, m_nMinute = 0, m_nSecond = 0;
    char m_szMonth[4] = "";
};

// Each pattern has to match to the text's end, which "%n" at its own end detects. sscanf accepts a sign before a number, but a
// year must not have one.
BOOL Scan(const CCmString& aText, const char* aPattern, CFields& aFields) {
    int nEnd = 0;
    aFields = CFields();
    std::sscanf(aText.c_str(), aPattern, &aFields.m_nDay, aFields.m_szMonth, &aFields.m_nYear, &aFields.m_nHour,
                &aFields.m_nMinute, &aFields.m_nSecond, &nEnd);
    return nEnd > 0 && static_cast<size_t>(nEnd) == aText.size() && aFields.m_nYear >= 0;
}

// Only this form has the year at its end.
BOOL ScanAsctime(const CCmString& aText, CFields& aFields) {
    int nEnd = 0;
    aFields = CFields();
    std::sscanf(aText.c_str(), "%*3[A-Za-z] %3s %2d %2d:%2d:%2d %4d%n", aFields.m_szMonth, &aFields.m_nDay, &aFields.m_nHour,
                &aFields.m_nMinute, &aFields.m_nSecond, &aFields.m_nYear, &nEnd);
    return nEnd > 0 && static_cast<size_t>(nEnd) == aText.size() && aFields.m_nYear >= 0;
}

int FullYear(int aYear) {
    const sys_days today(std::chrono::days(CCmClock::GetWallUsec() / (DAY * 1000000)));
    const int nThisYear = static_cast<int>(year_month_day(today).year());
    const int nYear = nThisYear - nThisYear % 100 + aYear;
    return nYear > nThisYear + 50 ? nYear - 100 : nYear;
}

BOOL ToSeconds(const CFields& aFields, int64_t& aSeconds) {
    const auto pMonth = std::find_if(std::begin(MONTHS), std::end(MONTHS),
                                     [&](const char* aMonth) { return talvo::equal_no_case(aMonth, aFields.m_szMonth); });
    const auto month = std::chrono::month(static_cast<unsigned>(pMonth - std::begin(MONTHS) + 1));
    const year_month_day date(std::chrono::year(aFields.m_nYear), month,
                              std::chrono::day(static_cast<unsigned>(aFields.m_nDay)));
    // 60 is a leap second.
    if (!date.ok() || aFields.m_nHour < 0 || aFields.m_nHour > 23 || aFields.m_nMinute < 0 || aFields.m_nMinute > 59 ||
        aFields.m_nSecond < 0 || aFields.m_nSecond > 60)
        return FALSE;
    const int64_t llDays = sys_days(date).time_since_epoch().count();
    aSeconds = ((llDays * 24 + aFields.m_nHour) * 60 + aFields.m_nMinute) * 60 + aFields.m_nSecond;
    return TRUE;
}

}  // namespace

CCmString cm_format_http_date(int64_t aSeconds) {
    const auto time = std::chrono::sys_seconds(std::chrono::seconds(std::clamp(aSeconds, FIRST_SECOND, LAST_SECOND)));
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const year_month_day date(day);
    const std::chrono::hh_mm_ss clock(time - day);
    char szDate[64];
    std::snprintf(szDate, sizeof(szDate), "%s, %02u %s %04d %02d:%02d:%02d GMT", DAYS[std::chrono::weekday(day).c_encoding()],
                  static_cast<unsigned>(date.day()), MONTHS[static_cast<unsigned>(date.month()) - 1],
                  static_cast<int>(date.year()), static_cast<int>(clock.hours().count()),
                  static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()));
    return szDate;
}

BOOL cm_parse_http_date(std::string_view aText, int64_t& aSeconds) {
    const CCmString strText(talvo::trim_blanks(aText));
    CFields fields;
    if (Scan(strText, "%*3[A-Za-z], %2d %3s %4d %2d:%2d:%2d GMT%n", fields) || ScanAsctime(strText, fields))
        return ToSeconds(fields, aSeconds);
    if (!Scan(strText, "%*9[A-Za-z], %2d-%3[A-Za-z]-%2d %2d:%2d:%2d GMT%n", fields))
        return FALSE;
    fields.m_nYear = FullYear(fields.m_nYear);
    return ToSeconds(fields, aSeconds);
}
