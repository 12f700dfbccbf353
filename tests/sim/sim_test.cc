// The promises of the protocol connections over simulated networks, and their times to the millisecond.
#include <gtest/gtest.h>
#include <malloc.h>

#include "talvo/base/live_counter.h"
#include "talvo/connection/connection_options.h"
#include "tests/sim/sim_scenario.h"
#include "tests/sim/sim_transport.h"

namespace {

constexpr uint64_t SEEDS = 2000;
constexpr uint64_t SEEDS_A_TEST = 250;
const CCmInetAddr SERVER("127.0.0.1", CSimWorld::PORT);

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

// Somebody at either level who writes down what he hears and when, in milliseconds.
class CWitness : public ICmTransportSink, public ICmAcceptorConnectorSink {
public:
    explicit CWitness(CSimNetwork& aNetwork) : m_Network(aNetwork) {}

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        Write_i("connect " + std::to_string(aReason));
        if (!aTrpt)
            return;
        m_Conns.push_back(aTrpt);
        aTrpt->OpenWithSink(this);
        DWORD dwInterval = m_dwInterval;
        aTrpt->SetOption(CS_OPT_KEEPALIVE_INTERVAL, &dwInterval);
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        Write_i("receive " + std::to_string(aData.GetTopLevelReadPtr()[0]));  // the type of a raw PDU
        if (!m_strAnswer.empty())
            Send(std::exchange(m_strAnswer, {}));
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult aReason, ICmTransport*) override { Write_i("disconnect " + std::to_string(aReason)); }

    void Send(const std::string& aText) {
        const auto dwLength = static_cast<DWORD>(aText.size());
        CCmMessageBlock block(dwLength, aText.data(), CCmMessageBlock::DONT_DELETE, dwLength);
        EXPECT_EQ(CM_OK, m_Conns.back()->SendData(block));
    }
    std::vector<std::string> Take() { return std::exchange(m_Lines, {}); }

    CSimNetwork& m_Network;
    int64_t m_llSince = 0;
    DWORD m_dwInterval = 15;
    std::string m_strAnswer;  // to the first thing received
    std::vector<CCmRefPtrT<ICmTransport>> m_Conns;

private:
    void Write_i(const std::string& aWhat) {
        m_Lines.push_back(std::to_string((m_Network.Now() - m_llSince) / SIM_MSEC) + " " + aWhat);
    }
    std::vector<std::string> m_Lines;
};

using Lines = std::vector<std::string>;

// Both ends in calm weather: the connect takes 2 ms, what is sent 1 ms.
class SimTimesTest : public testing::Test {
protected:
    // The server's end is a connection of aKind, or raw.
    void Listen(const CSimKind& aKind, BOOL aRaw = FALSE) {
        m_pAcceptor = aRaw ? CCmRefPtrT<ICmAcceptor>(new CSimAcceptor(m_Network)) : MakeSimAcceptor(m_Network, aKind);
        ASSERT_EQ(CM_OK, m_pAcceptor->StartListen(&m_Server, SERVER));
    }
    void Connect(const CSimKind& aKind, BOOL aRaw = FALSE) {
        m_pConnector = aRaw ? CCmRefPtrT<ICmConnector>(new CSimConnector(m_Network, aKind.m_bDatagrams))
                            : MakeSimConnector(m_Network, aKind);
        m_Client.m_llSince = m_Server.m_llSince = m_Network.Now();
        m_pConnector->AsycConnect(&m_Client, SERVER);
    }

    CSimNetwork m_Network{7};
    CWitness m_Client{m_Network};
    CWitness m_Server{m_Network};
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmConnector> m_pConnector;
};

TEST_F(SimTimesTest, SevenRequestsToASilentPeerOneOverAStreamAndTheEndAt60Seconds) {
    Listen(SIM_PACKAGE_UDP, TRUE);
    Connect(SIM_PACKAGE_UDP);
    m_Network.RunFor(3600 * SIM_SEC);
    EXPECT_EQ((Lines{"3 connect 0", "3 receive 1", "203 receive 1", "1203 receive 1", "2203 receive 1", "2703 receive 1",
                     "3203 receive 1", "4203 receive 1"}),
              m_Server.Take());
    m_pAcceptor.Reset();
    Listen(SIM_PACKAGE, TRUE);
    Connect(SIM_PACKAGE);
    m_Network.RunFor(3600 * SIM_SEC);
    EXPECT_EQ((Lines{"3 connect 0", "3 receive 1", "60001 disconnect 20001"}), m_Server.Take());
    EXPECT_EQ((Lines{"60000 connect 20006", "60000 connect 20006"}), m_Client.Take());
}

