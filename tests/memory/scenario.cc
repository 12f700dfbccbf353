#include "tests/memory/scenario.h"

#include <openssl/crypto.h>

#include <array>
#include <cstdlib>

#include "talvo/event/timer_wrapper_id.h"
#include "talvo/talvo.h"
#include "tests/memory/ends.h"

namespace {

constexpr DWORD TCP = CCmConnectionManager::CTYPE_TCP;
constexpr DWORD UDP = CCmConnectionManager::CTYPE_UDP;
constexpr DWORD LENGTH = CCmConnectionManager::CTYPE_PDU_LENGTH;
constexpr DWORD PACKAGE = CCmConnectionManager::CTYPE_PDU_PACKAGE;
constexpr DWORD RELIABLE = CCmConnectionManager::CTYPE_PDU_RELIABLE;
constexpr DWORD TOKEN = RELIABLE | CCmConnectionManager::CTYPE_RECONNECT_TOKEN;
constexpr DWORD NO_PARTIAL = CCmConnectionManager::CTYPE_SEND_NO_PARTIAL_DATA;
constexpr DWORD PROXY = CCmConnectionManager::CTYPE_FORCE_THREAD_PROXY;

const CCmTempDir s_Dir;  // made before the runs, whose processes end without destructors
const std::string s_strScript =
    s_Dir.Write("proxy.pac", "function FindProxyForURL() { alert(1); return 'PROXY ' + dnsResolve('localhost') + ':1'; }");

// Sends until the same comes back; what goes as a datagram is sent again when it was lost.
bool Echo(CWorld& aWorld, CServer& aServer, CEnd& aEnd, const std::string& aText, bool aDatagrams) {
    int nTurns = 0;
    aEnd.m_strReceived.clear();
    aEnd.m_ToSend = {aText};
    const auto isBack = [&] { return aEnd.m_strReceived == aText || (aDatagrams && aEnd.m_strReceived.ends_with(aText)); };
    const BOOL bEnded = aWorld.Run([&] {
        if (aDatagrams && ++nTurns % 50 == 0 && aEnd.m_ToSend.empty())
            aEnd.m_ToSend = {aText};
        aEnd.Flush();
        for (CEnd& end : aServer.m_Ends)
            end.Flush();
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
    for (const size_t nSize : {size_t{100}, size_t{2000}, bDatagrams ? size_t{5000} : size_t{40000}}) {
        if (bAll && nSize > 100 && (aType & RELIABLE) == RELIABLE)
            client.m_Ends.front().Cut();
        bAll = bAll && Echo(aWorld, server, client.m_Ends.front(), Pattern(nSize, static_cast<unsigned>(nSize)), bDatagrams);
    }
    client.m_Ends.clear();
    const auto isOver = [&] { return std::ranges::all_of(server.m_Ends, [](const CEnd& a) { return a.IsOver(); }); };
    Require(bDatagrams || aWorld.Run(isOver), "a server's connection has no end");
    server.Stop();
    return bAll;
}

// OpenSSL's own allocations do not fail here; tests/openssl/ makes them fail.
bool EchoOverTls(CWorld& aWorld) {
    static const bool s_bSafe = CRYPTO_set_mem_functions(
                                    [](size_t aSize, const char*, int) {
                                        const CCmSafeCode safe;
                                        return std::malloc(aSize);
                                    },
                                    [](void* aMemory, size_t aSize, const char*, int) {
                                        const CCmSafeCode safe;
                                        return std::realloc(aMemory, aSize);
                                    },
                                    [](void* aMemory, const char*, int) { std::free(aMemory); }) == 1;
    Require(s_bSafe, "OpenSSL has allocated before");
    return EchoAll(aWorld, CM_TRANSPORT_TYPE_TLS);
}

// Asks for a name, anew or not, and waits for the answer.
class CAsker : public ICmObserver {
public:
    ~CAsker() override {
        CWorld::Do([&] { CCmDnsManager::Instance()->CancelResolve(this); });
    }
    void OnObserve(const char*, void* aData) override {
        const CCmSafeCode safe;
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
    const std::string strName = "a-name-that-is-longer-than-a-short-string.localhost";
    bool bAll = server.Start(aType) == CM_OK;
    bAll = bAll &&
           (client.Connect(aWorld, aType, CCmInetAddr(strName.c_str(), server.m_Addr.GetPort())) || client.m_nIndications == 1);
    server.Stop();
    return bAll;
}

// The servers reply before they are asked, and echo what they are asked.
bool ConnectThroughProxies(CWorld& aWorld) {
    const std::string strLogin =
        "HTTP/1.1 407 Who\r\nProxy-Authenticate: Digest realm=\"r\", nonce=\"n\", qop=\"auth\"\r\n"
        "Content-Length: 0\r\n\r\n";
    const std::pair<const char*, std::string> CASES[] = {{"http://user:pw@", strLogin + "HTTP/1.1 200 Go on\r\n\r\n"},
                                                         {"socks5://user:pw@", {"\5\2\1\0\5\0\0\1xxxxxx", 14}},
                                                         {"socks4a://", {"\0\x5Axxxxxx", 8}}};
    bool bAll = true;
    for (const auto& [pScheme, strReplies] : CASES) {
        CServer server;
        CClient client;
        server.m_strGreeting = strReplies;
        bAll = server.Start(TCP) == CM_OK && bAll;
        client.m_strRoute = pScheme + cm_address_text(server.m_Addr) + ",direct";
        bAll = client.Connect(aWorld, TCP, CCmInetAddr(OwnLoopback(), 1)) && bAll;
        server.Stop();
    }
    return bAll;
}

// Those that were taken fire once each.
class CTimers : public CCmTimerWrapperIDSink {
public:
    bool RunAll(CWorld& aWorld) {
        int nTaken = 0;
        for (CCmTimerWrapperID& timer : m_Timers)
            nTaken += CWorld::Do([&] { return timer.Schedule(this, CCmTimeValue(1), 1); }) == CM_OK;
        Require(aWorld.Run([&] { return m_nFired >= nTaken; }), "a timer does not fire");
        Require(m_nFired == nTaken, "a refused timer fires");
        return nTaken == static_cast<int>(m_Timers.size());
    }
    void OnTimer(CCmTimerWrapperID*) override { ++m_nFired; }

private:
    std::array<CCmTimerWrapperID, 40> m_Timers;
    int m_nFired = 0;
};

// Timers of a calendar fire once each if they were taken; a deletion is always taken.
bool UseCalendar(CWorld& aWorld) {
    struct CDeletion : CCmTimerDelete {
        void OnTimeout(const CCmTimeValue&, void*) override { m_bDone = true; }
        bool m_bDone = false;
    };
    CCmPreciseTimerQueue* pQueue = CWorld::Do([] {
        CCmPreciseTimerManager* pManager = CCmPreciseTimerManager::Instance();
        return pManager ? pManager->GetTimerQueue() : nullptr;
    });
    if (!pQueue)
        return false;
    const auto schedule = [&](ICmTimerHandler& aEh, void* aArg) {
        return CWorld::Do([&] { return pQueue->ScheduleTimer(&aEh, aArg, CCmTimeValue::s_tvZero, 1); }) == CM_OK;
    };
    CDeletion deletion;
    std::array<CTestTimer, 10> timers;
    Require(schedule(deletion, CCmTimerQueueBase::GetDeletionArg()), "a refused deletion");
    const auto nTaken = std::ranges::count_if(timers, [&](CTestTimer& a) { return schedule(a, nullptr); });
    const auto isOver = [&] { return deletion.m_bDone && std::ranges::count(timers, 1, &CTestTimer::m_nFired) == nTaken; };
    Require(aWorld.Run(isOver), "a timer does not fire");
    CWorld::Do([&] { pQueue->ReleaseReference(); });
    return nTaken == 10;
}

// A posted call, a call and a sent event. Those that were taken run.
bool CallThread(ACmThread& aThread) {
    std::atomic<int> nPosted{0};
    CEventFate sent;
    CCmThreadLink& link = aThread.GetLink();
    const CmResult rvPost = CWorld::Do([&] { return link.Post([&] { ++nPosted; }); });
    auto* pEvent = new CTestEvent(sent);
    const CmResult rvSend = CWorld::Do([&] { return aThread.GetEventQueue()->SendEvent(pEvent); });
    int nCalled = 0;
    const CmResult rvCall = CWorld::Do([&] { return link.Call([&] { return ++nCalled, CM_OK; }); });
    Require(nCalled == (rvCall == CM_OK), "called and run differ");
    // Events of a thread whose reactor did not open are destroyed and do not run.
    Require(nPosted == (rvPost == CM_OK) || (nPosted == 0 && rvCall != CM_OK), "posted and run differ");
    Require(sent.m_nFired == (rvSend == CM_OK) && sent.m_nDestroyed == 1, "sent and run differ");
    return rvPost == CM_OK && rvSend == CM_OK && rvCall == CM_OK;
}

bool UseThreads(CWorld& aWorld) {
    bool bAll = CTimers().RunAll(aWorld);
    for (const BOOL bReactor : {FALSE, TRUE}) {
        ACmThread* pThread = nullptr;
        const CmResult rv = CWorld::Do([&] {
            CCmThreadManager* pManager = CCmThreadManager::Instance();
            return bReactor ? pManager->CreateReactorThread(1001, CCmThreadManager::CreateNetworkReactor(), pThread)
                            : pManager->CreateUserTaskThread(pThread);
        });
        Require((rv == CM_OK) == (pThread != nullptr), "a result without a thread");
        if (!pThread)
            return false;
        bAll = CallThread(*pThread) && bAll;
        CWorld::Do([&] {
            pThread->Stop();
            pThread->Join();
            pThread->Destory(CM_OK);
        });
    }
    return bAll;
}

struct CProxyAsker final : ICmObserver {
    void OnObserve(const char*, void* aData) override {
        const CCmSafeCode safe;
        const auto& answer = *static_cast<CCmProxyAnswer*>(aData);
        m_Result = answer.GetResult();
        m_strAnswer = answer.GetRoute().GetScriptText() + answer.GetError();
    }
    CmResult m_Result = CM_ERROR_WOULD_BLOCK;
    std::string m_strAnswer;
};

// The helper is ended after an idle minute. Its process ends in the system's time.
void EndHelper(CWorld& aWorld) {
    const auto isGone = [](const char* aObject) { return CCmLiveCounter::Dump().find(aObject) == std::string::npos; };
    int nTurns = 0;
    aWorld.Run([&] { return ++nTurns > 400; });
    aWorld.Run([&] { return isGone("CPacHelper"); });
    aWorld.Run([&] { return isGone("CChildProcess"); }, TRUE);
}

// The user's proxies, by a script. Each run fetches it anew, by another spelling of its URL, and starts a helper.
bool FindProxies(CWorld& aWorld) {
    static const CCmString URL = "http://a-name-that-needs-memory.example/";
    static int s_nRun = 0;
    const std::string strPath = std::string(1 + s_nRun++ % 32, '/') + s_strScript;
    const CCmString strSettings = "Mode=script\nScriptUrl=file://" + strPath;
    CProxyAsker asker;
    CCmRefPtrT<CCmProxyAnswer> pAnswer;
    const CmResult rv = CWorld::Do([&]() -> CmResult {
        CCmProxyDiscovery* pDiscovery = CCmProxyDiscovery::Instance();
        const CmResult set = pDiscovery ? pDiscovery->SetSettings(strSettings) : CM_ERROR_OUT_OF_MEMORY;
        return set == CM_OK ? pDiscovery->Find(pAnswer.ParaOut(), URL, &asker) : set;
    });
    if (rv == CM_ERROR_WOULD_BLOCK)
        Require(aWorld.Run([&] { return asker.m_Result != rv; }, TRUE), "no answer for proxies");
    EndHelper(aWorld);
    return asker.m_strAnswer == "PROXY 127.0.0.1:1" || asker.m_strAnswer.starts_with("DIRECTno script can run");
}

// Both ends are here and end together, so one may lose what the other no longer receives.
bool IsDrained(CmResult aResult) { return aResult == CM_OK || aResult == CM_ERROR_NETWORK_SOCKET_ERROR; }

bool DrainWithSink(CWorld& aWorld) {
    CCmDrainLog ended;
    if (CWorld::Do([&] { return CTestNetwork::Manager().Drain(nullptr, &ended); }) != CM_OK)
        return false;
    Require(aWorld.Run([&] { return ended.m_nCalls > 0; }), "a drain has no end");
    Require(ended.m_nCalls <= 1, "two ends of a drain");
    return IsDrained(ended.m_Reason);
}

// The library from its start to the documented end.
bool LiveAndEnd(CWorld& aWorld, CCmThreadManager::ENetworkThreadMode aMode) {
    CCmThreadManager& threads = *CCmThreadManager::Instance();
    CServer server;
    CClient client;
    bool bAll = CWorld::Do([&] {
        threads.SetNetworkThreadMode(aMode);
        return threads.InitMainThread(0, nullptr) == CM_OK && threads.GetThreadReactor(CCmThreadManager::TT_MAIN) &&
               CCmConnectionManager::Instance();
    });
    const CTimeGoesOn time;
    if (bAll) {
        bAll = server.Start(TCP | LENGTH) == CM_OK && client.Connect(aWorld, TCP | LENGTH, server.m_Addr);
        for (CEnd& end : client.m_Ends) {
            end.m_ToSend = {Pattern(40000)};
            end.Flush();
        }
        bAll = DrainWithSink(aWorld) && IsDrained(CWorld::Do([] { return CTestNetwork::Manager().Drain(nullptr); })) && bAll;
    }
    CWorld::Do([&] {
        threads.StopAllThreads();
        threads.JoinAllThreads();
        CCmConnectionManager::CleanupInstance();
        if (ACmThread* pMain = threads.GetThread(CCmThreadManager::TT_MAIN))
            pMain->Destory(CM_OK);
    });
    return bAll;
}

constexpr auto MAIN = ELibrary::NETWORK_IS_MAIN;
constexpr auto OWN = ELibrary::NETWORK_IS_OWN;
constexpr auto NONE = ELibrary::NOT_STARTED;

CScenario EchoOf(const char* aName, DWORD aType, ELibrary aLibrary = MAIN) {
    return {aName, aLibrary, [=](CWorld& aWorld) { return EchoAll(aWorld, aType); }};
}
CScenario ConnectOf(const char* aName, DWORD aType) {
    return {aName, MAIN, [=](CWorld& aWorld) { return ConnectToName(aWorld, aType); }};
}
CScenario LifeOf(const char* aName, CCmThreadManager::ENetworkThreadMode aMode) {
    return {aName, NONE, [=](CWorld& aWorld) { return LiveAndEnd(aWorld, aMode); }};
}

}  // namespace

const std::vector<CScenario> SCENARIOS = {
    EchoOf("Tcp", TCP),
    EchoOf("Length", TCP | LENGTH),
    EchoOf("Package", TCP | PACKAGE),
    EchoOf("NoPartialData", TCP | NO_PARTIAL),
    EchoOf("Reliable", TCP | TOKEN),
    EchoOf("ReliablePlainProxy", TCP | RELIABLE | PROXY),
    EchoOf("Udp", UDP),
    EchoOf("PackageOverUdp", UDP | PACKAGE),
    EchoOf("TcpProxy", TCP | PROXY),
    EchoOf("LengthProxy", TCP | LENGTH | PROXY),
    EchoOf("PackageProxy", TCP | PACKAGE | PROXY),
    EchoOf("NoPartialDataProxy", TCP | NO_PARTIAL | PROXY),
    EchoOf("UdpProxy", UDP | PROXY),
    EchoOf("PackageOverUdpProxy", UDP | PACKAGE | PROXY),
    {"Tls", MAIN, EchoOverTls},
    EchoOf("TcpTwoThreads", TCP, OWN),
    EchoOf("PackageTwoThreads", TCP | PACKAGE, OWN),
    {"Names", MAIN, AskNames},
    ConnectOf("ConnectToName", TCP),
    ConnectOf("ConnectToNameProxy", TCP | PROXY),
    ConnectOf("ConnectToNameUdp", UDP),
    {"ConnectThroughProxies", MAIN, ConnectThroughProxies},
    {"FindProxies", MAIN, FindProxies},
    {"Http", MAIN, AskAndAnswer},
    {"HttpTwoThreads", OWN, AskAndAnswer},
    {"ForwardTwoThreads", OWN, ForwardToOne},
    {"Threads", MAIN, UseThreads},
    {"Calendar", MAIN, UseCalendar},
    LifeOf("Life", CCmThreadManager::NETWORK_THREAD_MAIN),
    LifeOf("LifeTwoThreads", CCmThreadManager::NETWORK_THREAD_OWN),
};
