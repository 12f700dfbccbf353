#include "talvo/proxy/credential_desk.h"

#include <algorithm>
#include <bit>
#include <new>
#include <utility>

#include "talvo/base/ascii.h"
#include "talvo/base/clock.h"
#include "talvo/base/config.h"
#include "talvo/base/immortal.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/event/thread.h"

namespace talvo {

namespace {

using Guard = CCmMutexGuardT<CCmMutexThread>;

constexpr uint32_t ANSWER_MS = 120'000;

int64_t AnswerUsec() { return int64_t{get_uint32_param("HttpProxy", "AskTimeoutMs", ANSWER_MS)} * 1000; }

// The realm comes from the network and goes to a terminal or a dialog.
CCmProxyQuestion Clean(const CCmProxyQuestion& aQuestion) {
    CCmProxyQuestion question = aQuestion;
    question.m_strRealm.resize(std::min(question.m_strRealm.size(), CCredentialDesk::LONGEST_TEXT));
    std::replace_if(question.m_strRealm.begin(), question.m_strRealm.end(), is_control, '?');
    return question;
}

ACmThread* GetThreadWithQueue() {
    ACmThread* pThread = CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_CURRENT);
    return pThread && pThread->GetEventQueue() ? pThread : nullptr;
}

const struct CInstalled {
    CInstalled() { ICmProxyCredentials::Set(&CCredentialDesk::Instance()); }
} s_Installed;

}  // namespace

CCredentialDesk& CCredentialDesk::Instance() {
    static CImmortalT<CCredentialDesk> s_Desk;
    return *s_Desk;
}

CmResult CCredentialDesk::GetCredentials(const CCmProxyQuestion& aQuestion, CCmCredentials& aCredentials,
                                         ICmProxyCredentialsSink* aSink) {
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    std::unique_ptr<CAskEvent> pAsk;
    WithMemory([&] {
        const CCmProxyQuestion question = Clean(aQuestion);
        const Guard guard(m_Mutex);
        const CCmCredentials* pStored = m_Sets.Find(question.m_strProxy, question.m_strRealm);
        if (pStored)
            aCredentials = *pStored;
        rv = pStored ? CM_OK : Wait_l(question, aSink, pAsk);
    });
    if (pAsk)
        Post_i(std::move(pAsk));
    return rv;
}

CmResult CCredentialDesk::Wait_l(const CCmProxyQuestion& aQuestion, ICmProxyCredentialsSink* aSink,
                                 std::unique_ptr<CAskEvent>& aAsk) {
    if (!aSink || !m_pAsker)
        return CM_ERROR_NOT_FOUND;
    ACmThread* pThread = GetThreadWithQueue();
    if (!pThread)
        return CM_ERROR_NULL_POINTER;
    if (std::any_of(m_Waits.begin(), m_Waits.end(), [&](const CCredentialWait* p) { return p->m_pSink == aSink; }))
        return CM_ERROR_ALREADY_INITIALIZED;
    DropExpired_l();
    return Join_l(aQuestion, *aSink, pThread->GetLink(), aAsk);
}

// aAsk (out): null if the question is open already. State changes last, when nothing can fail.
CmResult CCredentialDesk::Join_l(const CCmProxyQuestion& aQuestion, ICmProxyCredentialsSink& aSink, CCmThreadLink& aLink,
                                 std::unique_ptr<CAskEvent>& aAsk) {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    auto it = std::find_if(m_Questions.begin(), m_Questions.end(), [&](const CQuestion& q) {
        return q.m_Question.m_strProxy == aQuestion.m_strProxy && q.m_Question.m_strRealm == aQuestion.m_strRealm;
    });
    const BOOL bNew = it == m_Questions.end();
    if (bNew && m_Questions.size() == MOST_QUESTIONS)
        return CM_ERROR_NOT_AVAILABLE;
    const DWORD dwId = bNew ? m_dwLastId + 1 : it->m_dwId;
    const int64_t llDeadline = bNew ? llNow + AnswerUsec() : it->m_llDeadline;
    auto pWait = std::make_unique<CCredentialWait>(*this, aSink, aLink, dwId);
    const CmResult rv = pWait->StartTimer(llDeadline - llNow);
    if (rv != CM_OK)
        return rv;
    m_Waits.reserve(std::bit_ceil(m_Waits.size() + 1));
    if (bNew) {
        auto pAsk = std::make_unique<CAskEvent>(*this, dwId, aQuestion, m_pAsker);
        m_Questions.push_back({dwId, aQuestion, m_pAsker, llDeadline});
        m_dwLastId = dwId;
        aAsk = std::move(pAsk);
    }
    m_Waits.push_back(pWait.release());
    return CM_ERROR_WOULD_BLOCK;
}

