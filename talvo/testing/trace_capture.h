// The library's trace lines, for tests that check them.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "talvo/base/mutex.h"
#include "talvo/base/trace.h"

// Enables the trace and collects every line while in scope; afterwards the trace is off, without a sink. Levels keep their own
// states: errors, warnings and information are on from the start. Any thread may trace and read. One capture at a time.
class CCmTraceCapture : public ICmTraceSink {
public:
    // Captures from now on.
    CCmTraceCapture() {
        CCmTrace::SetSink(this);
        CCmTrace::Enable(CM_TRUE);
    }
    ~CCmTraceCapture() override {
        CCmTrace::Enable(CM_FALSE);
        CCmTrace::SetSink(nullptr);
    }
    CCmTraceCapture(const CCmTraceCapture&) = delete;
    CCmTraceCapture& operator=(const CCmTraceCapture&) = delete;

    // The number of lines that contain aText.
    size_t Count(const std::string& aText) const {
        const auto lines = Lines();
        return static_cast<size_t>(std::count_if(
            lines.begin(), lines.end(), [&](const std::string& aLine) { return aLine.find(aText) != std::string::npos; }));
    }
    CmBool Contains(const std::string& aText) const { return Count(aText) > 0; }  // a line has aText

    // All lines so far, in order.
    std::vector<std::string> Lines() const {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        return m_Lines;
    }

    // Forgets the lines.
    void Clear() {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        m_Lines.clear();
    }

    void OnTrace(CmDword, const char*, std::string_view aText) override {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        m_Lines.emplace_back(aText);
    }

private:
    mutable CCmMutexThread m_Mutex;
    std::vector<std::string> m_Lines CM_GUARDED_BY(m_Mutex);
};
