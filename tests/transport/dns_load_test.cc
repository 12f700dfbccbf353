#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <thread>

#include "talvo/transport/transport_interface.h"
#include "tests/support/dns_helpers.h"
#include "tests/support/dns_server.h"

namespace {

constexpr DWORD TCP = CCmConnectionManager::CTYPE_TCP;
constexpr DWORD UDP = CCmConnectionManager::CTYPE_UDP;

// Sends back what comes, on any number of connections; all in the thread that made it.
class CEchoServer : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    explicit CEchoServer(DWORD aType = TCP) {
        CCmInetAddr addr;
        m_pAcceptor = CTestNetwork::Listen(*this, addr, aType);
        m_wPort = addr.GetPort();
    }
    ~CEchoServer() override {
        m_pAcceptor->StopListen(CM_OK);
        for (const auto& pTransport : m_Transports)
            pTransport->Disconnect(CM_OK);
    }

    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        m_Transports.emplace_back(aTrpt);
        EXPECT_EQ(CM_OK, aTrpt->OpenWithSink(this));
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override { aTrptId->SendData(aData); }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}

    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    std::vector<CCmRefPtrT<ICmTransport>> m_Transports;
    WORD m_wPort = 0;
};

// Connects by name and, if it shall, keeps one byte going to and fro.
class CLoadClient : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    explicit CLoadClient(BOOL aTalks = FALSE, DWORD aType = TCP)
        : m_bTalks(aTalks), m_pConnector(CTestNetwork::MakeConnector(aType)) {}
    ~CLoadClient() override {
        m_pConnector->CancelConnect();
        if (m_pTransport)
            m_pTransport->Disconnect(CM_OK);
    }

    void Connect(const std::string& aName, WORD aPort) { m_pConnector->AsycConnect(this, CCmInetAddr(aName.c_str(), aPort)); }
    void Send(size_t aSize = 1) {
        if (m_pTransport)
            SendText(*m_pTransport, std::string(aSize, 'x'));
    }

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        ++m_nIndications;
        m_Reason = aReason;
        m_pTransport = aTrpt;
        if (aTrpt) {
            EXPECT_EQ(CM_OK, aTrpt->OpenWithSink(this));
        }
        if (aTrpt && m_bTalks)
            Send();
    }
    void OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) override {
        ++m_nRounds;
        if (m_bTalks)
            Send();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override { m_pTransport.Reset(); }

    const BOOL m_bTalks;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;
    int m_nIndications = 0;
    int m_nRounds = 0;
    CmResult m_Reason = CM_OK;
};

// So many questions that some may not fit into the server's buffer: time passes by itself here, for them to be asked again, and
// they are asked until there is an answer.
class DnsLoadTest : public CDnsTest {
protected:
    DnsLoadTest() {
        CCmClock::Replace(nullptr);
        std::string strNames = "127.0.0.2 both.test\n" + std::string(OwnLoopback()) + " both.test\n";
        for (int i = 0; i < 100; ++i)
            strNames += OwnLoopback() + (" n" + std::to_string(i)) + ".test\n";
        for (int i = 0; i < 1000; ++i)
            strNames += AddressOf(i) + " m" + std::to_string(i) + ".test\n";
        m_DnsServer.Start(strNames);
        m_Keys["Servers"] = m_DnsServer.GetAddress();
        m_Keys["TimeoutMs"] = "2000";
        m_Keys["Tries"] = "10";
        Configure();
    }
    static std::string AddressOf(int aIndex) {
        return "10.0." + std::to_string(aIndex / 250) + "." + std::to_string(aIndex % 250);
    }

    CTestDnsServer m_DnsServer{30};
};

}  // namespace

TEST_F(DnsLoadTest, MoreNamesThanFitOnTheWireAreAllAnswered) {
    std::vector<CTestObserver> observers(1000);
    for (int i = 0; i < 1000; ++i) {
        DnsRecordPtr pRecord;
        EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Ask("m" + std::to_string(i) + ".test", pRecord, &observers[i]));
        if (i == 500)
            CCmDnsManager::Instance()->Refresh();  // what is under way begins anew, and everybody still hears once
    }
    for (int i = 0; i < 1000; ++i) {
        RunUntil([&] { return !observers[i].m_Records.empty(); });
        EXPECT_EQ(AddressOf(i), TextOf(observers[i].m_Records[0]));
    }
    Settle();
    for (const CTestObserver& observer : observers)
        EXPECT_EQ(1u, observer.m_Records.size());
}

