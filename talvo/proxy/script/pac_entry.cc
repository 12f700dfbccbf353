#include "talvo/proxy/script/pac_entry.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/proxy/script/pac_expiry.h"
#include "talvo/proxy/script/pac_store.h"

namespace talvo {

namespace {

constexpr int64_t SECOND = 1'000'000;

uint64_t NextVersion() {
    static std::atomic<uint64_t> s_ullLast{0};
    return ++s_ullLast;
}

}  // namespace

BOOL CPacEntry::IsDue_i() const { return !m_bFetching && CCmClock::GetTimeOfDayUsec() >= m_llDue; }

BOOL CPacEntry::IsWaiting(const IPacTextSink& aSink) const {
    return std::find(m_Sinks.begin(), m_Sinks.end(), &aSink) != m_Sinks.end();
}

CmResult CPacEntry::Get(CPacTextPtr& aText, IPacTextSink& aSink, uint64_t aUse) {
    m_ullLastUse = aUse;
    CmResult rv = IsDue_i() ? Fetch_i() : CM_OK;
    if (m_pText) {
        aText = m_pText;
        return CM_OK;
    }
    if (!m_bFetching)
        return rv == CM_OK ? CM_ERROR_NOT_AVAILABLE : rv;
    return WithMemory([&] { m_Sinks.push_back(&aSink); }) ? CM_ERROR_WOULD_BLOCK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CPacEntry::Fetch_i() {
    CCmString strError;
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    WithMemory([&] { rv = m_Fetch.Start(m_Url, m_pText ? m_Marks : CPacMarks(), *this, strError); });
    m_bFetching = rv == CM_OK;
    if (rv != CM_OK)
        Fail_i(rv, strError);
    return rv == CM_ERROR_OUT_OF_MEMORY ? rv : CM_OK;
}

void CPacEntry::SetLifetime(DWORD aSeconds) {
    if (m_pText && m_dwFailures == 0)
        m_llDue = m_llFetched + int64_t{aSeconds} * SECOND;
}

void CPacEntry::Reject(const CPacTextPtr& aText) {
    if (aText != m_pText || aText == m_pRejected)
        return;
    m_pRejected = aText;
    Retry_i();
}

void CPacEntry::Refresh() {
    m_llDue = INT64_MIN;
    m_dwFailures = 0;
}

void CPacEntry::Fail_i(CmResult aReason, const CCmString& aError) {
    Retry_i();
    CM_WARNING_TRACE("CPacEntry::Fail_i, the script cannot be fetched: "
                     << aError << ". scheme=" << m_Url.GetScheme() << " host=" << m_Url.GetHostName() << " rv=" << aReason);
}

void CPacEntry::Retry_i() {
    ++m_dwFailures;
    m_llDue = CCmClock::GetTimeOfDayUsec() + int64_t{PacRetryAfter(m_dwFailures)} * SECOND;
}

void CPacEntry::OnPacFetched(CPacFetched& aFetched) {
    m_bFetching = FALSE;
    if (aFetched.m_Reason == CM_OK && aFetched.m_bSame && !m_pText)
        aFetched.m_Reason = CM_ERROR_NETWORK_HTTP_FAILURE;  // "not modified", but nothing was known
    if (aFetched.m_Reason != CM_OK) {
        Fail_i(aFetched.m_Reason, aFetched.m_strError);
        return Notify_i(aFetched.m_Reason, aFetched.m_strError);
    }
    const BOOL bFirst = !m_pText;
    BOOL bChanged = FALSE;
    if (!WithMemory([&] { bChanged = Take_i(aFetched); })) {
        Fail_i(CM_ERROR_OUT_OF_MEMORY, "memory ran out");
        return Notify_i(CM_ERROR_OUT_OF_MEMORY, "");
    }
    m_llFetched = CCmClock::GetTimeOfDayUsec();
    if (m_pText == m_pRejected) {
        Retry_i();
    } else {
        m_dwFailures = 0;
        m_llDue = m_llFetched + int64_t{aFetched.m_dwSeconds} * SECOND;
    }
    if (bFirst)
        return Notify_i(CM_OK, "");
    if (bChanged)
        m_Store.OnChanged(m_strUrl);
}

// TRUE: the text is a different one.
BOOL CPacEntry::Take_i(CPacFetched& aFetched) {
    if (aFetched.m_bSame && m_pText)
        return FALSE;
    m_Marks = std::move(aFetched.m_Marks);
    if (m_pText && m_pText->m_strText == aFetched.m_strText)
        return FALSE;
    m_pText = std::make_shared<CPacText>(CPacText{NextVersion(), std::move(aFetched.m_strText)});
    return TRUE;
}

// The sinks may ask, cancel others or refresh inside. One that waits again is notified of the next fetch.
void CPacEntry::Notify_i(CmResult aReason, const CCmString& aError) {
    const CPacTextPtr pText = m_pText;
    m_bNotifying = TRUE;
    for (size_t left = m_Sinks.size(); left > 0 && !m_Sinks.empty(); --left) {
        IPacTextSink* pSink = m_Sinks.front();
        m_Sinks.erase(m_Sinks.begin());
        pSink->OnPacText(aReason, pText, aError);
    }
    m_bNotifying = FALSE;
}

}  // namespace talvo
