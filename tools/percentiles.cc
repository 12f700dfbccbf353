#include "tools/percentiles.h"

#include <algorithm>

namespace tool {

Percentiles ComputePercentiles(std::vector<DWORD> aSamples) {
    if (aSamples.empty())
        return {};
    std::sort(aSamples.begin(), aSamples.end());
    const auto rank = [&](size_t aPercent) { return aSamples[(aSamples.size() * aPercent + 99) / 100 - 1]; };
    return {aSamples.front(), rank(50), rank(90), rank(99), aSamples.back()};
}

}  // namespace tool
