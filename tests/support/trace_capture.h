// The library's trace lines, for tests to look at.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "talvo/base/mutex.h"
#include "talvo/base/trace.h"

// Turns the trace on and collects every line while in scope; off again, and no sink, behind it. Levels keep their own states:
// errors, warnings and information are on from the start. Any thread may trace and look; one capture at a time.
class CCmTraceCapture : public ICmTraceSink {
public:
    struct CLine {
        DWORD m_dwLevel;
        std::string m_strModule;  // empty: none given
        std::string m_strText;
    };

    CCmTraceCapture() {
        CCmTrace::SetSink(this);
        CCmTrace::Enable(TRUE);
    }
    ~CCmTraceCapture() override {
        CCmTrace::Enable(FALSE);
        CCmTrace::SetSink(nullptr);
    }
    CCmTraceCapture(const CCmTraceCapture&) = delete;
    CCmTraceCapture& operator=(const CCmTraceCapture&) = delete;

    // How many lines hold aText anywhere.
    size_t Count(const std::string& aText) const {
        const auto lines = Lines();
        return static_cast<size_t>(std::count_if(
            lines.begin(), lines.end(), [&](const CLine& aLine) { return aLine.m_strText.find(aText) != std::string::npos; }));
    }
    BOOL Contains(const std::string& aText) const { return Count(aText) > 0; }

    // Everything so far, in order.
    std::vector<CLine> Lines() const {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        return m_Lines;
    }

    void Clear() {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        m_Lines.clear();
    }

    void OnTrace(DWORD aLevel, const char* aModule, std::string_view aText) override {
        CCmMutexGuardT<CCmMutexThread> guard(m_Mutex);
        m_Lines.push_back({aLevel, aModule ? aModule : "", std::string(aText)});
    }

private:
    mutable CCmMutexThread m_Mutex;
    std::vector<CLine> m_Lines CM_GUARDED_BY(m_Mutex);
};
