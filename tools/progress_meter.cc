#include "tools/progress_meter.h"

#include "talvo/talvo.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr int64_t USEC = 1000000;
constexpr int64_t WINDOW_USEC = 5 * USEC;

}  // namespace

void ProgressMeter::Begin() {
    if (m_nTransfers++ > 0)
        return;
    m_ullTotal = m_ullDone = 0;
    m_Points = {{CCmClock::GetTimeOfDayUsec(), 0}};
}

void ProgressMeter::End() { --m_nTransfers; }

ProgressSample ProgressMeter::Sample() {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    Forget(llNow);
    const uint64_t ullLeft = m_ullTotal - m_ullDone;
    const bool bKnown = m_nSearches == 0 && ullLeft <= uint64_t{INT64_MAX};
    ProgressSample sample{m_ullDone, bKnown ? m_ullTotal : 0, 0, -1};
    if (!m_Points.empty() && llNow > m_Points.front().m_llUsec) {
        const double dSeconds = static_cast<double>(llNow - m_Points.front().m_llUsec) / USEC;
        sample.m_ullRate = static_cast<uint64_t>(static_cast<double>(m_ullDone - m_Points.front().m_ullDone) / dSeconds);
    }
    if (sample.m_ullRate > 0 && bKnown)
        sample.m_llSecondsLeft = static_cast<int64_t>((ullLeft + sample.m_ullRate - 1) / sample.m_ullRate);
    m_Points.push_back({llNow, m_ullDone});
    return sample;
}

// Keeps the newest sample that is as old as the window, so that the rate always covers the whole window.
void ProgressMeter::Forget(int64_t aNow) {
    while (m_Points.size() > 1 && m_Points[1].m_llUsec <= aNow - WINDOW_USEC)
        m_Points.pop_front();
}

std::string FormatProgress(const ProgressSample& aSample) {
    std::string strText = FormatBytes(aSample.m_ullDone);
    if (aSample.m_ullTotal > 0) {
        strText += " of " + FormatBytes(aSample.m_ullTotal);
        const double dPart = static_cast<double>(aSample.m_ullDone) / static_cast<double>(aSample.m_ullTotal);
        strText += " (" + std::to_string(static_cast<int>(dPart * 100)) + "%)";
    }
    strText += ", " + FormatBytes(aSample.m_ullRate) + "/s";
    if (aSample.m_llSecondsLeft >= 0)
        strText += ", " + FormatDuration(static_cast<uint64_t>(aSample.m_llSecondsLeft)) + " left";
    return strText;
}

}  // namespace tool
