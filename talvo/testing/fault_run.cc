#include <execinfo.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include "talvo/testing/faults.h"

namespace {

constexpr unsigned MAX_SECONDS = 30;  // of a run
constexpr int RUNS_BEFORE = 2;        // without a fault, for what the first ones keep

// The report of the process that runs the scenario to the one that judges.
struct CShared {
    DWORD m_dwNth = 1;
    bool m_bBegun = false, m_bDone = false;
    char m_szText[200] = "";
    CCmFaults::CPlace m_Place{};
};

[[noreturn]] void EndFailed(CShared& aShared, const char* aText) {
    std::snprintf(aShared.m_szText, sizeof aShared.m_szText, "%s", aText);
    _exit(1);
}

BOOL RunOnce(CShared& aShared, ICmFaultScenario& aScenario) {
    BOOL bDone = FALSE;
    try {
        bDone = aScenario.Run();
    } catch (const std::exception& e) {
        CCmFaults::Disarm();
        EndFailed(aShared, e.what());
    }
    CCmFaults::Disarm();
    if (const std::string strBroken = aScenario.Check(); !strBroken.empty())
        EndFailed(aShared, strBroken.c_str());
    return bDone;
}

// In the child process, which ends with the first failure.
[[noreturn]] void RunFrom(CShared& aShared, ICmFaultScenario& aScenario, CCmFaults::EKind aKind, int aError) {
    for (int i = 0; i < RUNS_BEFORE; ++i) {
        if (!RunOnce(aShared, aScenario))
            EndFailed(aShared, "fails without a fault");
    }
    aShared.m_bBegun = true;
    CCmFaults::RecordAt(&aShared.m_Place);
    for (;; ++aShared.m_dwNth) {
        alarm(MAX_SECONDS);
        aShared.m_Place.m_nDepth = 0;
        CCmFaults::Arm(aKind, aShared.m_dwNth, aError);
        RunOnce(aShared, aScenario);
        if (!CCmFaults::HasFired())
            break;
        if (!RunOnce(aShared, aScenario))
            EndFailed(aShared, "does not recover");
    }
    aShared.m_bDone = true;
    _exit(0);
}

// With the library's part of the stack.
std::string TextOf(const CShared& aShared, int aStatus) {
    const CCmFaults::CPlace& place = aShared.m_Place;
    std::string strText = std::to_string(aShared.m_dwNth) + " " + (place.m_pCall ? place.m_pCall : "none") + ": " +
                          aShared.m_szText + " status=" + std::to_string(aStatus);
    char** ppSymbols = backtrace_symbols(place.m_Stack, place.m_nDepth);
    for (int i = 0; ppSymbols && i < place.m_nDepth; ++i) {
        if (std::strstr(ppSymbols[i], "libtalvo"))
            strText += std::string("\n    ") + ppSymbols[i];
    }
    std::free(ppSymbols);
    return strText;
}

}  // namespace

CCmFaultReport cm_run_faults(const std::function<std::unique_ptr<ICmFaultScenario>()>& aMake, CCmFaults::EKind aKind,
                             int aError) {
    CCmFaultReport report;
    void* pMemory = mmap(nullptr, sizeof(CShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pMemory == MAP_FAILED) {
        report.m_Failures.emplace_back("no shared memory");
        return report;
    }
    auto& shared = *new (pMemory) CShared;
    while (!shared.m_bDone) {
        const pid_t child = fork();
        if (child == 0) {
            const CCmSafeCode safe;
            RunFrom(shared, *aMake(), aKind, aError);
        }
        int nStatus = 0;
        if (child == -1 || waitpid(child, &nStatus, 0) != child) {
            report.m_Failures.emplace_back("no child process");
            break;
        }
        if (shared.m_bDone)
            break;
        report.m_Failures.push_back(TextOf(shared, nStatus));
        if (!shared.m_bBegun)
            break;
        shared.m_szText[0] = '\0';
        ++shared.m_dwNth;
    }
    report.m_dwCalls = shared.m_dwNth - 1;
    munmap(pMemory, sizeof(CShared));
    return report;
}
