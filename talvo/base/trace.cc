#include "talvo/base/trace.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "talvo/base/clock.h"
#include "talvo/base/config.h"
#include "talvo/base/config_complaints.h"
#include "talvo/base/immortal.h"
#include "talvo/base/mutex.h"
#include "talvo/base/trace_file.h"
#include "talvo/base/with_memory.h"

ICmTraceSink::~ICmTraceSink() = default;

constinit std::atomic<DWORD> CCmTrace::s_dwMask{0};

namespace {

constexpr const char* SECTION = "Trace";
constexpr DWORD MIN_CIRCULAR_SIZE = 1024;

struct CLevel {
    const char* m_pName;
    bool m_bOn;  // the default; the configuration or the application may change it
};

constexpr CLevel UNNAMED{"NA", false};

constexpr CLevel LEVELS[CM_TRACE_LEVEL_COUNT] = {
    {"Error", true},   {"Server", true},  UNNAMED,           UNNAMED,         UNNAMED,
    UNNAMED,           UNNAMED,           UNNAMED,           UNNAMED,         UNNAMED,
    {"Warning", true}, {"Meeting", true}, {"Session", true}, {"User", true},  {"Statistic", true},
    UNNAMED,           UNNAMED,           UNNAMED,           UNNAMED,         UNNAMED,
    {"Info", true},    {"State", true},   {"PDU", false},    {"Func", false}, {"Tick", false},
    {"Detail", false}};

constexpr DWORD DefaultLevels() {
    DWORD dwLevels = 0;
    for (DWORD dw = 0; dw < CM_TRACE_LEVEL_COUNT; ++dw)
        dwLevels |= DWORD{LEVELS[dw].m_bOn} << dw;
    return dwLevels;
}

// Never destroyed, because other threads may trace until the process ends. The mutex is recursive: a sink may call the trace's
// switches, and code that holds the mutex may trace.
struct CState {
    CCmMutexThread m_Mutex;
    BOOL m_bOn CM_GUARDED_BY(m_Mutex) = FALSE;
    BOOL m_bConfigured CM_GUARDED_BY(m_Mutex) = FALSE;
    BOOL m_bWriting CM_GUARDED_BY(m_Mutex) = FALSE;  // a sink is being called
    BOOL m_bExiting CM_GUARDED_BY(m_Mutex) = FALSE;  // no later flush will come
    DWORD m_dwLevels CM_GUARDED_BY(m_Mutex) = DefaultLevels();
    ICmTraceSink* m_pSink CM_GUARDED_BY(m_Mutex) = nullptr;  // not owned
    std::unique_ptr<talvo::CCmTraceFile> m_pFile CM_GUARDED_BY(m_Mutex);
};

CState& State() {
    static talvo::CImmortalT<CState> s_State;
    return *s_State;
}

using StateGuard = CCmMutexGuardT<CCmMutexThread>;

// "[month/day/year hour:minute:second.millisecond pid= tid=] " in local time.
std::string LineHead() {
    const int64_t llUsec = CCmClock::GetWallUsec();
    const time_t tNow = static_cast<time_t>(llUsec / 1000000);
    const int nMsec = static_cast<int>(llUsec % 1000000 / 1000);
    tm local{};
    localtime_r(&tNow, &local);
    char szHead[128];
    std::snprintf(szHead, sizeof(szHead), "[%02d/%02d/%04d %02d:%02d:%02d.%03d pid=%d tid=%d] ", local.tm_mon + 1,
                  local.tm_mday, local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec, nMsec,
                  static_cast<int>(getpid()), static_cast<int>(cm_thread_self_id()));
    return szHead;
}

std::string FormatLine(const char* aModule, std::string_view aText) {
    std::string strLine = LineHead();
    if (aModule)
        strLine.append(aModule).append(":");
    return strLine.append(aText).append("\n");
}

void StopBufferingAtExit() {
    CState& state = State();
    StateGuard guard(state.m_Mutex);
    state.m_bExiting = TRUE;
    if (state.m_pFile)
        state.m_pFile->StopBuffering();
}

DWORD ConfiguredLevels(DWORD aLevels) {
    char szKey[256];
    for (DWORD dw = 0; dw < CM_TRACE_LEVEL_COUNT; ++dw) {
        if (LEVELS[dw].m_pName == UNNAMED.m_pName)
            continue;
        const DWORD dwBit = 1u << dw;
        std::snprintf(szKey, sizeof(szKey), "%s.%s", program_invocation_short_name, LEVELS[dw].m_pName);
        const bool bOn = get_bool_param(SECTION, szKey, (aLevels & dwBit) != 0);
        aLevels = bOn ? aLevels | dwBit : aLevels & ~dwBit;
    }
    return aLevels;
}

// A value out of range becomes the nearest in range, so that a wrong value in the file does not disable the trace.
CCmTraceFileSettings ConfiguredFile() {
    CCmTraceFileSettings settings;
    settings.m_strPath = get_string_param(SECTION, "Path", "");
    settings.m_bCircular = get_bool_param(SECTION, "Circular", false);
    settings.m_dwMaxSize = std::max(get_uint32_param(SECTION, "MaxSize", settings.m_dwMaxSize), MIN_CIRCULAR_SIZE);
    settings.m_dwFlushPerLines = std::max(get_uint32_param(SECTION, "FlushPerLines", settings.m_dwFlushPerLines), 1u);
    return settings;
}

CmResult OpenFile_l(CState& aState, const CCmTraceFileSettings& aSettings) CM_REQUIRES(aState.m_Mutex) {
    aState.m_pFile.reset();
    if (aSettings.m_strPath.empty())
        return CM_OK;
    aState.m_pFile = talvo::CCmTraceFile::Open(aSettings);
    if (!aState.m_pFile) {
        CM_ERROR_TRACE("CCmTrace::SetFile, can't open file. path=" << aSettings.m_strPath << " errno=" << errno);
        return CM_ERROR_FAILURE;
    }
    if (aState.m_bExiting)
        aState.m_pFile->StopBuffering();
    static const int s_nRegistered = std::atexit(StopBufferingAtExit);
    static_cast<void>(s_nRegistered);
    return CM_OK;
}

// Reads with the lock held, so that no other thread overtakes it. No deadlock: the configuration never waits for the trace
// while it holds its own lock.
void ReadSwitches_l(CState& aState) CM_REQUIRES(aState.m_Mutex) {
    aState.m_bConfigured = TRUE;
    aState.m_dwLevels = ConfiguredLevels(aState.m_dwLevels);
    aState.m_bOn = get_bool_param(SECTION, "Enable", aState.m_bOn != FALSE);
}

// Runs after the switches are read, so that a failure to open the file is traced.
void OpenConfiguredFile_l(CState& aState) CM_REQUIRES(aState.m_Mutex) {
    CCmTraceFileSettings settings;
    if (talvo::WithMemory([&] { settings = ConfiguredFile(); }) && !settings.m_strPath.empty())
        OpenFile_l(aState, settings);
}

DWORD Mask_l(const CState& aState) CM_REQUIRES(aState.m_Mutex) { return aState.m_bOn ? aState.m_dwLevels : 0; }

}  // namespace

