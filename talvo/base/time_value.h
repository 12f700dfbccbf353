// Seconds and microseconds: the type of every time-out, interval and time stamp.
#pragma once

#include <sys/time.h>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

// A plain value of two signed 32-bit fields, always normalised: the microseconds are below one million in magnitude and never
// have the opposite sign of the seconds. A value that does not fit (a very large interval, the year 2038) saturates at s_tvMax
// or its negative. Do not share it between threads without a lock.
class TALVO_API CCmTimeValue {
public:
    constexpr CCmTimeValue() = default;
    // Seconds, or seconds and microseconds.
    explicit CCmTimeValue(long aSec) { Set(aSec, 0); }
    explicit CCmTimeValue(int aSec) { Set(aSec, 0); }  // without it, an int would be ambiguous between long and double
    CCmTimeValue(long aSec, long aUsec) {
        constexpr uint64_t SEC_LIMIT = uint64_t{1} << 30, USEC_LIMIT = uint64_t{1} << 49;  // their sum fits 31 bits of seconds
        const auto ullSec = static_cast<uint64_t>(aSec), ullUsec = static_cast<uint64_t>(aUsec);
        if (ullSec >= SEC_LIMIT || ullUsec >= USEC_LIMIT) {  // or negative
            Set(aSec, aUsec);
            return;
        }
        m_lSec = static_cast<int32_t>(ullSec + ullUsec / 1000000);
        m_lUsec = static_cast<int32_t>(ullUsec % 1000000);
    }
    explicit CCmTimeValue(const timeval& aTv) { Set(aTv); }
    explicit CCmTimeValue(double aSec) { Set(aSec); }  // seconds; a NaN counts as 0

    // Replaces the value, as the constructors do.
    void Set(long aSec, long aUsec);
    void Set(const timeval& aTv);
    void Set(double aSec);
    void SetByTotalMsec(long aMilliSeconds);

    // The two fields.
    long GetSec() const { return m_lSec; }
    long GetUsec() const { return m_lUsec; }
    // Wraps beyond about 24.8 days, as a 32-bit count of milliseconds does: do not use it for intervals of weeks.
    int32_t GetTotalInMsec() const;

    // The whole value in 64 bits, and back. The library computes in this form.
    int64_t GetTotalInUsec() const { return int64_t{m_lSec} * 1000000 + m_lUsec; }
    static CCmTimeValue FromUsec(int64_t aUsec);  // saturates

    // They saturate.
    CCmTimeValue& operator+=(const CCmTimeValue& aRight);
    CCmTimeValue& operator-=(const CCmTimeValue& aRight);

    // The current time on the clock of all time-outs: see CCmClock::GetTimeOfDayUsec.
    static CCmTimeValue GetTimeOfDay();

    static const CCmTimeValue s_tvZero;  // 0 seconds
    static const CCmTimeValue s_tvMax;   // no time reaches it

private:
    struct NormalisedTag {};
    constexpr CCmTimeValue(NormalisedTag, int32_t aSec, int32_t aUsec) : m_lSec(aSec), m_lUsec(aUsec) {}

    int32_t m_lSec = 0;
    int32_t m_lUsec = 0;
};

// As += and -=.
inline CCmTimeValue operator+(CCmTimeValue aLeft, const CCmTimeValue& aRight) { return aLeft += aRight; }
inline CCmTimeValue operator-(CCmTimeValue aLeft, const CCmTimeValue& aRight) { return aLeft -= aRight; }

// Compare the seconds, then the microseconds. The result is 1 or 0.
inline int operator==(const CCmTimeValue& a, const CCmTimeValue& b) { return a.GetTotalInUsec() == b.GetTotalInUsec(); }
inline int operator!=(const CCmTimeValue& a, const CCmTimeValue& b) { return !(a == b); }
inline int operator<(const CCmTimeValue& a, const CCmTimeValue& b) { return a.GetTotalInUsec() < b.GetTotalInUsec(); }
inline int operator>(const CCmTimeValue& a, const CCmTimeValue& b) { return b < a; }
inline int operator<=(const CCmTimeValue& a, const CCmTimeValue& b) { return !(b < a); }
inline int operator>=(const CCmTimeValue& a, const CCmTimeValue& b) { return !(a < b); }
