#include "talvo/base/time_value.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "talvo/base/clock.h"

namespace {

constexpr int64_t USEC_PER_SEC = 1000000;
constexpr int64_t MAX_USEC = int64_t{std::numeric_limits<int32_t>::max()} * USEC_PER_SEC + (USEC_PER_SEC - 1);

}  // namespace

constinit const CCmTimeValue CCmTimeValue::s_tvZero{};
constinit const CCmTimeValue CCmTimeValue::s_tvMax{NormalisedTag{}, std::numeric_limits<int32_t>::max(),
                                                   static_cast<int32_t>(USEC_PER_SEC - 1)};

// The division of one signed total truncates toward zero. This is the normal form: the remainder has the sign of the whole.
CCmTimeValue CCmTimeValue::FromUsec(int64_t aUsec) {
    const int64_t llUsec = std::clamp(aUsec, -MAX_USEC, MAX_USEC);
    return {NormalisedTag{}, static_cast<int32_t>(llUsec / USEC_PER_SEC), static_cast<int32_t>(llUsec % USEC_PER_SEC)};
}

void CCmTimeValue::Set(long aSec, long aUsec) {
    // Limits the seconds before the multiplication, so that 64 bits hold the sum for any number of microseconds.
    constexpr long SEC_LIMIT = std::numeric_limits<long>::max() / (4 * USEC_PER_SEC);
    constexpr long USEC_LIMIT = std::numeric_limits<long>::max() / 2;
    const int64_t llSec = std::clamp(aSec, -SEC_LIMIT, SEC_LIMIT);
    const int64_t llUsec = std::clamp(aUsec, -USEC_LIMIT, USEC_LIMIT);
    *this = FromUsec(llSec * USEC_PER_SEC + llUsec);
}

void CCmTimeValue::Set(const timeval& aTv) { Set(aTv.tv_sec, aTv.tv_usec); }

void CCmTimeValue::Set(double aSec) {
    if (std::isnan(aSec)) {
        *this = s_tvZero;
        return;
    }
    const double dLimit = std::numeric_limits<int32_t>::max();
    if (std::fabs(aSec) > dLimit) {
        *this = FromUsec(aSec > 0 ? MAX_USEC : -MAX_USEC);
        return;
    }
    const long lSec = static_cast<long>(aSec);
    Set(lSec, static_cast<long>((aSec - static_cast<double>(lSec)) * 1e6));
}

void CCmTimeValue::SetByTotalMsec(long aMilliSeconds) {
    const long lSec = aMilliSeconds / 1000;
    Set(lSec, (aMilliSeconds - lSec * 1000) * 1000);
}

int32_t CCmTimeValue::GetTotalInMsec() const {
    return static_cast<int32_t>(static_cast<uint32_t>(int64_t{m_lSec} * 1000 + m_lUsec / 1000));
}

CCmTimeValue& CCmTimeValue::operator+=(const CCmTimeValue& aRight) {
    return *this = FromUsec(GetTotalInUsec() + aRight.GetTotalInUsec());
}

CCmTimeValue& CCmTimeValue::operator-=(const CCmTimeValue& aRight) {
    return *this = FromUsec(GetTotalInUsec() - aRight.GetTotalInUsec());
}

CCmTimeValue CCmTimeValue::GetTimeOfDay() { return FromUsec(CCmClock::GetTimeOfDayUsec()); }
