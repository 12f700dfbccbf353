// Trace: lines with time stamps on 26 levels, to a file and to a sink of the application. Any thread.
//
// A line is dropped if there is no memory for its file form. No function here throws.
//
// The trace is off until the configuration or the application enables it. A level that is off costs one load and one branch:
// the macro does not evaluate its text. The text is the body of a lambda, in which Clang before 16 supports no structured
// bindings. docs/configuration.md lists the keys of the section "Trace", docs/trace.md the file formats.
#pragma once

#include <atomic>
#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/trace_text.h"
#include "talvo/base/types.h"

// The levels of the trace. Each is switched on its own.
enum ECmTraceLevel : CmDword {
    CM_TRACE_ERROR = 0,
    CM_TRACE_SERVER = 1,
    CM_TRACE_WARNING = 10,
    CM_TRACE_MEETING = 11,
    CM_TRACE_SESSION = 12,
    CM_TRACE_USER = 13,
    CM_TRACE_STATISTIC = 14,
    CM_TRACE_INFO = 20,
    CM_TRACE_STATE = 21,
    CM_TRACE_PDU = 22,
    CM_TRACE_FUNC = 23,
    CM_TRACE_TICK = 24,
    CM_TRACE_DETAIL = 25,
    CM_TRACE_LEVEL_COUNT = 26
};

// Receives trace lines for the application's own log.
class TALVO_API ICmTraceSink {
public:
    // One line, in the thread that traced it and with the trace's lock held, so that lines come one at a time and in order. Do
    // not wait for another thread here and do not throw. Lines that the sink itself causes are dropped. aModule is null unless
    // one was given. aText has no time stamp and no line end, and is valid during the call.
    virtual void OnTrace(CmDword aLevel, const char* aModule, std::string_view aText) = 0;
    virtual ~ICmTraceSink();
};

// The path of a trace file and its mode.
struct CCmTraceFileSettings {
    CCmString m_strPath;              // empty: no file
    CmBool m_bCircular = CM_FALSE;    // one file of at most m_dwMaxSize bytes, used as a ring
    CmDword m_dwMaxSize = 10u << 20;  // bytes; circular mode only, at least 1,024
    CmDword m_dwFlushPerLines = 1;    // lines buffered between writes to the file, at least 1; level 0 is written at once
};

// The trace: lines of text on 26 levels, to a file and a sink. Any thread.
class TALVO_API CCmTrace {
public:
    // One load and one branch. FALSE for every level while the trace is off.
    static CmBool IsEnabled(CmDword aLevel) { return (s_dwMask.load(std::memory_order_relaxed) >> (aLevel & 31)) & 1; }

    // Switches the whole trace on or off; the levels keep their own states. If the configuration has not been read yet, this
    // function, SetLevel and SetFile read it first.
    static void Enable(CmBool aOn);

    // Switches one level. CM_ERROR_INVALID_ARG: aLevel exceeds 25.
    static CmResult SetLevel(CmDword aLevel, CmBool aOn);

    // The level's name ("Error", "NA", ...); null above 25.
    static const char* GetLevelName(CmDword aLevel);

    // Sends lines to aSink as well (null: no sink). Not owned. After the return no call of the previous sink is under way,
    // except one that the caller itself is in.
    static void SetSink(ICmTraceSink* aSink);

    // Opens the file, after it has written out and closed the previous one. CM_ERROR_FAILURE: it cannot be opened, and no line
    // goes to a file from now on. CM_ERROR_INVALID_ARG: a size or count is out of range.
    static CmResult SetFile(const CCmTraceFileSettings& aSettings);

    // Writes the buffered lines to the file.
    static void Flush();

    // Reads the section "Trace" of the configuration: levels, "Enable", the file and its mode. A setting without a key does not
    // change. Call it again after the configuration was replaced.
    static void ReadConfiguration();

    // The same, unless it was read before. The first use of the thread manager calls it; call it earlier to trace from the
    // start.
    static void ReadConfigurationOnce();

    // The macros call it with a line of an enabled level. aModule may be null.
    static void Write(CmDword aLevel, const char* aModule, std::string_view aText);

    // The same with the text that aFill writes. Never inlined, so that neither the text nor aFill burdens the code that traces.
    template <class Function>
    [[gnu::cold, gnu::noinline]] static void WriteText(CmDword aLevel, const Function& aFill) {
        CCmTraceText text;
        aFill(text);
        Write(aLevel, nullptr, text.GetText());
    }

private:
    static std::atomic<CmDword> s_dwMask;  // bit n: both level n and the trace are on
};

// Writes a line if its level is enabled. aText: values joined by <<, evaluated only then.
#define CM_TRACE(aLevel, aText)                                                                    \
    do {                                                                                           \
        if (CCmTrace::IsEnabled(aLevel))                                                           \
            CCmTrace::WriteText(aLevel, [&](CCmTraceText& cmTraceText) { cmTraceText << aText; }); \
    } while (0)

// A line of level CM_TRACE_ERROR.
#define CM_ERROR_TRACE(aText) CM_TRACE(CM_TRACE_ERROR, aText)
// A line of level CM_TRACE_WARNING.
#define CM_WARNING_TRACE(aText) CM_TRACE(CM_TRACE_WARNING, aText)
// A line of level CM_TRACE_INFO.
#define CM_INFO_TRACE(aText) CM_TRACE(CM_TRACE_INFO, aText)

// The same, with " this=" and the object's address appended.
#define CM_ERROR_TRACE_THIS(aText) CM_ERROR_TRACE(aText << " this=" << this)
// Likewise.
#define CM_WARNING_TRACE_THIS(aText) CM_WARNING_TRACE(aText << " this=" << this)
// Likewise.
#define CM_INFO_TRACE_THIS(aText) CM_INFO_TRACE(aText << " this=" << this)
