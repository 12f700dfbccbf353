#include "tools/progress_report.h"

#include "tools/memory.h"

namespace tool {

namespace {

// On a terminal a line is replaced; elsewhere the lines accumulate.
CCmTimeValue GetInterval(Console::EOutput aOutput) {
    switch (aOutput) {
    case Console::TERMINAL:
        return CCmTimeValue(0, 200000);
    case Console::JSON:
        return CCmTimeValue(1);
    case Console::PIPE:
        break;
    }
    return CCmTimeValue(5);
}

}  // namespace

void ProgressReport::Start() { m_Timer.Schedule(this, GetInterval(m_Console.GetOutput())); }

// Without memory for it a line is left out.
void ProgressReport::OnTimer(CCmTimerWrapperID*) {
    if (!m_Meter.IsIdle())
        talvo::WithMemory([this] { Report(); });
}

void ProgressReport::Report() {
    const ProgressSample sample = m_Meter.Sample();
    m_Console.Progress(FormatProgress(sample), JsonLine("progress")
                                                   .Add("bytes", sample.m_ullDone)
                                                   .Add("size", sample.m_ullTotal)
                                                   .Add("bytes_per_second", sample.m_ullRate)
                                                   .Add("seconds_left", sample.m_llSecondsLeft));
}

}  // namespace tool
