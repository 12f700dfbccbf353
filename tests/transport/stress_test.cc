// Random use from several user threads at once: connections by address and by name, questions for names, ends of all kinds.

#include "tests/support/dns_helpers.h"
#include "tests/support/dns_server.h"

namespace {

constexpr int USERS = 3;
constexpr int CONNECTIONS = 4;
constexpr int STEPS = 4000;

// Both directions carry the bytes of this sequence, each connection from its beginning: whatever is lost, doubled or out of
// order shows.
std::string Sequence(uint64_t aFrom, size_t aSize) {
    std::string strData(aSize, '\0');
    for (char& c : strData) {
        c = static_cast<char>((aFrom * 131) ^ (aFrom >> 8));
        ++aFrom;
    }
    return strData;
}

// One end of a connection: checks what comes and counts what goes. Used in its user's thread.
class CStressEnd : public ICmTransportSink {
public:
    explicit CStressEnd(std::minstd_rand& aRandom) : m_Random(aRandom) {}
    ~CStressEnd() override { Release(); }

    void Use(ICmTransport* aTransport) {
        m_pTransport = aTransport;
        m_ullSent = m_ullReceived = 0;
        m_bFull = FALSE;
        m_pTransport->OpenWithSink(this);
    }
    BOOL IsFree() const { return !m_pTransport; }

    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override {
        EXPECT_EQ(m_pTransport.Get(), aTrptId);
        const std::string strData = aData.FlattenChained();
        EXPECT_TRUE(strData == Sequence(m_ullReceived, strData.size())) << "from position " << m_ullReceived;
        m_ullReceived += strData.size();
        if (m_Random() % 64 == 0)
            Release();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {
        EXPECT_TRUE(m_bFull);
        m_bFull = FALSE;
        if (m_Random() % 8 == 0)
            Release();
    }
    void OnDisconnect(CmResult, ICmTransport*) override { Release(); }

    void Step() {
        if (IsFree())
            return;
        switch (m_Random() % 40) {
        case 0:
            m_pTransport->Disconnect(m_Random() % 2 ? CM_OK : CM_ERROR_NETWORK_SOCKET_CLOSE);
            Release();
            break;
        case 1:
            Release();
            break;
        case 2:
            Set(*m_pTransport, CM_OPT_TRANSPORT_PAUSE_READING, static_cast<BOOL>(m_Random() % 2));
            break;
        default:
            Send(m_Random() % (m_Random() % 8 ? 300 : 70000));
        }
    }

private:
    void Send(DWORD aSize) {
        CCmTransportParameter para;
        const CmResult rv = SendText(*m_pTransport, Sequence(m_ullSent, aSize), &para);
        m_ullSent += para.m_dwHaveSent;
        EXPECT_TRUE(rv != CM_OK || para.m_dwHaveSent == aSize);
        m_bFull |= rv == CM_ERROR_PARTIAL_DATA;
    }
    void Release() { m_pTransport.Reset(); }

    std::minstd_rand& m_Random;
    CCmRefPtrT<ICmTransport> m_pTransport;
    uint64_t m_ullSent = 0;
    uint64_t m_ullReceived = 0;
    BOOL m_bFull = FALSE;
};

// A server and its clients in one user thread; both ends of every connection are its own or another user's.
class CStressUser : public ICmAcceptorConnectorSink, public ICmEvent {
public:
    CStressUser(unsigned aSeed, const std::vector<CCmInetAddr>& aServers) : m_Random(aSeed), m_Servers(aServers) {
        for (int i = 0; i < 2 * CONNECTIONS; ++i)
            m_Ends.emplace_back(m_Random);
    }

    // All in the user's thread.
    CCmInetAddr Listen() {
        CCmInetAddr addr;
        m_pAcceptor = CTestNetwork::Listen(*this, addr);
        return addr;
    }
    void Run(ACmThread* aThread) {
        m_pThread = aThread;
        m_pThread->GetLink().PostEvent(this);
    }
    CmResult OnEventFire() override {
        ++m_nSteps;
        m_Ends[m_Random() % m_Ends.size()].Step();
        if (m_Random() % 10 == 0)
            ConnectSomewhere();
        if (m_Random() % 10 == 0)
            AskForAName();
        return CM_OK;
    }
    // One post after another, so that upcalls come between the steps.
    void OnDestorySelf() override {
        if (m_nSteps < STEPS || m_nConnected < CONNECTIONS)
            m_pThread->GetLink().PostEvent(this);
        else
            m_bDone = TRUE;
    }
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override {
        m_nConnected += aReason == CM_OK;
        const auto itFree = std::find_if(m_Ends.begin(), m_Ends.end(), [](const CStressEnd& a) { return a.IsFree(); });
        if (aTrpt && itFree != m_Ends.end())
            itFree->Use(aTrpt);
        if (aId->IsConnector() && m_Random() % 2)
            m_pConnector.Reset();
    }
    void End() {
        CCmDnsManager::Instance()->CancelResolve(&m_Observer);
        m_pConnector.Reset();
        m_pAcceptor.Reset();
        m_Ends.clear();
    }

