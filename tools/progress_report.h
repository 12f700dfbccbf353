// Prints the meter from a timer, as often as suits the output.
#pragma once

#include "talvo/talvo.h"
#include "tools/console.h"
#include "tools/progress_meter.h"

namespace tool {

// Main thread. The console outlives it.
class ProgressReport : private CCmTimerWrapperIDSink {
public:
    explicit ProgressReport(Console& aConsole) : m_Console(aConsole) {}

    ProgressMeter& GetMeter() { return m_Meter; }

    // Begins to report. Prints nothing while no file is under way.
    void Start();

private:
    void OnTimer(CCmTimerWrapperID* aId) override;
    void Report();

    Console& m_Console;
    ProgressMeter m_Meter;
    CCmTimerWrapperID m_Timer;
};

}  // namespace tool
