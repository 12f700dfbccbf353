#include "talvo/base/failure.h"

#include <cstdio>
#include <cstring>

CCmFailure::CCmFailure(int aErrno, const char* aVerb, const CCmInetAddr& aAddr)
    : CCmFailure(CM_FAILURE_SYSTEM, strerrordesc_np(aErrno), aVerb, aAddr) {
    m_nErrno = aErrno;
    if (aErrno == 0)
        *this = CCmFailure();
}

CCmFailure::CCmFailure(ECmFailureCause aCause, const char* aText, const char* aVerb, const CCmInetAddr& aAddr)
    : m_Cause(aCause) {
    std::snprintf(m_szText, sizeof m_szText, "%s", aText ? aText : "Unknown error");
    const int nVerb = std::snprintf(m_szAttempt, sizeof m_szAttempt, "%s ", aVerb);
    if (nVerb > 0 && static_cast<size_t>(nVerb) < sizeof m_szAttempt)
        aAddr.Print(m_szAttempt + nVerb, static_cast<DWORD>(sizeof m_szAttempt - static_cast<size_t>(nVerb)));
}

CCmFailure::CCmFailure(ECmFailureCause aCause, const char* aText, const CCmFailure& aAttempt) : CCmFailure(aAttempt) {
    m_Cause = aCause;
    m_nErrno = 0;
    std::snprintf(m_szText, sizeof m_szText, "%s", aText);
}

CCmString CCmFailure::ToString() const { return *this ? CCmString(m_szAttempt) + ": " + m_szText : CCmString(); }
