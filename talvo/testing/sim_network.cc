#include "talvo/testing/sim_network.h"

#include <new>
#include <utility>

#include "talvo/base/random_source.h"
#include "talvo/connection/connection_manager.h"
#include "talvo/event/thread.h"
#include "talvo/event/thread_manager.h"
#include "talvo/testing/sim_acceptor.h"
#include "talvo/testing/sim_connector.h"
#include "talvo/testing/sim_core.h"
#include "talvo/testing/sim_reactor.h"
#include "talvo/testing/sim_transport.h"
#include "talvo/transport/base_types.h"

namespace talvo {

namespace {

constexpr DWORD BASE_TYPES[] = {CM_TRANSPORT_TYPE_TCP, CM_TRANSPORT_TYPE_UDP};

std::unique_ptr<ACmConnectorInternal> MakeConnector(const CCmConnectorSettings& aSettings) {
    const BOOL bDatagrams = aSettings.m_dwType == CM_TRANSPORT_TYPE_UDP;
    return std::make_unique<CSimConnector>(aSettings.m_pReactor, *aSettings.m_pUpper, bDatagrams);
}

CCmRefPtrT<ICmAcceptor> MakeAcceptor(const CCmAcceptorSettings& aSettings) {
    return CCmRefPtrT<ICmAcceptor>(new CSimAcceptor(aSettings.m_dwType == CM_TRANSPORT_TYPE_UDP));
}

}  // namespace

// Replaces parts of the process for a simulation: the clock, the main thread, the makers of TCP and UDP, and the name resolver.
class CSimSetup {
public:
    explicit CSimSetup(CSimCore& aCore) : m_Core(aCore), m_OldMode(Threads_i().GetNetworkThreadMode()) {
        m_Status = Begin_i();
        if (m_Status != CM_OK)
            m_Core.m_Trace.Fail("the library has a main or network thread already");
    }

    ~CSimSetup() {
        if (m_Status == CM_OK)
            End_i();
        m_Core.End();
    }
    CSimSetup(const CSimSetup&) = delete;
    CSimSetup& operator=(const CSimSetup&) = delete;

    CmResult GetStatus() const { return m_Status; }

private:
    static CCmThreadManager& Threads_i() { return *CCmThreadManager::Instance(); }

    CmResult Begin_i() {
        if (Threads_i().GetThread(CCmThreadManager::TT_MAIN) || Threads_i().GetThread(CCmThreadManager::TT_NETWORK))
            return CM_ERROR_ALREADY_INITIALIZED;
        CCmConnectionManager::CleanupInstance();  // one whose network thread has ended
        m_pOldClock = CCmClock::Replace(&m_Core.m_Schedule);
        Threads_i().SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN);
        auto* pReactor = new CSimReactor(m_Core, m_Core.m_Schedule);
        const CmResult rv = Threads_i().CreateReactorThread(CCmThreadManager::TT_MAIN, pReactor, m_pThread);
        if (rv != CM_OK) {
            Restore_i();
            return rv;
        }
        m_Core.m_Schedule.SetReactor(pReactor);
        m_pOldResolver = ICmNameResolver::Get();
        ICmNameResolver::Set(&m_Core);
        CCmRandomSource::Replace(FillRandom_i, &m_Core.m_Random);
        for (const DWORD dwType : BASE_TYPES)
            cm_offer_base_type(dwType, {MakeConnector, MakeAcceptor});
        return CM_OK;
    }

    // Lingering connections finish first.
    void End_i() {
        CCmConnectionManager::CleanupInstance();
        m_Core.End();
        m_pThread->Destory(CM_OK);
        for (const DWORD dwType : BASE_TYPES)
            cm_offer_base_type(dwType, {});
        ICmNameResolver::Set(m_pOldResolver);
        Restore_i();
    }

    static void FillRandom_i(void* aRandom, void* aBytes, size_t aCount) {
        auto* pBytes = static_cast<BYTE*>(aBytes);
        for (size_t i = 0; i < aCount; ++i)
            pBytes[i] = static_cast<BYTE>(static_cast<CSimRandom*>(aRandom)->Below(256));
    }

    void Restore_i() {
        CCmRandomSource::Replace(nullptr, nullptr);
        Threads_i().SetNetworkThreadMode(m_OldMode);
        CCmClock::Replace(m_pOldClock);
    }

    CSimCore& m_Core;
    const CCmThreadManager::ENetworkThreadMode m_OldMode;
    CmResult m_Status = CM_OK;
    ICmClock* m_pOldClock = nullptr;            // not owned
    ICmNameResolver* m_pOldResolver = nullptr;  // not owned
    ACmThread* m_pThread = nullptr;             // given up with Destory
};

}  // namespace talvo

using talvo::CSimCore;

CCmSimNetwork::CCmSimNetwork(uint64_t aSeed, std::ostream* aTrace)
    : m_pCore(std::make_shared<CSimCore>(aSeed, aTrace)), m_pSetup(std::make_unique<talvo::CSimSetup>(*m_pCore)) {}

CCmSimNetwork::~CCmSimNetwork() = default;

CmResult CCmSimNetwork::GetStatus() const { return m_pSetup->GetStatus(); }
uint64_t CCmSimNetwork::GetSeed() const { return m_pCore->m_ullSeed; }

