#include "talvo/http/client/proxy_offers.h"

#include <algorithm>
#include <list>
#include <mutex>
#include <utility>

#include "talvo/base/immortal.h"

namespace talvo {

namespace {

struct CEntry {
    CCmString m_strProxy;
    CHttpOffer m_Offer;
};

struct CEntries {
    std::mutex m_Mutex;
    std::list<CEntry> m_Entries;  // the last used first
};

CEntries& Entries() {
    static CImmortalT<CEntries> s_Entries;
    return *s_Entries;
}

// Moves the entry to the front. FALSE: there is none.
BOOL Touch_l(std::list<CEntry>& aEntries, const CCmString& aProxy) {
    const auto it = std::find_if(aEntries.begin(), aEntries.end(), [&](const CEntry& e) { return e.m_strProxy == aProxy; });
    if (it == aEntries.end())
        return FALSE;
    aEntries.splice(aEntries.begin(), aEntries, it);
    return TRUE;
}

}  // namespace

BOOL CProxyOffers::Find(const CCmString& aProxy, BOOL aCounts, CHttpOffer& aOffer) {
    CEntries& all = Entries();
    const std::lock_guard guard(all.m_Mutex);
    if (!Touch_l(all.m_Entries, aProxy))
        return FALSE;
    CHttpOffer& offer = all.m_Entries.front().m_Offer;
    aOffer = offer;
    offer.m_Digest.m_dwCount += !!aCounts;
    return TRUE;
}

void CProxyOffers::Store(const CCmString& aProxy, const CHttpOffer& aOffer) {
    CEntries& all = Entries();
    std::list<CEntry> made;
    made.push_back({aProxy, aOffer});
    const std::lock_guard guard(all.m_Mutex);
    if (Touch_l(all.m_Entries, aProxy))
        all.m_Entries.pop_front();
    all.m_Entries.splice(all.m_Entries.begin(), made);
    if (all.m_Entries.size() > MAX_PROXIES)
        all.m_Entries.pop_back();
}

void CProxyOffers::Clear() {
    CEntries& all = Entries();
    const std::lock_guard guard(all.m_Mutex);
    all.m_Entries.clear();
}

}  // namespace talvo
