#include "tools/sparkline.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>

namespace tool {

namespace {

constexpr const char* BARS[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};

bool HasUtf8() {
    for (const char* pName : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* pValue = std::getenv(pName);
        if (pValue && *pValue)
            return std::string(pValue).find("UTF-8") != std::string::npos ||
                   std::string(pValue).find("utf8") != std::string::npos;
    }
    return false;
}

}  // namespace

std::string MakeSparkline(const std::vector<DWORD>& aValues, size_t aWidth) {
    const size_t stPerBar = (aValues.size() + aWidth - 1) / std::max<size_t>(aWidth, 1);
    if (stPerBar == 0 || !HasUtf8())
        return "";
    std::vector<double> vecMeans;
    for (size_t i = 0; i < aValues.size(); i += stPerBar) {
        const size_t stEnd = std::min(i + stPerBar, aValues.size());
        const double dSum =
            std::accumulate(aValues.begin() + static_cast<long>(i), aValues.begin() + static_cast<long>(stEnd), 0.0);
        vecMeans.push_back(dSum / static_cast<double>(stEnd - i));
    }
    const auto [itLeast, itMost] = std::minmax_element(vecMeans.begin(), vecMeans.end());
    const double dRange = std::max(*itMost - *itLeast, 1.0);
    std::string strBars;
    for (const double dMean : vecMeans)
        strBars += BARS[static_cast<size_t>((dMean - *itLeast) / dRange * 7.0)];
    return strBars;
}

}  // namespace tool
