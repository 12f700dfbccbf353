#include "tools/pac/dates.h"

#include <algorithm>
#include <array>
#include <span>

namespace pac {

namespace {

constexpr const char* WEEKDAYS[] = {"SUN", "MON", "TUE", "WED", "THU", "FRI", "SAT"};
constexpr const char* MONTHS[] = {"JAN", "FEB", "MAR", "APR", "MAY", "JUN", "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"};

using View = std::span<const RangeArgument>;

// -1: none of the names.
int IndexOf(const std::string& aName, std::span<const char* const> aNames) {
    const auto found = std::find(aNames.begin(), aNames.end(), aName);
    return found == aNames.end() ? -1 : static_cast<int>(found - aNames.begin());
}

template <class Value>
bool IsBetween(const Value& aFirst, const Value& aNow, const Value& aLast) {
    return aFirst <= aLast ? aFirst <= aNow && aNow <= aLast : aNow <= aLast || aFirst <= aNow;
}

// -1: no whole number up to aMost.
int NumberOf(const RangeArgument& aArgument, int aMost) {
    const bool bFits = aArgument.m_bNumber && aArgument.m_dNumber >= 0 && aArgument.m_dNumber <= aMost;
    return bFits && aArgument.m_dNumber == static_cast<int>(aArgument.m_dNumber) ? static_cast<int>(aArgument.m_dNumber) : -1;
}

// Year, month and day, in the order of their weight; -1: not given.
using Date = std::array<int, 3>;

// One end of a range. false: an argument is none of the three, or two are the same.
bool ReadDate(View aArguments, Date& aDate) {
    aDate.fill(-1);
    for (const RangeArgument& argument : aArguments) {
        const int nMonth = IndexOf(argument.m_strText, MONTHS);
        const int nNumber = NumberOf(argument, 9999);
        if (nMonth == -1 && nNumber < 1)
            return false;
        const size_t field = nMonth != -1 ? 1 : nNumber < 32 ? 2 : 0;
        if (aDate[field] != -1)
            return false;
        aDate[field] = nMonth != -1 ? nMonth : nNumber;
    }
    return true;
}

}  // namespace

bool IsInWeekdays(const RangeArguments& aArguments, const tm& aNow) {
    if (aArguments.empty() || aArguments.size() > 2)
        return false;
    const int nFirst = IndexOf(aArguments.front().m_strText, WEEKDAYS);
    const int nLast = IndexOf(aArguments.back().m_strText, WEEKDAYS);
    return nFirst != -1 && nLast != -1 && IsBetween(nFirst, aNow.tm_wday, nLast);
}

bool IsInDates(const RangeArguments& aArguments, const tm& aNow) {
    const View all(aArguments);
    const bool bOne = all.size() == 1;
    if (!bOne && (all.empty() || all.size() % 2 != 0 || all.size() > 6))
        return false;
    Date first, last, now{aNow.tm_year + 1900, aNow.tm_mon, aNow.tm_mday};
    if (!ReadDate(bOne ? all : all.first(all.size() / 2), first) || !ReadDate(bOne ? all : all.last(all.size() / 2), last))
        return false;
    for (size_t field = 0; field < now.size(); ++field) {
        if ((first[field] == -1) != (last[field] == -1))
            return false;
        if (first[field] == -1)
            now[field] = -1;
    }
    return IsBetween(first, now, last);
}

bool IsInTimes(const RangeArguments& aArguments, const tm& aNow) {
    const View all(aArguments);
    const size_t count = all.size();
    if (count != 1 && count != 2 && count != 4 && count != 6)
        return false;
    const size_t fields = count == 1 ? 1 : count / 2;
    std::array<int, 3> first{}, last{}, now{aNow.tm_hour, aNow.tm_min, aNow.tm_sec};
    for (size_t field = 0; field < now.size(); ++field) {
        if (field >= fields) {
            now[field] = 0;
            continue;
        }
        first[field] = NumberOf(all[field], field == 0 ? 24 : 59);
        last[field] = NumberOf(all[count - fields + field], field == 0 ? 24 : 59);
        if (first[field] == -1 || last[field] == -1)
            return false;
    }
    return IsBetween(first, now, last);
}

}  // namespace pac
