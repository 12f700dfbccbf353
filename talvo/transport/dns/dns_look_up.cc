#include "talvo/transport/dns/dns_look_up.h"

#include <utility>

namespace talvo {

CDnsLookUp::CDnsLookUp(const CCmString& aName, std::vector<CCmString> aFullNames, CDnsAnswers aAnswers)
    : m_strName(aName), m_FullNames(std::move(aFullNames)), m_Answers(std::move(aAnswers)) {}

void CDnsLookUp::Take(size_t aFullName, BYTE aFamily, CDnsAnswer aAnswer) {
    CDnsAnswer& answer = m_Answers.Of(aFamily);
    if (aFullName == m_stFullName && answer.m_State == EDnsAnswer::PENDING)
        answer = std::move(aAnswer);
}

void CDnsLookUp::GiveUp(const CCmString& aReason) {
    for (CDnsAnswer* pAnswer : {&m_Answers.m_Ipv4, &m_Answers.m_Ipv6}) {
        if (pAnswer->m_State == EDnsAnswer::PENDING)
            *pAnswer = CDnsAnswer::Without(EDnsAnswer::FAILED, aReason);
    }
}

CDnsLookUp::EStep CDnsLookUp::Next() {
    if (m_bReady)
        return m_Answers.IsPending() ? EStep::WAIT : EStep::LATE;
    if (!m_Answers.IsPending() || m_bGraceOver) {
        if (TryNextName_i())
            return EStep::ASK;
        Finish_i();
        return EStep::READY;
    }
    if (m_bGrace || !IsSettled_i())
        return EStep::WAIT;
    m_bGrace = TRUE;
    return m_Answers.m_Ipv6.IsFound() ? EStep::EARLY : EStep::GRACE;
}

// One family has decided the outcome. That a name does not exist counts only from the IPv4 answer, because some servers deny
// every name that they are asked for IPv6 addresses.
BOOL CDnsLookUp::IsSettled_i() const { return m_Answers.HasAddress() || m_Answers.m_Ipv4.m_State == EDnsAnswer::NO_NAME; }

// A server that fails ends the search: the next full name might be another host.
BOOL CDnsLookUp::TryNextName_i() {
    if (m_Answers.HasAddress() || !m_Answers.GetFailure().IsDenied() || m_stFullName + 1 == m_FullNames.size())
        return FALSE;
    for (CDnsAnswer* pAnswer : {&m_Answers.m_Ipv4, &m_Answers.m_Ipv6}) {
        if (pAnswer->m_State == EDnsAnswer::NO_RECORD)
            m_NoData = *pAnswer;
        if (pAnswer->m_State != EDnsAnswer::UNASKED)
            *pAnswer = {EDnsAnswer::PENDING, {}, 0, {}};
    }
    ++m_stFullName;
    m_bGrace = m_bGraceOver = FALSE;
    return TRUE;
}

void CDnsLookUp::Finish_i() {
    m_bReady = TRUE;
    for (CDnsAnswer* pAnswer : {&m_Answers.m_Ipv4, &m_Answers.m_Ipv6}) {
        if (pAnswer->m_State == EDnsAnswer::PENDING)
            pAnswer->m_llExpiryUsec = CDnsAnswer::Without(EDnsAnswer::PENDING, {}).m_llExpiryUsec;
    }
    if (m_Answers.HasAddress())
        m_Answers.m_strFound = GetFullName();
    else if (m_NoData.IsDenied() && m_Answers.GetFailure().m_State == EDnsAnswer::NO_NAME)
        (m_Answers.m_Ipv4.IsDenied() ? m_Answers.m_Ipv4 : m_Answers.m_Ipv6) = m_NoData;
}

}  // namespace talvo
