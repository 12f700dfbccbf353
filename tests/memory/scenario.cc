#include "tests/memory/scenario.h"

#include <fcntl.h>

#include "talvo/transport/dns/dns_manager.h"

namespace {

constexpr int MAX_DESCRIPTORS = 64;
constexpr int QUICK_TURNS = 500;   // then each waits, since the system has times of its own
constexpr int MOST_TURNS = 20000;  // longer than any limit of the library, and than a look-up takes in real time
constexpr int TURNS_WITHOUT_MEMORY = 200;
constexpr long TURN_USEC = 100000;

int CountDescriptors() {
    int nCount = 0;
    for (int fd = 0; fd < MAX_DESCRIPTORS; ++fd)
        nCount += fcntl(fd, F_GETFD) != -1;
    return nCount;
}

// Objects that are alive, apart from the names that are remembered.
std::string Left() {
    std::istringstream all(CCmLiveCounter::Dump());
    std::string strLeft;
    for (std::string strLine; std::getline(all, strLine);)
        strLeft += strLine.starts_with("CCmDnsRecord ") ? "" : strLine + "\n";
    return strLeft;
}

void Require(bool aHolds, const char* aText) { CViolation::Require(aHolds, aText); }

constexpr DWORD TCP = CCmConnectionManager::CTYPE_TCP;
constexpr DWORD UDP = CCmConnectionManager::CTYPE_UDP;
constexpr DWORD LENGTH = CCmConnectionManager::CTYPE_PDU_LENGTH;
constexpr DWORD PACKAGE = CCmConnectionManager::CTYPE_PDU_PACKAGE;
constexpr DWORD NO_PARTIAL = CCmConnectionManager::CTYPE_SEND_NO_PARTIAL_DATA;
constexpr DWORD PROXY = CCmConnectionManager::CTYPE_FORCE_THREAD_PROXY;

}  // namespace

BOOL CWorld::Run(const std::function<bool()>& aCondition) {
    int nTurnsSince = 0;
    for (int i = 0; i < MOST_TURNS && !CViolation::s_szText; ++i) {
        if (aCondition())
            return TRUE;
        if (CFailures::HasFired() && ++nTurnsSince == TURNS_WITHOUT_MEMORY)
            CFailures::Disarm();
        const CCmTimeValue tvWait = m_bOwnThread || i > QUICK_TURNS ? CCmTimeValue(0, 1000) : CCmTimeValue::s_tvZero;
        Do([&] { m_Network.Main().RunOnce(&tvWait); });
        m_Clock.Advance(CCmTimeValue(0, TURN_USEC));
    }
    return FALSE;
}

void CWorld::RequireClean() {
    CFailures::Disarm();
    if (m_nDescriptors == -1) {
        int nTurns = 0;
        Run([&] { return ++nTurns > 100; });
        m_strLeft = Left();
        m_nDescriptors = CountDescriptors();
        return;
    }
    const std::string strBefore = m_strLeft;
    Run([&] { return Left() == strBefore && CountDescriptors() == m_nDescriptors; });
    m_strLeft = Left();
    Require(m_strLeft == strBefore, "objects are left");
    Require(CountDescriptors() == m_nDescriptors, "descriptors are left");
}

void CEnd::Open(ICmTransport* aTransport) {
    m_pTransport = aTransport;
    if (CWorld::Do([&] { return m_pTransport->OpenWithSink(this); }) != CM_OK)
        Close();
}

void CEnd::Close() {
    if (const CCmRefPtrT<ICmTransport> pTransport = std::move(m_pTransport))
        CWorld::Do([&] { pTransport->Disconnect(CM_OK); });
}

void CEnd::Flush() {
    while (m_pTransport && !m_ToSend.empty()) {
        CCmMessageBlock block = ViewOf(m_ToSend.front());
        const CCmRefPtrT<ICmTransport> pTransport = m_pTransport;
        const CmResult rv = CWorld::Do([&] { return pTransport->SendData(block); });
        if (rv == CM_OK)
            m_ToSend.pop_front();
        else
            m_ToSend.front().erase(0, m_ToSend.front().size() - block.GetChainedLength());
        if (rv != CM_OK)
            return;
    }
}

void CEnd::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    const CTestCode test;
    Require(bool{m_pTransport}, "OnReceive behind the end");
    if (m_bEcho)
        m_ToSend.push_back(aData.FlattenChained());
    else
        m_strReceived += aData.FlattenChained();
    Flush();
}