void CCredentialDesk::Post_i(std::unique_ptr<CAskEvent> aAsk) {
    const DWORD dwId = aAsk->m_dwId;
    const CCmRefPtrT<CCredentialAsker> pAsker = aAsk->m_pAsker;
    CM_INFO_TRACE("CCredentialDesk::GetCredentials, asks for credentials. proxy="
                  << aAsk->m_Question.m_strProxy << " realm=" << aAsk->m_Question.m_strRealm
                  << " scheme=" << aAsk->m_Question.m_strScheme << " id=" << dwId);
    if (pAsker->m_pLink->PostEvent(aAsk.release()) != CM_OK)
        Fail_i([&](const CQuestion& q) { return q.m_dwId == dwId; });
}

// Asker's thread. A question for an asker that was replaced goes to the new one.
void CCredentialDesk::Ask_i(CAskEvent& aEvent) {
    BOOL bReplaced = FALSE;
    std::unique_ptr<CAskEvent> pAgain;
    CCmRefPtrT<CCredentialAsker> pAsker;
    {
        const Guard guard(m_Mutex);
        const auto it = Find_l(aEvent.m_dwId);
        if (it == m_Questions.end())
            return;
        pAsker = it->m_pAsker = m_pAsker;
        bReplaced = pAsker.Get() != aEvent.m_pAsker.Get();
        if (bReplaced && pAsker)
            WithMemory([&] { pAgain = std::make_unique<CAskEvent>(*this, it->m_dwId, it->m_Question, pAsker); });
    }
    if (pAgain)
        return Post_i(std::move(pAgain));
    if (bReplaced)
        return Fail_i([&](const CQuestion& q) { return q.m_dwId == aEvent.m_dwId; });
    const CCmProxyQuestion& question = aEvent.m_Question;
    aEvent.m_pAsker->m_pCallback(aEvent.m_pAsker->m_pArg, aEvent.m_dwId, question.m_strProxy.c_str(),
                                 question.m_strRealm.c_str(), question.m_strScheme.c_str(), question.m_bRefused);
}

CmResult CCredentialDesk::Cancel(ICmProxyCredentialsSink* aSink) {
    const Guard guard(m_Mutex);
    const auto it =
        std::find_if(m_Waits.begin(), m_Waits.end(), [&](const CCredentialWait* p) { return aSink && p->m_pSink == aSink; });
    if (it == m_Waits.end())
        return CM_ERROR_NOT_FOUND;
    CCredentialWait* pWait = *it;
    pWait->m_pSink = nullptr;
    if (!pWait->m_bAnswered) {
        m_Waits.erase(it);
        delete pWait;
    }
    return CM_OK;
}

void CCredentialDesk::Forget(const CCmProxyQuestion& aQuestion, const CCmCredentials& aCredentials) {
    WithMemory([&] {
        const CCmProxyQuestion question = Clean(aQuestion);
        const Guard guard(m_Mutex);
        m_Sets.ForgetRefused(question.m_strProxy, question.m_strRealm, aCredentials);
    });
}

BOOL CCredentialDesk::MayHaveCredentials(const CCmString& aProxy) {
    const Guard guard(m_Mutex);
    return m_pAsker || m_Sets.HasAny(aProxy);
}

CmResult CCredentialDesk::SetCredentials(const CCmString& aProxy, const char* aRealm, const CCmCredentials& aCredentials) {
    const Guard guard(m_Mutex);
    return m_Sets.Set(aProxy, aRealm, aCredentials);
}

CmResult CCredentialDesk::ForgetAll(const CCmString& aProxy) {
    const Guard guard(m_Mutex);
    return m_Sets.Forget(aProxy) ? CM_OK : CM_ERROR_NOT_FOUND;
}

