#include "talvo/transport/dns/dns_askers.h"

#include <new>
#include <utility>

namespace talvo {

BOOL CDnsAskers::Begin(const CCmString& aName, const CCmRefPtrT<CCmDnsRecord>& aNoMemory) {
    return m_ByName.try_emplace(aName, CLookUp{{}, aNoMemory}).second;
}

BOOL CDnsAskers::Add(CAsker aAsker) {
    const uint64_t ullId = ++m_ullLastId;
    try {
        const CAsker& asker = m_Askers.emplace(ullId, std::move(aAsker)).first->second;
        m_ByObserver.emplace(asker.m_pObserver, ullId);
        m_ByName.at(asker.m_strName).m_Askers.insert(ullId);
    } catch (const std::bad_alloc&) {
        Take(ullId);
        return FALSE;
    }
    return TRUE;
}

CDnsAskers::CLookUp CDnsAskers::TakeEarly(const CCmString& aName) {
    const auto found = m_ByName.find(aName);
    if (found == m_ByName.end())
        return {};
    CLookUp early{{}, found->second.m_pNoMemory};
    std::set<uint64_t>& askers = found->second.m_Askers;
    for (auto i = askers.begin(); i != askers.end();) {
        const auto next = std::next(i);
        if (m_Askers.at(*i).m_bEarly)
            early.m_Askers.insert(askers.extract(i));
        i = next;
    }
    return early;
}

CDnsAskers::CLookUp CDnsAskers::End(const CCmString& aName) {
    auto node = m_ByName.extract(aName);
    return node ? std::move(node.mapped()) : CLookUp();
}

CDnsAskers::CLookUp CDnsAskers::EndAny() {
    if (m_ByName.empty())
        return {};
    return std::move(m_ByName.extract(m_ByName.begin()).mapped());
}

std::unique_ptr<ICmEvent> CDnsAskers::TakeNotification(uint64_t aId, CCmRefPtrT<CCmThreadLink>& aLink) {
    const auto found = m_Askers.find(aId);
    if (found == m_Askers.end())
        return nullptr;
    aLink = found->second.m_pLink;
    return std::move(found->second.m_pNotification);
}

ICmObserver* CDnsAskers::Take(uint64_t aId) {
    const auto node = m_Askers.extract(aId);
    if (!node)
        return nullptr;
    ICmObserver* pObserver = node.mapped().m_pObserver;
    const auto [begin, end] = m_ByObserver.equal_range(pObserver);
    for (auto i = begin; i != end; ++i) {
        if (i->second == aId) {
            m_ByObserver.erase(i);
            break;
        }
    }
    const auto name = m_ByName.find(node.mapped().m_strName);
    if (name != m_ByName.end())
        name->second.m_Askers.erase(aId);
    return pObserver;
}

BOOL CDnsAskers::Cancel(ICmObserver* aObserver) {
    BOOL bFound = FALSE;
    for (auto i = m_ByObserver.find(aObserver); i != m_ByObserver.end(); i = m_ByObserver.find(aObserver)) {
        Take(i->second);
        bFound = TRUE;
    }
    return bFound;
}

}  // namespace talvo
