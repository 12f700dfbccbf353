#include "talvo/proxy/script/pac_host.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/immortal.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/thread_manager.h"
#include "talvo/proxy/script/pac_helper_path.h"

namespace talvo {

namespace {

constexpr size_t MOST_DEATHS = 3;
constexpr int64_t MINUTE = 60'000'000;

IPacEngine* MakeEngine() {
    static CImmortalT<CPacHost> s_Host;
    return &*s_Host;
}

[[maybe_unused]] const BOOL s_bOffered = (IPacEngine::Set(MakeEngine()), TRUE);

}  // namespace

CPacHost::~CPacHost() { Clear_i(); }

CmResult CPacHost::Find(const CPacTextPtr& aScript, const CPacQuestion& aQuestion, IPacSink& aSink) {
    if (FindJob_i(aSink))
        return CM_ERROR_ALREADY_INITIALIZED;
    if (m_Waiting.size() >= MOST_WAITING || (m_Helpers.empty() && !MayStart_i()))
        return CM_ERROR_NOT_AVAILABLE;
    PacJobPtr pJob;
    if (!WithMemory([&] {
            pJob = new CPacJob;
            pJob->m_pScript = aScript;
            pJob->m_Question = aQuestion;
            m_Waiting.push_back(pJob);
        }))
        return CM_ERROR_OUT_OF_MEMORY;
    if (!std::exchange(m_bJoined, TRUE))
        JoinCurrentThread();
    Dispatch_i();
    // The sink was not set yet, so a failure in Dispatch_i has not reached it.
    const BOOL bTaken =
        std::count(m_Waiting.begin(), m_Waiting.end(), pJob) + std::count(m_Running.begin(), m_Running.end(), pJob) > 0;
    if (!bTaken)
        return CM_ERROR_NOT_AVAILABLE;
    pJob->m_pSink = &aSink;
    return CM_ERROR_WOULD_BLOCK;
}

void CPacHost::Cancel(IPacSink& aSink) {
    const PacJobPtr pJob = FindJob_i(aSink);
    if (!pJob)
        return;
    pJob->m_pSink = nullptr;  // the helper that runs it, if any, goes on to its end
    std::erase(m_Waiting, pJob);
}

CCmString CPacHost::GetProblem() const {
    if (!MayStart_i())
        return "the helper program died three times within a minute, and no other one starts for a minute";
    if (m_strMissing.empty())
        return "";
    const BOOL bUsable = access(m_strMissing.c_str(), X_OK) == 0;
    return "the helper program '" + m_strMissing + "' cannot be started" + (bUsable ? "" : CCmString(": ") + strerror(errno));
}

PacJobPtr CPacHost::FindJob_i(const IPacSink& aSink) const {
    const auto isOfSink = [&aSink](const PacJobPtr& aJob) { return aJob->m_pSink == &aSink; };
    const auto running = std::find_if(m_Running.begin(), m_Running.end(), isOfSink);
    if (running != m_Running.end())
        return *running;
    const auto waiting = std::find_if(m_Waiting.begin(), m_Waiting.end(), isOfSink);
    return waiting == m_Waiting.end() ? nullptr : *waiting;
}

// The first one waits for a helper: a free one, best with its script, or a new one.
void CPacHost::Dispatch_i() {
    while (!m_Waiting.empty()) {
        const CCmRefPtrT<CPacHelper> pHelper = ChooseHelper_i(*m_Waiting.front());
        if (!pHelper)
            break;
        const PacJobPtr pJob = m_Waiting.front();
        m_Running.push_back(pJob);  // within what StartHelper_i has reserved
        m_Waiting.pop_front();
        pHelper->Run(pJob);
    }
    while (m_Helpers.empty() && !m_Waiting.empty()) {
        const PacJobPtr pJob = m_Waiting.front();
        m_Waiting.pop_front();
        CCmString strProblem;
        WithMemory([&] { strProblem = GetProblem(); });
        OnJobEnd(pJob, EPacEnd::NO_ENGINE, strProblem);
    }
}

CCmRefPtrT<CPacHelper> CPacHost::ChooseHelper_i(const CPacJob& aJob) {
    CCmRefPtrT<CPacHelper> pFree;
    for (const auto& pHelper : m_Helpers) {
        if (!pHelper->IsFree())
            continue;
        pFree = pHelper;
        if (pHelper->HasLoaded(aJob.m_pScript->m_ullVersion))
            return pFree;
    }
    return pFree ? pFree : StartHelper_i();
}

CCmRefPtrT<CPacHelper> CPacHost::StartHelper_i() {
    ICmReactor* pReactor = CCmThreadManager::Instance()->GetThreadReactor(CCmThreadManager::TT_CURRENT);
    if (m_Helpers.size() >= MOST_HELPERS || !pReactor || !MayStart_i())
        return nullptr;
    CCmRefPtrT<CPacHelper> pHelper;
    CCmString strPath;
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    WithMemory([&] {
        m_Running.reserve(2 * MOST_HELPERS);
        m_Helpers.reserve(MOST_HELPERS);
        m_Deaths.reserve(MOST_DEATHS);
        strPath = GetPacHelperPath();
        pHelper = new CPacHelper(*pReactor, *this);
        rv = pHelper->Start(strPath);
    });
    if (rv == CM_OK) {
        m_Helpers.push_back(pHelper);
        m_strMissing.clear();
        return pHelper;
    }
    if (m_strMissing != strPath)
        CM_ERROR_TRACE("CPacHost::StartHelper_i, proxy auto-configuration scripts cannot run. path=" << strPath
                                                                                                     << " rv=" << rv);
    m_strMissing.swap(strPath);
    return nullptr;
}

BOOL CPacHost::MayStart_i() const { return CCmClock::GetTimeOfDayUsec() >= m_llNoStartUntil; }

void CPacHost::CountDeath_i() {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    std::erase_if(m_Deaths, [llNow](int64_t aDeath) { return aDeath <= llNow - MINUTE; });
    m_Deaths.push_back(llNow);
    if (m_Deaths.size() < MOST_DEATHS)
        return;
    m_Deaths.clear();
    m_llNoStartUntil = llNow + MINUTE;
    CM_WARNING_TRACE("CPacHost::CountDeath_i, the helper died three times within a minute. No other starts for a minute.");
}

void CPacHost::OnJobEnd(const PacJobPtr& aJob, EPacEnd aEnd, std::string_view aText) {
    std::erase(m_Running, aJob);
    CCmString strText;
    if (!WithMemory([&] { strText = aText; }) && aEnd == EPacEnd::ANSWER)
        aEnd = EPacEnd::LIMIT;  // no text is an answer of its own
    if (IPacSink* pSink = std::exchange(aJob->m_pSink, nullptr))
        pSink->OnPacEnd(aEnd, strText);
}

// A helper may die while it is idle, and the question may come before the news.
BOOL CPacHost::OnJobUnread(const PacJobPtr& aJob) {
    if (!aJob->m_pSink || std::exchange(aJob->m_bAgain, TRUE) || !WithMemory([&] { m_Waiting.push_front(aJob); }))
        return FALSE;
    std::erase(m_Running, aJob);
    return TRUE;
}

void CPacHost::OnHelperFree() { Dispatch_i(); }

void CPacHost::OnHelperEnd(CPacHelper& aHelper, BOOL aDied) {
    std::erase_if(m_Helpers, [&aHelper](const auto& aOther) { return aOther.Get() == &aHelper; });
    if (!aDied)
        return;
    CountDeath_i();
    Dispatch_i();
}

void CPacHost::OnThreadEnd() { Clear_i(); }

void CPacHost::Clear_i() {
    for (const auto& pHelper : m_Helpers)
        pHelper->Close();
    m_Helpers.clear();
    m_Waiting.clear();
    m_Running.clear();
    m_Deaths.clear();
    m_llNoStartUntil = INT64_MIN;
    m_bJoined = FALSE;
}

}  // namespace talvo
