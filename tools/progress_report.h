// The meter made visible: from a timer, as often as the output can bear.
#pragma once

#include "talvo/talvo.h"
#include "tools/console.h"
#include "tools/progress_meter.h"

namespace tool {

// Of the main thread; the console outlives it.
class ProgressReport : private CCmTimerWrapperIDSink {
public:
    explicit ProgressReport(Console& aConsole) : m_Console(aConsole) {}

    ProgressMeter& GetMeter() { return m_Meter; }

    // Begins to report; nothing is printed while no file is under way.
    void Start();

private:
    void OnTimer(CCmTimerWrapperID* aId) override;

    Console& m_Console;
    ProgressMeter m_Meter;
    CCmTimerWrapperID m_Timer;
};

}  // namespace tool
