#include "talvo/transport/dns/dns_cache.h"

#include <algorithm>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/with_memory.h"

CCmRefPtrT<CCmDnsRecord> CCmDnsCache::MakeRecord(const CCmString& aName, talvo::CDnsAnswer aAnswer) {
    if (aAnswer.m_Addresses.size() > MAX_ADDRESSES)
        aAnswer.m_Addresses.resize(MAX_ADDRESSES);
    const BOOL bFailed = aAnswer.m_Addresses.empty();
    const DWORD dwTtl = bFailed ? FAILURE_TTL : std::clamp(aAnswer.m_dwTtl, MIN_TTL, MAX_TTL);
    const int64_t llExpiry = CCmClock::GetTimeOfDayUsec() + int64_t{dwTtl} * 1000000;
    return new CCmDnsRecord(aName, std::move(aAnswer.m_Addresses), llExpiry, bFailed ? aAnswer.m_strReason : "",
                            bFailed && aAnswer.m_bNoSuchName);
}

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
        Remove_i(position);
        return nullptr;
    }
    m_Records.splice(m_Records.begin(), m_Records, position);
    return *position;
}

void CCmDnsCache::Clear() {
    m_Index.clear();
    m_Records.clear();
}

void CCmDnsCache::Remove_i(Records::iterator aPosition) {
    m_Index.erase((*aPosition)->GetName());
    m_Records.erase(aPosition);
}
