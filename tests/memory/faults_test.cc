// No failed allocation and no failed system call ends more than what needed it: each of a scenario's fails in turn.
#include "tests/memory/ends.h"
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

void PrintTo(const CKind& aKind, std::ostream* aOut) { *aOut << aKind.m_pName; }

class FaultsTest : public testing::TestWithParam<std::tuple<CScenario, CKind>> {};

}  // namespace

TEST_P(FaultsTest, EndNothingElse) {
    const auto& [scenario, kind] = GetParam();
    if (std::string_view(scenario.m_szName) == "Tls")
        CTestTls::Get();  // made in this process, which removes its files
    const CCmFaultReport report = cm_run_faults([&] { return std::make_unique<CRun>(scenario); }, kind.m_Kind, kind.m_nError);
    for (const std::string& strFailure : report.m_Failures)
        ADD_FAILURE() << strFailure;
    std::printf("%u calls\n", report.m_dwCalls);
}

// The free memory of events hides failed allocations.
TEST(ConnectProxyTest, IndicatesWithoutMemoryForEvents) {
    const CCmSafeCode safe;
    CWorld world(ELibrary::NETWORK_IS_MAIN);
    CClient client;
    const auto pConnector =
        CTestNetwork::MakeConnector(CCmConnectionManager::CTYPE_TCP | CCmConnectionManager::CTYPE_FORCE_THREAD_PROXY);
    CEventFate fate;
    std::vector<std::unique_ptr<ICmEvent>> taken(10000);
    CCmFaults::Arm(CCmFaults::ALLOCATIONS_FROM, 1);
    CWorld::Do([&] {
        for (size_t i = 0; i == 0 || taken[i - 1]; ++i)
            taken.at(i).reset(new (std::nothrow) CTestEvent(fate));
        pConnector->AsycConnect(&client, CCmInetAddr("127.0.0.1", 1));
    });
    const BOOL bIndicated = world.Run([&] { return client.m_nIndications == 1; });
    CCmFaults::Disarm();
    EXPECT_TRUE(bIndicated);
}

INSTANTIATE_TEST_SUITE_P(Memory, FaultsTest, testing::Combine(testing::ValuesIn(SCENARIOS), testing::ValuesIn(KINDS)),
                         [](const auto& aInfo) {
                             return std::string(std::get<0>(aInfo.param).m_szName) + std::get<1>(aInfo.param).m_pName;
                         });