void CCmSimNetwork::SetLink(const CCmSimLink& aLink) { m_pCore->SetLink(nullptr, aLink); }
void CCmSimNetwork::SetLink(const CCmInetAddr& aAcceptor, const CCmSimLink& aLink) { m_pCore->SetLink(&aAcceptor, aLink); }
const CCmSimLink& CCmSimNetwork::GetLink(const CCmInetAddr& aAcceptor) const { return m_pCore->GetLink(aAcceptor); }

void CCmSimNetwork::SetHost(const std::string& aName, const CCmInetAddr& aAddr) { m_pCore->SetHost(aName, aAddr.GetIpBytes()); }

CCmTimeValue CCmSimNetwork::Now() const { return CCmTimeValue::FromUsec(m_pCore->m_Schedule.Now()); }

void CCmSimNetwork::RunFor(const CCmTimeValue& aTime) {
    RunUntil([] { return FALSE; }, aTime);
}

BOOL CCmSimNetwork::RunUntil(const std::function<BOOL()>& aIsDone, const CCmTimeValue& aLimit) {
    talvo::CSimSchedule& schedule = m_pCore->m_Schedule;
    if (!schedule.IsRunning())
        return schedule.RunUntil(schedule.Now() + aLimit.GetTotalInUsec(), aIsDone);
    m_pCore->m_Trace.Fail("the simulation was run from inside a callback");
    return FALSE;
}

void CCmSimNetwork::After(const CCmTimeValue& aDelay, std::function<void()> aRun) {
    m_pCore->m_Schedule.After(aDelay.GetTotalInUsec(), std::move(aRun));
}

void CCmSimNetwork::Jump(const CCmTimeValue& aTime) {
    m_bJumped = TRUE;
    m_pCore->m_Schedule.Jump(aTime.GetTotalInUsec());
}

uint64_t CCmSimNetwork::Random(uint64_t aBound) { return m_pCore->m_Random.Below(aBound); }
BOOL CCmSimNetwork::Chance(double aShare) { return m_pCore->m_Random.Chance(aShare); }

CCmTimeValue CCmSimNetwork::RandomTime(const CCmTimeValue& aBound) {
    return CCmTimeValue::FromUsec(static_cast<int64_t>(Random(static_cast<uint64_t>(aBound.GetTotalInUsec()))));
}
CCmSimPath CCmSimNetwork::RandomPath(BOOL aDatagrams) {
    const auto below = [this](uint64_t aBound) { return static_cast<DWORD>(Random(aBound)); };
    const auto share = [this](uint64_t aPercent) { return static_cast<double>(Random(aPercent)) / 100; };
    CCmSimPath path;
    if (Chance(0.2))
        return path;
    path.m_tvDelay = RandomTime(CCmTimeValue(0.02));
    path.m_tvJitter = RandomTime(CCmTimeValue(Chance(0.2) ? 2 : 0.03));
    path.m_dwBandwidth = Chance(0.2) ? 100000 + below(1000000) : 0;
    path.m_dwBuffer = 1 + below(Chance(0.3) ? 300 : 100000);
    path.m_dwMaxPiece = 1 + below(Chance(0.2) ? 10 : 16384);
    path.m_PartialSend = share(50);
    path.m_Loss = share(aDatagrams ? 40 : 5);
    path.m_Duplication = share(30);
    path.m_Reordering = share(20);
    path.m_Damage = share(20);
    path.m_Cut = Chance(0.3) ? share(100) / 100 : 0;
    if (aDatagrams)
        path.m_dwBuffer += 100000;  // drops far less than m_Loss
    return path;
}

CCmSimPath CCmSimNetwork::RandomStorm() {
    const auto seconds = [this](double aShare, long aSeconds) { return CCmTimeValue(Chance(aShare) ? aSeconds : 0); };
    CCmSimPath path = RandomPath(FALSE);
    path.m_Cut = Chance(0.6) ? static_cast<double>(Random(30)) / 100 : 0;
    path.m_CutOneEnd = Chance(0.5) ? 0.3 : 0;
    path.m_Mute = Chance(0.3) ? static_cast<double>(Random(10)) / 100 : 0;
    path.m_dwBuffer += 20;
    if (Chance(0.2))
        path.m_tvSilentUntil = CCmTimeValue::s_tvMax;
    path.m_bLoseEnd = Chance(0.2);
    path.m_tvConnect = seconds(0.2, 15);
    path.m_tvBacklog = seconds(0.2, 30);
    return path;
}

void CCmSimNetwork::Note(const std::string& aText) { m_pCore->m_Trace.Note(aText); }
uint64_t CCmSimNetwork::GetTraceDigest() const { return m_pCore->m_Trace.GetDigest(); }
void CCmSimNetwork::Fail(const std::string& aText) { m_pCore->m_Trace.Fail(aText); }
const std::vector<std::string>& CCmSimNetwork::GetFailures() const { return m_pCore->m_Trace.GetFailures(); }

size_t CCmSimNetwork::CountEnds() const { return m_pCore->m_Ends.size(); }

const CCmSimEnd* CCmSimNetwork::FindEnd(const CCmInetAddr& aLocal, const CCmInetAddr& aPeer) const {
    const talvo::CSimTransport* pEnd = m_pCore->FindEnd({aLocal, aPeer});
    return pEnd ? &pEnd->Describe() : nullptr;
}

void CCmSimNetwork::SetObserver(ICmSimObserver* aObserver) { m_pCore->m_pObserver = aObserver; }