void CEnd::OnSend(ICmTransport*, CCmTransportParameter*) {
    const CTestCode test;
    Require(bool{m_pTransport}, "OnSend behind the end");
    Flush();
}

void CEnd::OnDisconnect(CmResult, ICmTransport*) {
    const CTestCode test;
    Require(bool{m_pTransport}, "OnDisconnect behind the end");
    m_pTransport.Reset();
}

namespace {

// Echoes on every connection.
class CServer : public ICmAcceptorConnectorSink {
public:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        const CTestCode test;
        Require(aReason == CM_OK && aTrpt, "an acceptor indicates a failure");
        CEnd& end = m_Ends.emplace_back();
        end.m_bEcho = TRUE;
        end.Open(aTrpt);
    }
    CmResult Start(DWORD aType) {
        CmResult rv = CWorld::Do([&] { return CTestNetwork::Manager().CreateConnectionServer(aType, m_pAcceptor.ParaOut()); });
        const CCmInetAddr addr(OwnLoopback(), 0);
        if (rv == CM_OK)
            rv = CWorld::Do([&] { return m_pAcceptor->StartListen(this, addr); });
        return rv == CM_OK ? CWorld::Do([&] { return m_pAcceptor->GetListenAddr(m_Addr); }) : rv;
    }
    void Stop() {
        if (m_pAcceptor)
            CWorld::Do([&] { m_pAcceptor->StopListen(CM_OK); });
        CWorld::Do([&] { m_pAcceptor.Reset(); });
    }
    void Flush() {
        for (CEnd& end : m_Ends)
            end.Flush();
    }
    bool IsOver() const {
        return std::all_of(m_Ends.begin(), m_Ends.end(), [](const CEnd& a) { return a.IsOver(); });
    }
    CCmInetAddr m_Addr;
    std::list<CEnd> m_Ends;

private:
    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
};

// Connects once.
class CClient : public ICmAcceptorConnectorSink {
public:
    ~CClient() override {
        CWorld::Do([&] { m_pConnector.Reset(); });
    }
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        const CTestCode test;
        Require((aReason == CM_OK) == (aTrpt != nullptr), "an indication with half a transport");
        Require(++m_nIndications == 1, "two indications");
        if (aTrpt)
            m_End.Open(aTrpt);
    }
    // TRUE: there is a connection.
    bool Connect(CWorld& aWorld, DWORD aType, const CCmInetAddr& aAddr) {
        CCmTimeValue timeout(5);
        if (CWorld::Do([&] { return CTestNetwork::Manager().CreateConnectionClient(aType, m_pConnector.ParaOut()); }) != CM_OK)
            return false;
        CWorld::Do([&] { m_pConnector->AsycConnect(this, aAddr, &timeout); });
        Require(m_nIndications == 0, "an indication from inside AsycConnect");
        Require(aWorld.Run([&] { return m_nIndications > 0; }), "no indication");
        return !m_End.IsOver();
    }
    CEnd m_End;
    int m_nIndications = 0;

private:
    CCmRefPtrT<ICmConnector> m_pConnector;
};

// Sends until the same comes back; what goes as a datagram is sent again when it was lost.
bool Echo(CWorld& aWorld, CServer& aServer, CEnd& aEnd, const std::string& aText, bool aDatagrams) {
    int nTurns = 0;
    aEnd.m_strReceived.clear();
    aEnd.m_ToSend = {aText};
    const auto isBack = [&] {
        return aDatagrams ? aEnd.m_strReceived.find(aText) != std::string::npos : aEnd.m_strReceived == aText;
    };
    const BOOL bEnded = aWorld.Run([&] {
        if (aDatagrams && ++nTurns % 50 == 0 && aEnd.m_ToSend.empty())
            aEnd.m_ToSend = {aText};
        aEnd.Flush();
        aServer.Flush();
        return isBack() || aEnd.IsOver() || (aDatagrams && nTurns > 300);
    });
    Require(bEnded, "neither echo nor end");
    return isBack();
}

bool EchoAll(CWorld& aWorld, DWORD aType) {
    const bool bDatagrams = (aType & 0xFFFF) == UDP;
    CServer server;
    CClient client;
    bool bAll = server.Start(aType) == CM_OK && client.Connect(aWorld, aType, server.m_Addr);
    for (const size_t nSize : {size_t{100}, size_t{2000}, bDatagrams ? size_t{5000} : size_t{40000}})
        bAll = bAll && Echo(aWorld, server, client.m_End, Pattern(nSize, static_cast<unsigned>(nSize)), bDatagrams);
    client.m_End.Close();
    if (!bDatagrams)
        Require(aWorld.Run([&] { return server.IsOver(); }), "a server's connection has no end");
    server.Stop();
    for (CEnd& end : server.m_Ends)
        end.Close();
    return bAll;
}

