#include "benchmarks/support/report.h"

#include <cstdio>

namespace bench {

void CReport::Add(const std::string& aName, double aValue) {
    char szValue[40];
    std::snprintf(szValue, sizeof(szValue), "%.6g", aValue);
    m_strFields += (m_strFields.empty() ? "\"" : ",\"") + aName + "\":" + szValue;
}

void CReport::Print() const {
    std::printf("{%s}\n", m_strFields.c_str());
    std::fflush(stdout);
}

void PrintCost(const std::string& aName, double aNs) {
    std::printf("{\"name\":\"%s\",\"ns\":%.6g}\n", aName.c_str(), aNs);
    std::fflush(stdout);
}

void PrintCost(const std::string& aName, const CHistogram& aTimes) {
    std::printf("{\"name\":\"%s\",\"ns\":%.6g,\"p99_ns\":%.6g}\n", aName.c_str(), aTimes.PercentileUs(0.5) * 1000,
                aTimes.PercentileUs(0.99) * 1000);
    std::fflush(stdout);
}

}  // namespace bench
