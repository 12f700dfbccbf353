// The ranges of time that scripts ask for.
#pragma once

#include <ctime>
#include <string>
#include <vector>

namespace pac {

// An argument: a number, or a text, which may be one.
struct RangeArgument {
    bool m_bNumber = false;
    double m_dNumber = 0;
    std::string m_strText;
};
using RangeArguments = std::vector<RangeArgument>;

// aNow: the script's time, in the zone that the arguments choose; they have no "GMT" any more. The ranges include their ends,
// and one whose start is after its end wraps around. false also for arguments of another number or form.

// One or two of SUN, MON, TUE, WED, THU, FRI, SAT.
bool IsInWeekdays(const RangeArguments& aArguments, const tm& aNow);

// A day from 1 to 31, a month from JAN to DEC or a year; or the start and the end of a range, each of the same one to three of
// these.
bool IsInDates(const RangeArguments& aArguments, const tm& aNow);

// An hour; two hours; the hours and minutes, or the hours, minutes and seconds of two times.
bool IsInTimes(const RangeArguments& aArguments, const tm& aNow);

}  // namespace pac
