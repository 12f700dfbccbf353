#include "benchmarks/support/report.h"

#include <cstdio>

namespace bench {

void CReport::Add(const std::string& aName, double aValue) {
    char szValue[40];
    std::snprintf(szValue, sizeof(szValue), "%.6g", aValue);
    m_strFields += (m_strFields.empty() ? "\"" : ", \"") + aName + "\": " + szValue;
}

void CReport::Print() const {
    std::printf("{%s}\n", m_strFields.c_str());
    std::fflush(stdout);
}

}  // namespace bench
