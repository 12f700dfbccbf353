#include "tools/rate_limit.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "talvo/talvo.h"

namespace tool {

namespace {

constexpr double USEC = 1e6;
constexpr double MOST = 1e15;
constexpr int64_t CATCH_UP = 50000;  // microseconds by which a late call may exceed the rate

// 0: not a unit.
double GetUnit(std::string_view aText) {
    constexpr std::string_view UNITS = "kMG";
    if (aText.empty())
        return 1;
    const size_t stUnit = aText.size() == 1 ? UNITS.find(aText.front() == 'K' ? 'k' : aText.front()) : std::string_view::npos;
    return stUnit == std::string_view::npos ? 0 : stUnit == 0 ? 1e3 : stUnit == 1 ? 1e6 : 1e9;
}

}  // namespace

int64_t RateLimit::Count(uint64_t aBytes) {
    if (m_ullRate == 0)
        return 0;
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    const double dUsec = static_cast<double>(aBytes) * USEC / static_cast<double>(m_ullRate);
    m_llPaid = (m_llPaid == -1 ? llNow : std::max(m_llPaid, llNow - CATCH_UP)) + static_cast<int64_t>(dUsec);
    return std::max<int64_t>(m_llPaid - llNow, 0);
}

bool ParseRate(const std::string& aText, uint64_t& aRate) {
    double dNumber = 0;
    const char* pEnd = aText.data() + aText.size();
    const auto [pUnit, error] = std::from_chars(aText.data(), pEnd, dNumber, std::chars_format::fixed);
    const double dRate = dNumber * GetUnit(std::string_view(pUnit, static_cast<size_t>(pEnd - pUnit)));
    if (error != std::errc() || !(dRate >= 1 && dRate <= MOST))
        return false;
    aRate = static_cast<uint64_t>(dRate);
    return true;
}

}  // namespace tool
