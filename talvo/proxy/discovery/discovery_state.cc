#include "talvo/proxy/discovery/discovery_state.h"

#include <new>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/thread.h"
#include "talvo/proxy/discovery/proxy_discovery.h"
#include "talvo/transport/bad_proxies.h"

namespace talvo {

namespace {

using Guard = CCmMutexGuardT<CCmMutexThread>;

constexpr int64_t CHECK_USEC = 1'000'000;

// Carries an origin to the network thread. If the event does not arrive, the question fails.
class CStartEvent final : public ICmEvent {
public:
    CStartEvent(CDiscoveryState& aState, const CProxyOrigin& aOrigin) : m_pState(&aState), m_Origin(aOrigin) {}
    ~CStartEvent() override {
        if (!m_bArrived)
            m_pState->Fail(m_Origin.m_strUrl, CM_ERROR_NOT_AVAILABLE);
    }
    CmResult OnEventFire() override {
        m_bArrived = TRUE;
        m_pState->Start_n(m_Origin);
        return CM_OK;
    }
    // Starts the evaluation: from now on the end of this event without an arrival is a failure.
    void Count() { m_bArrived = FALSE; }

private:
    const CCmRefPtrT<CDiscoveryState> m_pState;
    const CProxyOrigin m_Origin;
    BOOL m_bArrived = TRUE;
};

// Carries an answer to an asker. It is created with the question, so that a later lack of memory can be reported.
class CAnswerEvent final : public ICmEvent {
public:
    explicit CAnswerEvent(CDiscoveryState& aState) : m_pState(&aState) {}
    ~CAnswerEvent() override {
        if (m_pAnswer)
            m_pState->Forget(m_ullId);
    }
    void SetAnswer(uint64_t aId, const CCmRefPtrT<CCmProxyAnswer>& aAnswer) {
        m_ullId = aId;
        m_pAnswer = aAnswer;
    }
    CmResult OnEventFire() override {
        m_pState->Notify(m_ullId, *m_pAnswer);
        return CM_OK;
    }

private:
    const CCmRefPtrT<CDiscoveryState> m_pState;
    uint64_t m_ullId = 0;
    CCmRefPtrT<CCmProxyAnswer> m_pAnswer;
};

CCmProxyAnswer::CValue Failure(CmResult aReason) {
    CCmProxyAnswer::CValue value;
    value.m_Result = aReason;
    return value;
}

// The link to the network thread; null: there is none.
CCmRefPtrT<CCmThreadLink> GetNetworkLink() {
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_NETWORK);
    return pThread ? &pThread->GetLink() : nullptr;
}

// The link to the thread that calls an asker: aThread, or the calling one. Null: an asker cannot be called there.
CCmRefPtrT<CCmThreadLink> GetAskerLink(ACmThread* aThread) {
    ACmThread* pThread = aThread ? aThread : CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    return pThread && pThread->GetEventQueue() ? &pThread->GetLink() : nullptr;
}

}  // namespace

CDiscoveryState::CDiscoveryState()
    : m_pNoMemory(new CCmProxyAnswer(Failure(CM_ERROR_OUT_OF_MEMORY))), m_Answers(CCmProxyDiscovery::MOST_KEPT) {}

CmResult CDiscoveryState::Find(const CProxyOrigin& aOrigin, const CProxyAskers::CTarget& aTarget, ACmThread* aThread,
                               CCmRefPtrT<CCmProxyAnswer>& aAnswer) {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    BOOL bCheck = FALSE, bRead = FALSE;
    {
        const Guard guard(m_Mutex);
        aAnswer = m_Answers.Find(aOrigin.m_strUrl, llNow);
        bRead = m_pEnvironment && m_pApplication;
        bCheck = aAnswer && llNow >= m_llNextCheck;
        if (bCheck)
            m_llNextCheck = llNow + CHECK_USEC;
    }
    if (bCheck)
        PostCheck_i();
    if (aAnswer)
        return CM_OK;
    const BOOL bHasTarget = aTarget.GetKey() != nullptr;
    const CCmRefPtrT<CCmThreadLink> pLink = bHasTarget ? GetAskerLink(aThread) : nullptr;
    if (bHasTarget && !pLink)
        return CM_ERROR_NULL_POINTER;
    if (!bRead)
        FindSettings_i();
    return Ask_i(aOrigin, aTarget, pLink);
}

// The settings that are read in the thread of the first question.
void CDiscoveryState::FindSettings_i() {
    auto pEnvironment = CEnvironment::Copy();
    auto pApplication = std::make_shared<const CApplicationSettings>(CApplicationSettings::FromConfiguration());
    const Guard guard(m_Mutex);
    if (!m_pEnvironment)
        m_pEnvironment = std::move(pEnvironment);
    if (!m_pApplication)
        m_pApplication = std::move(pApplication);
}