void CCmTrace::Enable(BOOL aOn) {
    CState& state = State();
    {
        StateGuard guard(state.m_Mutex);
        const BOOL bFirst = !state.m_bConfigured;
        if (bFirst)
            ReadSwitches_l(state);
        state.m_bOn = aOn;
        s_dwMask.store(Mask_l(state), std::memory_order_relaxed);
        if (bFirst)
            OpenConfiguredFile_l(state);
    }
    talvo::TraceConfigComplaints();
}

CmResult CCmTrace::SetLevel(DWORD aLevel, BOOL aOn) {
    if (aLevel >= CM_TRACE_LEVEL_COUNT)
        return CM_ERROR_INVALID_ARG;
    ReadConfigurationOnce();
    CState& state = State();
    StateGuard guard(state.m_Mutex);
    const DWORD dwBit = 1u << aLevel;
    state.m_dwLevels = aOn ? state.m_dwLevels | dwBit : state.m_dwLevels & ~dwBit;
    s_dwMask.store(Mask_l(state), std::memory_order_relaxed);
    return CM_OK;
}

const char* CCmTrace::GetLevelName(DWORD aLevel) { return aLevel < CM_TRACE_LEVEL_COUNT ? LEVELS[aLevel].m_pName : nullptr; }

void CCmTrace::SetSink(ICmTraceSink* aSink) {
    CState& state = State();
    StateGuard guard(state.m_Mutex);
    state.m_pSink = aSink;
}

CmResult CCmTrace::SetFile(const CCmTraceFileSettings& aSettings) {
    if (aSettings.m_dwFlushPerLines < 1 || (aSettings.m_bCircular && aSettings.m_dwMaxSize < MIN_CIRCULAR_SIZE))
        return CM_ERROR_INVALID_ARG;
    ReadConfigurationOnce();
    CState& state = State();
    StateGuard guard(state.m_Mutex);
    return OpenFile_l(state, aSettings);
}

void CCmTrace::Flush() {
    CState& state = State();
    StateGuard guard(state.m_Mutex);
    if (state.m_pFile)
        state.m_pFile->Flush();
}

void CCmTrace::ReadConfiguration() {
    CState& state = State();
    {
        StateGuard guard(state.m_Mutex);
        ReadSwitches_l(state);
        s_dwMask.store(Mask_l(state), std::memory_order_relaxed);
        OpenConfiguredFile_l(state);
    }
    talvo::TraceConfigComplaints();
}

void CCmTrace::ReadConfigurationOnce() {
    CState& state = State();
    StateGuard guard(state.m_Mutex);
    if (!state.m_bConfigured)
        ReadConfiguration();
}

void CCmTrace::Write(DWORD aLevel, const char* aModule, std::string_view aText) {
    if (aLevel >= CM_TRACE_LEVEL_COUNT)
        return;
    CState& state = State();
    StateGuard guard(state.m_Mutex);
    if (state.m_bWriting)
        return;
    if (talvo::CCmTraceFile* pFile = state.m_pFile.get())
        talvo::WithMemory([&] { pFile->WriteLine(FormatLine(aModule, aText), aLevel == CM_TRACE_ERROR); });
    if (!state.m_pSink)
        return;
    state.m_bWriting = TRUE;
    state.m_pSink->OnTrace(aLevel, aModule, aText);
    state.m_bWriting = FALSE;
}
