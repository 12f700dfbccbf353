#include "tools/progress_meter.h"

#include "talvo/talvo.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr int64_t USEC = 1000000;
constexpr int64_t WINDOW_USEC = 5 * USEC;

}  // namespace

void ProgressMeter::Begin(uint64_t aSize) {
    if (m_nFiles++ == 0)
        m_Points = {{CCmClock::GetTimeOfDayUsec(), m_ullMoved}};
    m_ullTotal += aSize;
}

void ProgressMeter::Advance(uint64_t aBytes) {
    m_ullDone += aBytes;
    m_ullMoved += aBytes;
}

void ProgressMeter::End(uint64_t aSize, uint64_t aMoved) {
    --m_nFiles;
    m_ullTotal -= aSize;
    m_ullDone -= aMoved;
}

ProgressSample ProgressMeter::Sample() {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    Forget(llNow);
    ProgressSample sample{m_ullDone, m_ullTotal, 0, -1};
    if (!m_Points.empty() && llNow > m_Points.front().m_llUsec) {
        const double dSeconds = static_cast<double>(llNow - m_Points.front().m_llUsec) / USEC;
        sample.m_ullRate = static_cast<uint64_t>(static_cast<double>(m_ullMoved - m_Points.front().m_ullMoved) / dSeconds);
    }
    if (sample.m_ullRate > 0 && m_ullTotal >= m_ullDone)
        sample.m_llSecondsLeft = static_cast<int64_t>((m_ullTotal - m_ullDone + sample.m_ullRate - 1) / sample.m_ullRate);
    m_Points.push_back({llNow, m_ullMoved});
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