CmResult CDiscoveryState::Ask_i(const CProxyOrigin& aOrigin, const CProxyAskers::CTarget& aTarget,
                                CCmRefPtrT<CCmThreadLink> aLink) {
    const CCmRefPtrT<CCmThreadLink> pNetwork = GetNetworkLink();
    if (!pNetwork)
        return CM_ERROR_NOT_AVAILABLE;
    auto pStart = std::make_unique<CStartEvent>(*this, aOrigin);
    CProxyAskers::CAsker asker{aTarget, std::move(aLink), aOrigin.m_strUrl, nullptr};
    if (aTarget.GetKey())
        asker.m_pNotification = std::make_unique<CAnswerEvent>(*this);
    {
        const Guard guard(m_Mutex);
        if (m_Askers.GetCount() >= CCmProxyDiscovery::MOST_WAITING)
            return CM_ERROR_NOT_AVAILABLE;
        if (aTarget.m_pSink && m_Askers.IsWaiting(aTarget.m_pSink))
            return CM_ERROR_ALREADY_INITIALIZED;
        const BOOL bNew = !m_Askers.IsUnderWay(aOrigin.m_strUrl);
        if (aTarget.GetKey())
            m_Askers.Add(std::move(asker));
        else
            m_Askers.Begin(aOrigin.m_strUrl);
        if (!bNew)
            return CM_ERROR_WOULD_BLOCK;
    }
    pStart->Count();
    pNetwork->PostEvent(pStart.release());
    return CM_ERROR_WOULD_BLOCK;
}

CmResult CDiscoveryState::Cancel(const void* aKey) {
    const Guard guard(m_Mutex);
    return m_Askers.Cancel(aKey) ? CM_OK : CM_ERROR_NOT_FOUND;
}

void CDiscoveryState::SetSettings(std::shared_ptr<const CApplicationSettings> aSettings) {
    const BOOL bConfigured = !aSettings;
    if (bConfigured)
        aSettings = std::make_shared<const CApplicationSettings>(CApplicationSettings::FromConfiguration());
    {
        const Guard guard(m_Mutex);
        m_pApplication = std::move(aSettings);
        m_bConfigured = bConfigured;
        BeginAnew_l();
    }
    PostChange_i(FALSE);
}

void CDiscoveryState::Refresh() {
    auto pEnvironment = CEnvironment::Copy();
    auto pApplication = std::make_shared<const CApplicationSettings>(CApplicationSettings::FromConfiguration());
    {
        const Guard guard(m_Mutex);
        m_pEnvironment = std::move(pEnvironment);
        if (m_bConfigured)
            m_pApplication = std::move(pApplication);
        BeginAnew_l();
    }
    PostChange_i(TRUE);
}

void CDiscoveryState::BeginAnew_l() {
    m_Answers.Clear();
    ++m_dwGeneration;
}

// Without memory the next question looks for changes.
void CDiscoveryState::PostCheck_i() {
    if (const CCmRefPtrT<CCmThreadLink> pNetwork = GetNetworkLink())
        pNetwork->Post([pThis = CCmRefPtrT<CDiscoveryState>(this)] {
            if (pThis->m_pFinder)
                pThis->m_pFinder->Check();
        });
}

// Without memory for the event, the end of each evaluation finds the new generation.
void CDiscoveryState::PostChange_i(BOOL aRefresh) {
    CBadProxies::Instance().Clear();
    if (const CCmRefPtrT<CCmThreadLink> pNetwork = GetNetworkLink())
        pNetwork->Post([pThis = CCmRefPtrT<CDiscoveryState>(this), aRefresh] {
            if (pThis->m_pFinder && aRefresh)
                pThis->m_pFinder->Refresh();
            else if (pThis->m_pFinder)
                pThis->m_pFinder->Reload();
        });
    PostNotices_i();
}

// Without memory no sink needs to ask again: it gets the new answer.
void CDiscoveryState::PostNotices_i() {
    std::vector<std::pair<uint64_t, CCmRefPtrT<CCmThreadLink>>> sinks;
    WithMemory([&] {
        const Guard guard(m_Mutex);
        sinks = m_Askers.GetSinks();
    });
    for (const auto& [ullId, pLink] : sinks)
        pLink->Post([pThis = CCmRefPtrT<CDiscoveryState>(this), ullId = ullId] { pThis->NotifyOfChange(ullId); });
}

void CDiscoveryState::Start_n(const CProxyOrigin& aOrigin) {
    if (CProxyFinder* pFinder = GetFinder_n())
        pFinder->Start(aOrigin);
    else
        Fail(aOrigin.m_strUrl, CM_ERROR_OUT_OF_MEMORY);
}

