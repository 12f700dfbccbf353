#include "talvo/base/live_counter.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

// One thread fills it while the library is loaded. Later it is only read.
constinit const CCmLiveCounter* s_pCounters = nullptr;

}  // namespace

CCmLiveCounter::CCmLiveCounter(const char* aName) : m_szName(aName), m_pNext(s_pCounters) { s_pCounters = this; }

CCmString CCmLiveCounter::Dump() {
    std::vector<CCmString> lines;
    for (const CCmLiveCounter* pCounter = s_pCounters; pCounter; pCounter = pCounter->m_pNext) {
        const int32_t lValue = pCounter->m_lValue.load(std::memory_order_relaxed);
        if (lValue != 0)
            lines.push_back(CCmString(pCounter->m_szName) + " " + std::to_string(lValue) + "\n");
    }
    std::sort(lines.begin(), lines.end());
    CCmString strDump;
    for (const CCmString& strLine : lines)
        strDump += strLine;
    return strDump;
}
