// The promises of the protocol connections over simulated networks.
#include <malloc.h>

#include "talvo/connection/protocol/connection_options.h"
#include "talvo/talvo.h"
#include "tests/sim/sim_scenario.h"
#include "tests/support/network_fixture.h"

namespace {

constexpr uint64_t SEEDS = 2000;
constexpr uint64_t SEEDS_A_TEST = 250;
constexpr uint64_t FORWARD_SEEDS = 3500;
constexpr DWORD PACKAGE =
    CCmConnectionManager::CTYPE_PDU_PACKAGE | CCmConnectionManager::CTYPE_PDU_KEEPALIVE | CCmConnectionManager::CTYPE_TCP;

class SimSeedsTest : public testing::TestWithParam<uint64_t> {};

TEST_P(SimSeedsTest, KeepThePromises) {
    CCmSimRun failed;
    ASSERT_TRUE(cm_sim_run_seeds(RunScenario, GetParam(), SEEDS_A_TEST, failed))
        << "seed " << failed.m_ullSeed << ", see sim_run: " << failed.m_Failures.front();
}

TEST_P(SimSeedsTest, ReliableConnectionsLoseAndDoubleNothing) {
    CCmSimRun failed;
    ASSERT_TRUE(cm_sim_run_seeds(RunReliableScenario, GetParam(), SEEDS_A_TEST, failed))
        << "seed " << failed.m_ullSeed << ", see sim_run reliable: " << failed.m_Failures.front();
}

TEST_P(SimSeedsTest, ReceiversOfASessionGetTheirMessages) {
    CCmSimRun failed;
    ASSERT_TRUE(cm_sim_run_seeds(RunForwardScenario, FORWARD_SEEDS + GetParam(), SEEDS_A_TEST / 2, failed))
        << "seed " << failed.m_ullSeed << ", see sim_run forward: " << failed.m_Failures.front();
}

INSTANTIATE_TEST_SUITE_P(From, SimSeedsTest, testing::Range<uint64_t>(1, SEEDS + 1, SEEDS_A_TEST),
                         [](const auto& aInfo) { return std::to_string(aInfo.param); });

TEST(SimTest, SeedReplaysExactly) {
    const auto digest = [](uint64_t aSeed) { return cm_sim_run(RunScenario, aSeed).m_ullDigest; };
    for (uint64_t ullSeed = 1; ullSeed <= 30; ++ullSeed)
        EXPECT_EQ(digest(ullSeed), digest(ullSeed)) << ullSeed;
    EXPECT_NE(digest(1), digest(2));
}

// At once, and not when the handshake's time is over.
TEST(SimTest, WhatIsCancelledOrStoppedWhileItOpensIsClosed) {
    CCmSimNetwork network(7);
    CTestConnectSink silent, sink;
    const auto pSilent = CTestNetwork::MakeAcceptor();
    pSilent->StartListen(&silent, CCmInetAddr("127.0.0.1", 1));
    const auto pConnector = CTestNetwork::MakeConnector(PACKAGE);
    pConnector->AsycConnect(&sink, CCmInetAddr("127.0.0.1", 1));
    const auto pAcceptor = CTestNetwork::MakeAcceptor(PACKAGE);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pAcceptor->StartListen(nullptr, CCmInetAddr("127.0.0.1", 2)));
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&sink, CCmInetAddr("127.0.0.1", 2)));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pAcceptor->StartListen(&sink, CCmInetAddr("127.0.0.1", 2)));
    const auto pRaw = CTestNetwork::MakeConnector();
    pRaw->AsycConnect(&silent, CCmInetAddr("127.0.0.1", 2), nullptr, nullptr);
    network.RunFor(CCmTimeValue(1));
    EXPECT_EQ(4u, network.CountEnds());
    pConnector->CancelConnect();
    EXPECT_EQ(3u, network.CountEnds());
    pAcceptor->StopListen(CM_OK);
    EXPECT_EQ(2u, network.CountEnds());
    EXPECT_EQ(0u, sink.Count());
}

// Many quiet connections: an hour later there is not one object or byte more, and no upcall has come.
TEST(SimTest, ThousandConnectionsForAnHour) {
    CCmSimNetwork network(7);
    std::vector<std::unique_ptr<CCmSimPair>> pairs;
    for (WORD wPort = 1; wPort <= 1000; ++wPort) {
        pairs.push_back(std::make_unique<CCmSimPair>(network, PACKAGE, CCmInetAddr("10.0.0.1", wPort)));
        for (ICmTransport* pEnd : {&pairs.back()->Client(), &pairs.back()->Server()})
            Set(*pEnd, CS_OPT_KEEPALIVE_INTERVAL, DWORD{60});
    }
    network.RunFor(CCmTimeValue(60));
    const CCmString strAlive = CCmLiveCounter::Dump();
    const size_t stBytes = mallinfo2().uordblks;
    network.RunFor(CCmTimeValue(3600));
    EXPECT_EQ(strAlive, CCmLiveCounter::Dump());
    EXPECT_LT(mallinfo2().uordblks, stBytes + 100000);
    for (const auto& pPair : pairs)
        EXPECT_EQ(0, pPair->m_Client.Upcalls() + pPair->m_Server.Upcalls());
}

}  // namespace