// The first question in a network thread creates the finder, which lives until that thread ends.
CProxyFinder* CDiscoveryState::GetFinder_n() {
    if (m_pFinder)
        return m_pFinder.get();
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    ICmReactor* pReactor = pThread ? pThread->GetReactor() : nullptr;
    if (!pReactor || pThread->GetLink().Join(*this) != CM_OK)
        return nullptr;
    WithMemory([&] { m_pFinder.reset(new CProxyFinder(*pReactor, *this)); });
    if (m_pFinder)
        m_pSelf = this;
    else
        pThread->GetLink().Leave(*this);
    return m_pFinder.get();
}

void CDiscoveryState::OnThreadEnd() {
    const CCmRefPtrT<CDiscoveryState> pThis = std::move(m_pSelf);
    m_pFinder.reset();
    {
        const Guard guard(m_Mutex);
        BeginAnew_l();
    }
    const CCmRefPtrT<CCmProxyAnswer> pAnswer = MakeAnswer_i(Failure(CM_ERROR_NOT_AVAILABLE));
    for (;;) {
        std::set<uint64_t> askers;
        {
            const Guard guard(m_Mutex);
            if (!m_Askers.EndAny(askers))
                return;
        }
        Finish_i(pAnswer, askers);
    }
}

CDiscoverySettings CDiscoveryState::GetSettings() {
    const Guard guard(m_Mutex);
    return {m_dwGeneration, m_pApplication, m_pEnvironment};
}

BOOL CDiscoveryState::OnAnswersObsolete(DWORD& aGeneration) {
    BOOL bSame = FALSE;
    {
        const Guard guard(m_Mutex);
        bSame = aGeneration == m_dwGeneration;
        BeginAnew_l();
        aGeneration = m_dwGeneration;
    }
    CBadProxies::Instance().Clear();
    PostNotices_i();
    return bSame;
}

// An answer without a memory for it is not kept.
void CDiscoveryState::OnProxyFound(DWORD aGeneration, const CCmString& aOrigin, CCmProxyAnswer::CValue aValue, DWORD aSeconds) {
    const CCmRefPtrT<CCmProxyAnswer> pAnswer = MakeAnswer_i(std::move(aValue));
    const int64_t llUntil = CCmClock::GetTimeOfDayUsec() + int64_t{aSeconds} * 1000000;
    std::set<uint64_t> askers;
    {
        const Guard guard(m_Mutex);
        const BOOL bKept = aSeconds > 0 && !aOrigin.empty() && aGeneration == m_dwGeneration;
        if (bKept && pAnswer.Get() != m_pNoMemory.Get())
            WithMemory([&]() CM_NO_THREAD_SAFETY_ANALYSIS { m_Answers.Add(aOrigin, pAnswer, llUntil); });
        askers = m_Askers.End(aOrigin);
    }
    Finish_i(pAnswer, askers);
}

void CDiscoveryState::Fail(const CCmString& aOrigin, CmResult aReason) {
    OnProxyFound(m_dwGeneration, aOrigin, Failure(aReason), 0);
}

CCmRefPtrT<CCmProxyAnswer> CDiscoveryState::MakeAnswer_i(CCmProxyAnswer::CValue aValue) const {
    CCmRefPtrT<CCmProxyAnswer> pAnswer = m_pNoMemory;
    WithMemory([&] { pAnswer = new CCmProxyAnswer(std::move(aValue)); });
    return pAnswer;
}

void CDiscoveryState::Finish_i(const CCmRefPtrT<CCmProxyAnswer>& aAnswer, const std::set<uint64_t>& aAskers) {
    for (const uint64_t ullId : aAskers) {
        CCmRefPtrT<CCmThreadLink> pLink;
        std::unique_ptr<ICmEvent> pNotification;
        {
            const Guard guard(m_Mutex);
            pNotification = m_Askers.TakeNotification(ullId, pLink);
        }
        if (!pNotification)
            continue;
        static_cast<CAnswerEvent&>(*pNotification).SetAnswer(ullId, aAnswer);
        pLink->PostEvent(pNotification.release());
    }
}

void CDiscoveryState::Notify(uint64_t aId, CCmProxyAnswer& aAnswer) {
    CProxyAskers::CTarget target;
    {
        const Guard guard(m_Mutex);
        target = m_Askers.Take(aId);
    }
    if (target.m_pObserver)
        target.m_pObserver->OnObserve(CCmProxyDiscovery::TOPIC, &aAnswer);
    else if (target.m_pSink)
        target.m_pSink->OnProxyRoute(aAnswer.GetResult(), aAnswer.GetRoute());
}

// In the asker's thread, so no cancel can come between.
void CDiscoveryState::NotifyOfChange(uint64_t aId) {
    ICmProxySourceSink* pSink;
    {
        const Guard guard(m_Mutex);
        pSink = m_Askers.FindSink(aId);
    }
    if (pSink)
        pSink->OnProxySettingsChanged();
}

void CDiscoveryState::Forget(uint64_t aId) {
    const Guard guard(m_Mutex);
    m_Askers.Take(aId);
}

}  // namespace talvo