TEST_F(SimTimesTest, SilentClientIsReleasedAfter60Seconds) {
    const CCmString strBefore = CCmLiveCounter::Dump();
    Listen(SIM_PACKAGE);
    Connect(SIM_PACKAGE, TRUE);
    m_Network.RunFor(3600 * SIM_SEC);
    EXPECT_EQ((Lines{"2 connect 0", "60004 disconnect 20001"}), m_Client.Take());
    EXPECT_EQ(Lines{}, m_Server.Take());
    m_pAcceptor.Reset();
    EXPECT_EQ(strBefore, CCmLiveCounter::Dump());
}

TEST_F(SimTimesTest, RefusedRequestIsOneIndication) {
    Connect(SIM_PACKAGE_UDP);
    m_Network.RunFor(3600 * SIM_SEC);
    EXPECT_EQ((Lines{"3 connect 20001"}), m_Client.Take());
}

TEST_F(SimTimesTest, SilentPeerIsDroppedAfter120Seconds) {
    for (const CSimKind* pKind : {&SIM_PACKAGE, &SIM_PACKAGE_KEEPALIVE, &SIM_PACKAGE_UDP}) {
        Listen(*pKind, TRUE);
        m_Server.m_strAnswer.assign("\2\0\0\0\0\0\0\17", 8);
        Connect(*pKind);
        m_Network.RunFor(119 * SIM_SEC);
        EXPECT_EQ((Lines{"4 connect 0"}), m_Client.Take()) << pKind->m_szName;
        m_Network.RunFor(3600 * SIM_SEC);
        EXPECT_EQ((Lines{"120004 disconnect 20005"}), m_Client.Take()) << pKind->m_szName;
        EXPECT_EQ(pKind->m_bKeepAlive ? 11u : pKind->m_bDatagrams ? 2u : 3u, m_Server.Take().size()) << pKind->m_szName;
        m_Server.m_Conns.clear();
        m_pAcceptor.Reset();
    }
    // The other way round: a server with keep-alives and a client that says nothing more.
    Listen(SIM_PACKAGE_KEEPALIVE);
    Connect(SIM_PACKAGE_KEEPALIVE, TRUE);
    m_Network.RunFor(5 * SIM_MSEC);
    m_Client.Send(std::string("\1\0\0\0\0\0\0\17", 8));
    m_Network.RunFor(3600 * SIM_SEC);
    EXPECT_EQ((Lines{"6 connect 0", "120006 disconnect 20005"}), m_Server.Take());
}

TEST_F(SimTimesTest, KeepAlivesHoldAQuietConnectionForHours) {
    Listen(SIM_PACKAGE_KEEPALIVE, TRUE);
    m_Server.m_strAnswer.assign("\2\0\0\0\0\0\0\17", 8);
    Connect(SIM_PACKAGE_KEEPALIVE);
    for (int i = 0; i < 8 * 60; ++i) {
        m_Network.RunFor(60 * SIM_SEC);
        m_Server.Send(std::string("\4\0\0\0\0", 5));
    }
    const Lines lines = m_Server.Take();
    ASSERT_EQ(2u + 8 * 60 * 4 - 1, lines.size());
    for (size_t i = 2; i < lines.size(); ++i)
        ASSERT_EQ(std::to_string(5 + 15000 * (i - 1)) + " receive 4", lines[i]);
    EXPECT_EQ((Lines{"4 connect 0"}), m_Client.Take());
}

// Many quiet connections: an hour later there is not one object or byte more.
TEST_F(SimTimesTest, FiveThousandConnectionsForAnHour) {
    constexpr size_t CONNECTIONS = 5000;
    m_Client.m_dwInterval = m_Server.m_dwInterval = 60;
    Listen(SIM_PACKAGE_KEEPALIVE);
    std::vector<CCmRefPtrT<ICmConnector>> connectors;
    for (size_t i = 0; i < CONNECTIONS; ++i) {
        Connect(SIM_PACKAGE_KEEPALIVE);
        connectors.push_back(m_pConnector);
        m_Network.RunFor(3 * SIM_MSEC);
    }
    m_Network.RunFor(60 * SIM_SEC);
    EXPECT_EQ(CONNECTIONS, m_Client.Take().size());
    const CCmString strAlive = CCmLiveCounter::Dump();
    const size_t stBytes = mallinfo2().uordblks;
    m_Network.RunFor(3600 * SIM_SEC);
    EXPECT_EQ(strAlive, CCmLiveCounter::Dump());
    EXPECT_LT(mallinfo2().uordblks, stBytes + 100000);
    EXPECT_EQ(CONNECTIONS, m_Server.Take().size());  // nothing but the indications, on either side
    EXPECT_EQ(Lines{}, m_Client.Take());
}

}  // namespace
