// Random use from several user threads at once: connections by address and by name, questions for names, ends of all kinds.
#include "tests/support/dns_helpers.h"

namespace {

constexpr int USERS = 3, CONNECTIONS = 4, STEPS = 4000;

// Both directions of a connection carry these bytes from the first on: a lost, doubled or misplaced one shows.
std::string Sequence(uint64_t aFrom, size_t aSize) {
    std::string strData(aSize, '\0');
    for (char& c : strData) {
        c = static_cast<char>((aFrom * 131) ^ (aFrom >> 8));
        ++aFrom;
    }
    return strData;
}

// Checks the bytes at the end, and the order and thread of its upcalls.
struct CStressSink : CTestSink {
    ~CStressSink() override { EXPECT_TRUE(m_strReceived == Sequence(0, m_strReceived.size())) << "data is wrong"; }
};

// One end of a connection; free without a transport.
struct CStressEnd {
    CCmRefPtrT<ICmTransport> m_pTransport;
    std::unique_ptr<CStressSink> m_pSink;
    uint64_t m_ullSent = 0;
};

// A server and clients in a thread of their own; both ends of a connection are one user's or two users'.
class CStressUser : public ICmAcceptorConnectorSink {
public:
    CStressUser(unsigned aSeed, CScopedThread::EKind aKind, const std::vector<WORD>& aPorts)
        : m_Thread(aKind), m_Random(aSeed), m_Ports(aPorts), m_Ends(2 * CONNECTIONS) {}

    CCmThreadLink& GetLink() const { return m_Thread->GetLink(); }
    WORD Listen() {
        CCmInetAddr addr;
        m_pAcceptor = CTestNetwork::Listen(*this, addr);
        return addr.GetPort();
    }
    void Step() {
        CStressEnd& end = m_Ends[m_Random() % m_Ends.size()];
        if (end.m_pTransport)
            Use(end);
        if (m_Random() % 10 == 0)
            ConnectSomewhere();
        if (m_Random() % 10 == 0)
            AskForAName();
        m_bDone = ++m_nSteps >= STEPS && m_nConnected >= CONNECTIONS;
        if (!m_bDone)
            GetLink().Post([this] { Step(); });  // upcalls come between the steps
    }
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override {
        m_nConnected += aReason == CM_OK;
        const auto itFree = std::find_if(m_Ends.begin(), m_Ends.end(), [](const CStressEnd& a) { return !a.m_pTransport; });
        if (aTrpt && itFree != m_Ends.end())
            Open(*itFree, aTrpt);
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
    void Open(CStressEnd& aEnd, ICmTransport* aTransport) {
        aEnd = {aTransport, std::make_unique<CStressSink>()};
        const auto releaseOnceIn = [&](unsigned aTimes) {
            return [this, aTimes, &aEnd] {
                if (m_Random() % aTimes == 0)
                    aEnd.m_pTransport.Reset();
            };
        };
        aEnd.m_pSink->m_Receive = releaseOnceIn(64);
        aEnd.m_pSink->m_Send = releaseOnceIn(8);
        aEnd.m_pSink->m_Disconnect = releaseOnceIn(1);
        aTransport->OpenWithSink(aEnd.m_pSink.get());
    }
    void Use(CStressEnd& aEnd) {
        const unsigned uPick = m_Random() % 40;
        if (uPick == 0)
            aEnd.m_pTransport->Disconnect(m_Random() % 2 ? CM_OK : CM_ERROR_NETWORK_SOCKET_CLOSE);
        if (uPick == 2)
            Set(*aEnd.m_pTransport, CM_OPT_TRANSPORT_PAUSE_READING, static_cast<BOOL>(m_Random() % 2));
        CCmTransportParameter para;
        if (uPick > 2)
            SendText(*aEnd.m_pTransport, Sequence(aEnd.m_ullSent, m_Random() % (m_Random() % 8 ? 300 : 70000)), &para);
        aEnd.m_ullSent += para.m_dwHaveSent;
        if (uPick < 2)
            aEnd.m_pTransport.Reset();
    }
    void ConnectSomewhere() {
        if (!m_pConnector)
            m_pConnector = CTestNetwork::MakeConnector();
        CCmTimeValue tvTimeout(0, static_cast<long>(m_Random() % 20000));
        const WORD wPort = m_Ports[m_Random() % USERS];
        m_pConnector->AsycConnect(this, m_Random() % 2 ? Loopback(wPort) : CCmInetAddr(Name().c_str(), wPort),
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

    const CScopedThread m_Thread;
    std::minstd_rand m_Random;
    const std::vector<WORD>& m_Ports;
    std::vector<CStressEnd> m_Ends;
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmConnector> m_pConnector;
    CTestObserver m_Observer;
    int m_nSteps = 0, m_nConnected = 0;
};

using StressTest = CDnsTest;

}  // namespace

// TALVO_STRESS_SEED repeats one; --gtest_repeat makes it longer.
TEST_F(StressTest, RandomUseFromSeveralThreads) {
    const char* pSeed = getenv("TALVO_STRESS_SEED");
    const unsigned nSeed = pSeed ? static_cast<unsigned>(atoi(pSeed)) : std::random_device()();
    printf("TALVO_STRESS_SEED=%u\n", nSeed);
    CCmClock::Replace(nullptr);  // attempts time out
    std::string strHosts = "127.0.0.2 both.test\n" + std::string(OwnLoopback()) + " both.test\n";
    for (int i = 0; i < 100; ++i)
        strHosts += OwnLoopback() + (" n" + std::to_string(i)) + ".test\n";
    WriteHosts(strHosts);
    std::vector<WORD> ports(USERS);
    std::deque<CStressUser> users;
    for (unsigned i = 0; i < USERS; ++i) {
        CStressUser& user =
            users.emplace_back(nSeed + i, i == 0 ? CScopedThread::EVENT_QUEUE_ONLY : CScopedThread::TASK, ports);
        RunIn(user.GetLink(), [&] { ports[i] = user.Listen(); });
    }
    for (CStressUser& user : users)
        user.GetLink().Post([&user] { user.Step(); });
    for (CStressUser& user : users) {
        YieldUntil([&] { return user.m_bDone.load(); });
        RunIn(user.GetLink(), [&] { user.End(); });
    }
    EXPECT_EQ(OwnLoopback(), TextOf(Resolve("n1.test", TRUE))) << "it no longer works";
}