// Asks for a name, anew or not, and waits for what becomes of it.
class CAsker : public ICmObserver {
public:
    ~CAsker() override {
        CWorld::Do([&] { CCmDnsManager::Instance()->CancelResolve(this); });
    }
    void OnObserve(const char*, void* aData) override {
        const CTestCode test;
        Require(++m_nAnswers == 1, "two answers");
        m_State = static_cast<CCmDnsRecord*>(aData)->GetState();
    }
    bool Ask(CWorld& aWorld, const std::string& aName, bool aAnew) {
        CCmRefPtrT<CCmDnsRecord> pRecord;
        const CmResult rv =
            CWorld::Do([&] { return CCmDnsManager::Instance()->AsyncResolve(pRecord.ParaOut(), aName, this, aAnew); });
        Require((rv == CM_OK) == bool{pRecord}, "a result without a record");
        if (rv != CM_ERROR_WOULD_BLOCK)
            return rv == CM_OK && pRecord->GetState() == CCmDnsRecord::RESOLVED;
        Require(aWorld.Run([&] { return m_nAnswers > 0; }), "no answer");
        return m_State == CCmDnsRecord::RESOLVED;
    }

private:
    int m_nAnswers = 0;
    CCmDnsRecord::EState m_State = CCmDnsRecord::FAILED;
};

// A name of the hosts file, anew and from the cache, and one that no server has; the server's port is one that nobody uses.
bool AskNames(CWorld& aWorld) {
    CWorld::Do([] { CCmDnsManager::Instance()->Refresh(); });
    const bool bHosts = CAsker().Ask(aWorld, "localhost", true);
    const bool bCache = CAsker().Ask(aWorld, "localhost", false);
    CAsker().Ask(aWorld, "nobody-has-such-a-name-as-this.invalid", true);
    return bHosts && bCache;
}

bool ConnectToName(CWorld& aWorld, DWORD aType) {
    CServer server;
    CClient client;
    const bool bListens = server.Start(aType) == CM_OK;
    const std::string strName = "a-name-that-is-longer-than-a-short-string.localhost";
    const bool bConnected = bListens && client.Connect(aWorld, aType, CCmInetAddr(strName.c_str(), server.m_Addr.GetPort()));
    client.m_End.Close();
    server.Stop();
    return bListens && (bConnected || client.m_nIndications == 1);
}

constexpr auto MAIN = CCmThreadManager::NETWORK_THREAD_MAIN;
constexpr auto OWN = CCmThreadManager::NETWORK_THREAD_OWN;

CScenario EchoOf(const char* aName, DWORD aType, CCmThreadManager::ENetworkThreadMode aMode = MAIN) {
    return {aName, aMode, [=](CWorld& aWorld) { return EchoAll(aWorld, aType); }};
}

}  // namespace

const std::vector<CScenario> SCENARIOS = {
    EchoOf("Tcp", TCP),
    EchoOf("Length", TCP | LENGTH),
    EchoOf("Package", TCP | PACKAGE),
    EchoOf("NoPartialData", TCP | NO_PARTIAL),
    EchoOf("Udp", UDP),
    EchoOf("PackageOverUdp", UDP | PACKAGE),
    EchoOf("TcpProxy", TCP | PROXY),
    EchoOf("LengthProxy", TCP | LENGTH | PROXY),
    EchoOf("PackageProxy", TCP | PACKAGE | PROXY),
    EchoOf("NoPartialDataProxy", TCP | NO_PARTIAL | PROXY),
    EchoOf("UdpProxy", UDP | PROXY),
    EchoOf("PackageOverUdpProxy", UDP | PACKAGE | PROXY),
    {"Names", MAIN, AskNames},
    {"ConnectToName", MAIN, [](CWorld& aWorld) { return ConnectToName(aWorld, TCP); }},
    {"ConnectToNameProxy", MAIN, [](CWorld& aWorld) { return ConnectToName(aWorld, TCP | PROXY); }},
    {"ConnectToNameUdp", MAIN, [](CWorld& aWorld) { return ConnectToName(aWorld, UDP); }},
    EchoOf("TcpTwoThreads", TCP, OWN),
    EchoOf("PackageTwoThreads", TCP | PACKAGE, OWN),
};