CmResult CCredentialDesk::SetAsker(cm_proxy_asker aCallback, void* aArg) {
    if (!aCallback) {
        {
            const Guard guard(m_Mutex);
            m_pAsker.Reset();
        }
        Fail_i([](const CQuestion&) { return true; });
        return CM_OK;
    }
    ACmThread* pThread = GetThreadWithQueue();
    if (!pThread)
        return CM_ERROR_NULL_POINTER;
    CCmThreadLink& link = pThread->GetLink();
    const BOOL bSet = WithMemory([&] {
        const CCmRefPtrT<CCredentialAsker> pAsker(new CCredentialAsker(aCallback, aArg, link));
        const Guard guard(m_Mutex);
        const auto isHere = [&](const CAskerThread* p) { return &p->m_Link == &link; };
        if (std::none_of(m_AskerThreads.begin(), m_AskerThreads.end(), isHere)) {
            m_AskerThreads.reserve(m_AskerThreads.size() + 1);
            m_AskerThreads.push_back(new CAskerThread(*this, link));
        }
        m_pAsker = pAsker;
    });
    return bSet ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCredentialDesk::Answer(DWORD aId, const CCmCredentials& aCredentials) {
    CCredentialWait* pAnswered = nullptr;
    {
        const Guard guard(m_Mutex);
        DropExpired_l();
        const auto it = Find_l(aId);
        if (it == m_Questions.end())
            return CM_ERROR_NOT_FOUND;
        const CCmProxyQuestion& question = it->m_Question;
        if (aCredentials && m_Sets.SetAnswer(question.m_strProxy, question.m_strRealm, aCredentials) == CM_ERROR_OUT_OF_MEMORY)
            return CM_ERROR_OUT_OF_MEMORY;
        pAnswered = End_l(it, aCredentials ? CM_OK : CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, aCredentials);
    }
    PostAnswers_i(pAnswered);
    return CM_OK;
}

void CCredentialDesk::OnAskerThreadEnd_i(CAskerThread& aThread) {
    {
        const Guard guard(m_Mutex);
        std::erase(m_AskerThreads, &aThread);
        if (m_pAsker && m_pAsker->m_pLink.Get() == &aThread.m_Link)
            m_pAsker.Reset();
    }
    Fail_i([&](const CQuestion& q) { return !q.m_pAsker || q.m_pAsker->m_pLink.Get() == &aThread.m_Link; });
}

CCredentialDesk::CQuestions::iterator CCredentialDesk::Find_l(DWORD aId) {
    return std::find_if(m_Questions.begin(), m_Questions.end(), [&](const CQuestion& q) { return q.m_dwId == aId; });
}

// Closes the question. Returns its waits, linked, which nobody else posts or deletes any more.
CCredentialWait* CCredentialDesk::End_l(CQuestions::iterator aQuestion, CmResult aResult, const CCmCredentials& aCredentials) {
    CCredentialWait* pAnswered = nullptr;
    for (CCredentialWait* pWait : m_Waits) {
        if (pWait->m_dwQuestion != aQuestion->m_dwId || pWait->m_bAnswered)
            continue;
        pWait->m_bAnswered = TRUE;
        pWait->m_Result = aResult;
        pWait->m_Credentials = aCredentials;
        pWait->m_pNext = std::exchange(pAnswered, pWait);
    }
    m_Questions.erase(aQuestion);
    return pAnswered;
}

// Ends the questions that match, without an answer.
template <class Match>
void CCredentialDesk::Fail_i(const Match& aMatch) {
    for (;;) {
        CCredentialWait* pAnswered = nullptr;
        {
            const Guard guard(m_Mutex);
            const auto it = std::find_if(m_Questions.begin(), m_Questions.end(), aMatch);
            if (it == m_Questions.end())
                return;
            pAnswered = End_l(it, CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, {});
        }
        PostAnswers_i(pAnswered);
    }
}

// The timers of the waits notify their sinks.
void CCredentialDesk::DropExpired_l() {
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    std::erase_if(m_Questions, [&](const CQuestion& q) { return q.m_llDeadline <= llNow; });
}

void CCredentialDesk::PostAnswers_i(CCredentialWait* aAnswered) {
    while (aAnswered) {
        CCredentialWait* pWait = std::exchange(aAnswered, aAnswered->m_pNext);
        const CCmRefPtrT<CCmThreadLink> pLink(&pWait->GetLink());
        pLink->PostEvent(pWait);
    }
}

ICmProxyCredentialsSink* CCredentialDesk::Remove(CCredentialWait& aWait) {
    const Guard guard(m_Mutex);
    std::erase(m_Waits, &aWait);
    return std::exchange(aWait.m_pSink, nullptr);
}

ICmProxyCredentialsSink* CCredentialDesk::RemoveUnanswered(CCredentialWait& aWait) {
    const Guard guard(m_Mutex);
    if (aWait.m_bAnswered)
        return nullptr;
    std::erase(m_Waits, &aWait);
    return std::exchange(aWait.m_pSink, nullptr);
}

}  // namespace talvo