    std::atomic<BOOL> m_bDone{FALSE};

private:
    void ConnectSomewhere() {
        if (!m_pConnector)
            m_pConnector = CTestNetwork::MakeConnector();
        CCmTimeValue tvTimeout(0, static_cast<long>(m_Random() % 20000));
        const CCmInetAddr& server = m_Servers[m_Random() % m_Servers.size()];
        const BOOL bByName = m_Random() % 2;
        m_pConnector->AsycConnect(this, bByName ? CCmInetAddr(Name().c_str(), server.GetPort()) : server,
                                  m_Random() % 4 ? nullptr : &tvTimeout);
        if (m_Random() % 8 == 0)
            m_pConnector->CancelConnect();
    }
    void AskForAName() {
        DnsRecordPtr pRecord;
        CCmDnsManager::Instance()->AsyncResolve(pRecord.ParaOut(), Name(), &m_Observer, m_Random() % 2);
        if (m_Random() % 4 == 0)
            CCmDnsManager::Instance()->CancelResolve(&m_Observer);
        if (m_Random() % 128 == 0)
            CCmDnsManager::Instance()->Refresh();
    }
    std::string Name() {
        static const char* const s_Others[] = {"both.test", "none.test", "localhost", "127.0.0.1", "a b"};
        const unsigned uPick = m_Random() % 15;
        return uPick < 5 ? s_Others[uPick] : "n" + std::to_string(m_Random() % 100) + ".test";
    }

    std::minstd_rand m_Random;
    const std::vector<CCmInetAddr>& m_Servers;
    ACmThread* m_pThread = nullptr;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmConnector> m_pConnector;
    std::deque<CStressEnd> m_Ends;
    CTestObserver m_Observer;
    int m_nSteps = 0;
    int m_nConnected = 0;
};

// The names are those of a real server. Time passes by itself, so that questions that were lost are asked again.
class StressTest : public CDnsTest {
protected:
    StressTest() {
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

TEST_F(StressTest, MoreNamesThanFitOnTheWireAreAllAnswered) {
    std::vector<CTestObserver> observers(1000);
    for (int i = 0; i < 1000; ++i) {
        DnsRecordPtr pRecord;
        EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Ask("m" + std::to_string(i) + ".test", pRecord, &observers[i]));
        if (i == 500)
            CCmDnsManager::Instance()->Refresh();  // what is under way begins anew, and each observer is still called once
    }
    for (int i = 0; i < 1000; ++i) {
        RunUntil([&] { return !observers[i].m_Records.empty(); });
        EXPECT_EQ(AddressOf(i), TextOf(observers[i].m_Records[0]));
    }
    Settle();
    for (const CTestObserver& observer : observers)
        EXPECT_EQ(1u, observer.m_Records.size());
}

// TALVO_STRESS_SEED repeats one; --gtest_repeat makes it longer.
TEST_F(StressTest, RandomUseFromSeveralThreads) {
    const char* pSeed = getenv("TALVO_STRESS_SEED");
    const unsigned nSeed = pSeed ? static_cast<unsigned>(atoi(pSeed)) : std::random_device()();
    printf("TALVO_STRESS_SEED=%u\n", nSeed);
    std::vector<CCmInetAddr> servers(USERS);
    std::vector<std::unique_ptr<CScopedThread>> threads;
    std::vector<std::unique_ptr<CStressUser>> users;
    for (unsigned i = 0; i < USERS; ++i) {
        threads.push_back(std::make_unique<CScopedThread>(i == 0 ? CScopedThread::EVENT_QUEUE_ONLY : CScopedThread::TASK));
        users.push_back(std::make_unique<CStressUser>(nSeed + i, servers));
        RunIn((*threads[i])->GetLink(), [&] { servers[i] = users[i]->Listen(); });
    }
    for (unsigned i = 0; i < USERS; ++i)
        users[i]->Run(threads[i]->Get());
    for (unsigned i = 0; i < USERS; ++i) {
        YieldUntil([&] { return users[i]->m_bDone.load(); });
        RunIn((*threads[i])->GetLink(), [&] { users[i]->End(); });
    }
    EXPECT_EQ(OwnLoopback(), TextOf(Resolve("n1.test", TRUE))) << "it no longer works";
}
