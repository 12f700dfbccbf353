// No failed allocation and no failed system call ends more than what needed it: each of a scenario's fails in turn.
#include "tests/memory/scenario.h"

namespace {

class CRun : public ICmFaultScenario {
public:
    explicit CRun(const CScenario& aScenario) : m_Scenario(aScenario), m_World(aScenario.m_Library) {}
    BOOL Run() override { return m_Scenario.m_Run(m_World); }
    std::string Check() override {
        m_World.RequireClean();
        return g_szViolation ? g_szViolation : testing::Test::HasFailure() ? "an expectation" : "";
    }

private:
    const CScenario& m_Scenario;
    CWorld m_World;
};

struct CKind {
    const char* m_pName;
    CCmFaults::EKind m_Kind;
    int m_nError;
};
constexpr CKind KINDS[] = {{"OneAllocation", CCmFaults::ONE_ALLOCATION, 0},
                           {"AllocationsFrom", CCmFaults::ALLOCATIONS_FROM, 0},
                           {"Call0", CCmFaults::SYSTEM_CALL, 0},
                           {"Call1", CCmFaults::SYSTEM_CALL, 1},
                           {"Call2", CCmFaults::SYSTEM_CALL, 2}};

class FaultsTest : public testing::TestWithParam<std::tuple<CScenario, CKind>> {};

}  // namespace

TEST_P(FaultsTest, EndNothingElse) {
    const auto& [scenario, kind] = GetParam();
    const CCmFaultReport report = cm_run_faults([&] { return std::make_unique<CRun>(scenario); }, kind.m_Kind, kind.m_nError);
    for (const std::string& strFailure : report.m_Failures)
        ADD_FAILURE() << strFailure;
    std::printf("%u calls\n", report.m_dwCalls);
}

INSTANTIATE_TEST_SUITE_P(Memory, FaultsTest, testing::Combine(testing::ValuesIn(SCENARIOS), testing::ValuesIn(KINDS)),
                         [](const auto& aInfo) {
                             return std::string(std::get<0>(aInfo.param).m_szName) + std::get<1>(aInfo.param).m_pName;
                         });
