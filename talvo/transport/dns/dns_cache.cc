#include "talvo/transport/dns/dns_cache.h"

#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/with_memory.h"

namespace {

BOOL HasLiveAddress(const talvo::CDnsAnswer& aAnswer) {
    return aAnswer.IsFound() && aAnswer.m_llExpiryUsec > CCmClock::GetTimeOfDayUsec();
}

}  // namespace

void CCmDnsCache::Add(CCmRefPtrT<CCmDnsRecord> aRecord) {
    const auto found = m_Index.find(aRecord->GetName());
    if (found != m_Index.end())
        Remove_i(found->second);
    else if (m_Index.size() == MAX_NAMES)
        Remove_i(std::prev(m_Records.end()));
    if (!talvo::WithMemory([&] { m_Records.push_front(std::move(aRecord)); }))
        return;
    if (!talvo::WithMemory([&] { m_Index[m_Records.front()->GetName()] = m_Records.begin(); }))
        m_Records.pop_front();
}

CCmRefPtrT<CCmDnsRecord> CCmDnsCache::Find(const CCmString& aName) {
    const auto found = m_Index.find(aName);
    if (found == m_Index.end())
        return nullptr;
    const Records::iterator position = found->second;
    if ((*position)->GetExpiryUsec() <= CCmClock::GetTimeOfDayUsec()) {
        const talvo::CDnsAnswers& answers = (*position)->GetAnswers();
        if (!HasLiveAddress(answers.m_Ipv4) && !HasLiveAddress(answers.m_Ipv6))
            Remove_i(position);
        return nullptr;
    }
    m_Records.splice(m_Records.begin(), m_Records, position);
    return *position;
}

talvo::CDnsAnswers CCmDnsCache::FindRest(const CCmString& aName) const {
    talvo::CDnsAnswers rest;
    const auto found = m_Index.find(aName);
    if (found == m_Index.end())
        return rest;
    const talvo::CDnsAnswers& answers = (*found->second)->GetAnswers();
    if (HasLiveAddress(answers.m_Ipv4))
        rest.m_Ipv4 = answers.m_Ipv4;
    if (HasLiveAddress(answers.m_Ipv6))
        rest.m_Ipv6 = answers.m_Ipv6;
    rest.m_strFound = answers.m_strFound;
    return rest;
}

void CCmDnsCache::Clear() {
    m_Index.clear();
    m_Records.clear();
}

void CCmDnsCache::Remove_i(Records::iterator aPosition) {
    m_Index.erase((*aPosition)->GetName());
    m_Records.erase(aPosition);
}
