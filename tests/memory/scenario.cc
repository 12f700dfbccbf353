#include "tests/memory/scenario.h"

#include "talvo/talvo.h"

namespace {

constexpr DWORD TCP = CCmConnectionManager::CTYPE_TCP;
constexpr DWORD UDP = CCmConnectionManager::CTYPE_UDP;
constexpr DWORD LENGTH = CCmConnectionManager::CTYPE_PDU_LENGTH;
constexpr DWORD PACKAGE = CCmConnectionManager::CTYPE_PDU_PACKAGE;
constexpr DWORD NO_PARTIAL = CCmConnectionManager::CTYPE_SEND_NO_PARTIAL_DATA;
constexpr DWORD PROXY = CCmConnectionManager::CTYPE_FORCE_THREAD_PROXY;

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

constexpr auto MAIN = ELibrary::NETWORK_IS_MAIN;
constexpr auto OWN = ELibrary::NETWORK_IS_OWN;
constexpr auto NONE = ELibrary::NOT_STARTED;

CScenario EchoOf(const char* aName, DWORD aType, ELibrary aLibrary = MAIN) {
    return {aName, aLibrary, [=](CWorld& aWorld) { return EchoAll(aWorld, aType); }};
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
    {"Http", MAIN, AskAndAnswer},
    {"HttpTwoThreads", OWN, AskAndAnswer},
    {"Threads", MAIN, UseThreads},
    {"Life", NONE, [](CWorld& aWorld) { return LiveAndEnd(aWorld, CCmThreadManager::NETWORK_THREAD_MAIN); }},
    {"LifeTwoThreads", NONE, [](CWorld& aWorld) { return LiveAndEnd(aWorld, CCmThreadManager::NETWORK_THREAD_OWN); }},
};
