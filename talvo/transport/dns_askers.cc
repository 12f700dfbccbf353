#include "talvo/transport/dns_askers.h"

#include <utility>

namespace talvo {

BOOL CDnsAskers::Begin(const CCmString& aName) { return m_ByName.try_emplace(aName).second; }

void CDnsAskers::Add(const CCmString& aName, ICmObserver* aObserver, CCmRefPtrT<CCmThreadLink> aLink) {
    const uint64_t ullId = ++m_ullLastId;
    m_Askers.emplace(ullId, CAsker{aObserver, std::move(aLink), aName});
    m_ByObserver.emplace(aObserver, ullId);
    m_ByName[aName].insert(ullId);
}

std::vector<uint64_t> CDnsAskers::End(const CCmString& aName) {
    const auto node = m_ByName.extract(aName);
    return node ? std::vector<uint64_t>(node.mapped().begin(), node.mapped().end()) : std::vector<uint64_t>();
}

CCmRefPtrT<CCmThreadLink> CDnsAskers::GetLink(uint64_t aId) const {
    const auto found = m_Askers.find(aId);
    return found != m_Askers.end() ? found->second.m_pLink : nullptr;
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
        name->second.erase(aId);
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

std::vector<CCmString> CDnsAskers::GetNames() const {
    std::vector<CCmString> names;
    names.reserve(m_ByName.size());
    for (const auto& [strName, ids] : m_ByName)
        names.push_back(strName);
    return names;
}

}  // namespace talvo