TEST_F(DnsLoadTest, AThousandConnectsByNameEndWellWhileTrafficGoesOn) {
    CEchoServer server;
    CLoadClient talker(TRUE);
    talker.Connect("n0.test", server.m_wPort);
    RunUntil([&] { return talker.m_nRounds > 0; });
    std::vector<std::unique_ptr<CLoadClient>> clients;
    for (int i = 0; i < 1000; ++i) {
        clients.push_back(std::make_unique<CLoadClient>());
        clients.back()->Connect("n" + std::to_string(i % 100) + ".test", server.m_wPort);
        m_Network.RunPosted();
    }
    for (const auto& pClient : clients) {
        RunUntil([&] { return pClient->m_nIndications > 0; });
        EXPECT_EQ(CM_OK, pClient->m_Reason);
    }
    const int nAfter = talker.m_nRounds;
    RunUntil([&] { return talker.m_nRounds > nAfter; });
    for (const auto& pClient : clients)
        EXPECT_EQ(1, pClient->m_nIndications);
}

namespace {

// Does one thing after another at random in its thread: connects, cancels, asks, sends, disconnects, releases.
class CRandomUser {
public:
    CRandomUser(unsigned aSeed, WORD aPort, WORD aPortUdp) : m_Random(aSeed), m_wPort(aPort), m_wPortUdp(aPortUdp) {}

    void Step() {
        switch (m_Random() % 12) {
        case 0:
            Make(m_Random() % 2 ? TCP : UDP);
            break;
        case 1:
            m_pClient.reset();
            break;
        case 2:
            Client().m_pConnector->CancelConnect();
            break;
        case 3:
            CCmDnsManager::Instance()->CancelResolve(&m_Observer);
            break;
        case 4:
            Ask(m_Random() % 2);
            break;
        case 5:
            if (m_Random() % 32 == 0)
                CCmDnsManager::Instance()->Refresh();
            break;
        case 6:
            Client().m_pTransport.Reset();
            break;
        case 7:
            if (const auto& pTransport = Client().m_pTransport)
                pTransport->Disconnect(m_Random() % 2 ? CM_OK : CM_ERROR_FAILURE);
            break;
        case 8:
        case 9:
            Client().Send(m_Random() % 3000);
            break;
        default:
            Client().Connect(Name(), m_wPortNow);
        }
    }

private:
    void Make(DWORD aType) {
        m_pClient = std::make_unique<CLoadClient>(m_Random() % 2, aType);
        m_wPortNow = aType == TCP ? m_wPort : m_wPortUdp;
    }
    CLoadClient& Client() {
        if (!m_pClient)
            Make(TCP);
        return *m_pClient;
    }
    std::string Name() {
        static const char* const s_Others[] = {"both.test", "none.test", "localhost", "127.0.0.1", "a b"};
        const unsigned uPick = m_Random() % 15;
        return uPick < 5 ? s_Others[uPick] : "n" + std::to_string(m_Random() % 100) + ".test";
    }
    void Ask(BOOL aForced) {
        DnsRecordPtr pRecord;
        CCmDnsManager::Instance()->AsyncResolve(pRecord.ParaOut(), Name(), &m_Observer, aForced);
    }

    std::minstd_rand m_Random;
    const WORD m_wPort;
    const WORD m_wPortUdp;
    WORD m_wPortNow = 0;
    std::unique_ptr<CLoadClient> m_pClient;
    CTestObserver m_Observer;
};

}  // namespace

TEST_F(DnsLoadTest, ManyThreadsAskConnectCancelAndReleaseAtRandom) {
    constexpr int STEPS = 1500;
    CEchoServer server;
    CEchoServer serverUdp(UDP);
    CScopedThread threads[3]{CScopedThread(CScopedThread::TASK), CScopedThread(CScopedThread::TASK),
                             CScopedThread(CScopedThread::EVENT_QUEUE_ONLY)};
    std::atomic<int> nEnded{0};
    unsigned uSeed = 1;
    for (CScopedThread& thread : threads) {
        auto pUser =
            std::make_shared<std::unique_ptr<CRandomUser>>(new CRandomUser(++uSeed, server.m_wPort, serverUdp.m_wPort));
        for (int i = 0; i < STEPS; ++i)
            PostTo(*thread->GetEventQueue(), [=] { (*pUser)->Step(); });
        PostTo(*thread->GetEventQueue(), [=, &nEnded] {
            pUser->reset();
            ++nEnded;
        });
    }
    CRandomUser own(1, server.m_wPort, serverUdp.m_wPort);
    for (int i = 0; i < STEPS; ++i) {
        own.Step();
        m_Network.RunPosted();
    }
    RunUntil([&] { return nEnded == 3; });
    // It still works.
    EXPECT_EQ(OwnLoopback(), TextOf(Resolve("n1.test", TRUE)));
}
