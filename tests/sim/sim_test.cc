// The promises of the protocol connections over simulated networks.
#include <malloc.h>

#include "talvo/connection/protocol/connection_options.h"
#include "tests/sim/sim_scenario.h"
#include "tests/sim/sim_transport.h"
#include "tests/support/network_fixture.h"

namespace {

constexpr uint64_t SEEDS = 2000;
constexpr uint64_t SEEDS_A_TEST = 250;

class SimSeedsTest : public testing::TestWithParam<uint64_t> {};

TEST_P(SimSeedsTest, KeepThePromises) {
    for (uint64_t ullSeed = GetParam(); ullSeed < GetParam() + SEEDS_A_TEST; ++ullSeed) {
        const CSimResult result = RunSeed(ullSeed);
        ASSERT_TRUE(result.m_Failures.empty())
            << "seed " << ullSeed << " (" << result.m_szKind << "), see sim_run: " << result.m_Failures.front();
    }
}

INSTANTIATE_TEST_SUITE_P(From, SimSeedsTest, testing::Range<uint64_t>(1, SEEDS + 1, SEEDS_A_TEST),
                         [](const auto& aInfo) { return std::to_string(aInfo.param); });

TEST(SimTest, SeedReplaysExactly) {
    for (uint64_t ullSeed = 1; ullSeed <= 30; ++ullSeed)
        EXPECT_EQ(RunSeed(ullSeed).m_ullDigest, RunSeed(ullSeed).m_ullDigest) << ullSeed;
    EXPECT_NE(RunSeed(1).m_ullDigest, RunSeed(2).m_ullDigest);
}

// At once, and not when the handshake's time is over.
TEST(SimTest, WhatIsCancelledOrStoppedWhileItOpensIsClosed) {
    CSimNetwork network(7);
    CTestConnectSink silent, sink;
    const CCmRefPtrT<ICmAcceptor> pSilent(new CSimAcceptor(network));
    pSilent->StartListen(&silent, CCmInetAddr("127.0.0.1", 1));
    const auto pConnector = SIM_PACKAGE_KEEPALIVE.MakeConnector(network);
    pConnector->AsycConnect(&sink, CCmInetAddr("127.0.0.1", 1));
    const auto pAcceptor = SIM_PACKAGE_KEEPALIVE.MakeAcceptor(network);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pAcceptor->StartListen(nullptr, CCmInetAddr("127.0.0.1", 2)));
    EXPECT_EQ(CM_OK, pAcceptor->StartListen(&sink, CCmInetAddr("127.0.0.1", 2)));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, pAcceptor->StartListen(&sink, CCmInetAddr("127.0.0.1", 2)));
    const CCmRefPtrT<ICmConnector> pRaw(new CSimConnector(network, FALSE));
    pRaw->AsycConnect(&silent, CCmInetAddr("127.0.0.1", 2), nullptr, nullptr);
    network.RunFor(SIM_SEC);
    EXPECT_EQ(4u, network.m_Ends.size());
    pConnector->CancelConnect();
    EXPECT_EQ(3u, network.m_Ends.size());
    pAcceptor->StopListen(CM_OK);
    EXPECT_EQ(2u, network.m_Ends.size());
    EXPECT_EQ(0u, sink.Count());
}

// Many quiet connections: an hour later there is not one object or byte more, and nobody has heard anything.
TEST(SimTest, FiveThousandConnectionsForAnHour) {
    constexpr size_t CONNECTIONS = 5000;
    const CCmInetAddr addr("127.0.0.1", CSimWorld::PORT);
    CSimNetwork network(7);
    CTestConnectSink clients, servers;
    CTestSink user;
    for (CTestConnectSink* pSink : {&clients, &servers}) {
        pSink->m_Indicated = [&user, pSink] {
            DWORD dwInterval = 60;
            pSink->m_Transports.back()->OpenWithSink(&user);
            pSink->m_Transports.back()->SetOption(CS_OPT_KEEPALIVE_INTERVAL, &dwInterval);
        };
    }
    const auto pAcceptor = SIM_PACKAGE_KEEPALIVE.MakeAcceptor(network);
    pAcceptor->StartListen(&servers, addr);
    std::vector<CCmRefPtrT<ICmConnector>> connectors;
    for (size_t i = 0; i < CONNECTIONS; ++i) {
        connectors.push_back(SIM_PACKAGE_KEEPALIVE.MakeConnector(network));
        connectors.back()->AsycConnect(&clients, addr);
        network.RunFor(3 * SIM_MSEC);
    }
    network.RunFor(60 * SIM_SEC);
    const CCmString strAlive = CCmLiveCounter::Dump();
    const size_t stBytes = mallinfo2().uordblks;
    network.RunFor(3600 * SIM_SEC);
    EXPECT_EQ(strAlive, CCmLiveCounter::Dump());
    EXPECT_LT(mallinfo2().uordblks, stBytes + 100000);
    EXPECT_EQ(std::make_pair(CONNECTIONS, CONNECTIONS), std::make_pair(clients.Count(), servers.Count()));
    EXPECT_EQ(0, user.Upcalls());
}

}  // namespace
