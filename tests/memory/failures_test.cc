// No failed allocation and no failed system call ends more than what needed it: each of a scenario's fails in turn.
#include <execinfo.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "tests/memory/scenario.h"

namespace {

struct CCase {
    const CScenario* m_pScenario;
    const char* m_szName;
    CFailures::EKind m_Kind;
    int m_nError;
};

// What the process that runs the scenarios tells the one that judges.
struct CShared {
    uint32_t m_dwNth;
    bool m_bBegun, m_bDone;
    char m_szText[200];
    CFailures::CPlace m_Place;
};

void Fail(CShared& aShared, const char* aText) {
    std::snprintf(aShared.m_szText, sizeof aShared.m_szText, "%s", aText);
    _exit(1);
}

bool RunScenario(CShared& aShared, const CScenario& aScenario, CWorld& aWorld) {
    bool bDone = false;
    try {
        bDone = aScenario.m_Run(aWorld);
    } catch (const std::exception& e) {
        CFailures::Disarm();
        Fail(aShared, e.what());
    }
    aWorld.RequireClean();
    if (g_szViolation || testing::Test::HasFailure())
        Fail(aShared, g_szViolation ? g_szViolation : "an expectation");
    return bDone;
}

// In a process of its own, which ends with the first violation.
[[noreturn]] void RunFrom(CShared& aShared, const CCase& aCase) {
    const CTestCode test;
    const CScenario& scenario = *aCase.m_pScenario;
    CWorld world(scenario.m_Library);
    for (int i = 0; i < 2; ++i) {
        if (!RunScenario(aShared, scenario, world))
            Fail(aShared, "fails without a failure");
    }
    aShared.m_bBegun = true;
    CFailures::RecordAt(&aShared.m_Place);
    for (;; ++aShared.m_dwNth) {
        alarm(30);
        aShared.m_Place.m_nDepth = 0;
        CFailures::Arm(aCase.m_Kind, aShared.m_dwNth, aCase.m_nError);
        RunScenario(aShared, scenario, world);
        if (!CFailures::HasFired())
            break;
        if (!RunScenario(aShared, scenario, world))
            Fail(aShared, "does not recover");
    }
    aShared.m_bDone = true;
    _exit(0);
}

// With the library's part of the stack.
std::string TextOf(const CShared& aShared, int aStatus) {
    std::string strText = std::to_string(aShared.m_dwNth) + " " +
                          (aShared.m_Place.m_szCall ? aShared.m_Place.m_szCall : "none") + ": " + aShared.m_szText +
                          " status=" + std::to_string(aStatus) + "\n";
    char** ppSymbols = backtrace_symbols(aShared.m_Place.m_Stack, aShared.m_Place.m_nDepth);
    for (int i = 0; i < aShared.m_Place.m_nDepth; ++i) {
        if (std::strstr(ppSymbols[i], "libtalvo"))
            strText += std::string("    ") + ppSymbols[i] + "\n";
    }
    std::free(ppSymbols);
    return strText;
}

class FailuresTest : public testing::TestWithParam<CCase> {};

}  // namespace

TEST_P(FailuresTest, EndNothingElse) {
    void* pMemory = mmap(nullptr, sizeof(CShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, pMemory);
    auto& shared = *new (pMemory) CShared{};
    std::string strFailures;
    for (shared.m_dwNth = 1; !shared.m_bDone; ++shared.m_dwNth) {
        shared.m_szText[0] = '\0';
        const pid_t child = fork();
        if (child == 0)
            RunFrom(shared, GetParam());
        int nStatus = 0;
        ASSERT_EQ(child, waitpid(child, &nStatus, 0));
        if (shared.m_bDone)
            break;
        strFailures += TextOf(shared, nStatus);
        if (!shared.m_bBegun)
            break;
    }
    EXPECT_TRUE(strFailures.empty()) << strFailures;
    std::printf("%u calls\n", shared.m_dwNth - 1);
    munmap(pMemory, sizeof(CShared));
}

static std::vector<CCase> AllCases() {
    std::vector<CCase> all;
    for (const CScenario& scenario : SCENARIOS) {
        all.push_back({&scenario, "OneAllocation", CFailures::ONE_ALLOCATION, 0});
        all.push_back({&scenario, "AllocationsFrom", CFailures::ALLOCATIONS_FROM, 0});
        for (const char* szName : {"Call0", "Call1", "Call2"})
            all.push_back({&scenario, szName, CFailures::SYSTEM_CALL, szName[4] - '0'});
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(Memory, FailuresTest, testing::ValuesIn(AllCases()), [](const auto& aInfo) {
    return std::string(aInfo.param.m_pScenario->m_szName) + aInfo.param.m_szName;
});
