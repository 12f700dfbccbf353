#include "talvo/proxy/discovery/proxy_askers.h"

#include <new>
#include <utility>

namespace talvo {

void CProxyAskers::Add(CAsker aAsker) {
    const uint64_t ullId = ++m_ullLastId;
    const BOOL bNew = !IsUnderWay(aAsker.m_strOrigin);
    const CCmString strOrigin = aAsker.m_strOrigin;
    try {
        const CAsker& asker = m_Askers.emplace(ullId, std::move(aAsker)).first->second;
        m_ByKey.emplace(asker.m_Target.GetKey(), ullId);
        m_ByOrigin[strOrigin].insert(ullId);
    } catch (const std::bad_alloc&) {
        Take(ullId);
        if (bNew)
            m_ByOrigin.erase(strOrigin);
        throw;
    }
}

std::set<uint64_t> CProxyAskers::End(const CCmString& aOrigin) {
    auto node = m_ByOrigin.extract(aOrigin);
    return node ? std::move(node.mapped()) : std::set<uint64_t>();
}

BOOL CProxyAskers::EndAny(std::set<uint64_t>& aAskers) {
    if (m_ByOrigin.empty())
        return FALSE;
    aAskers = std::move(m_ByOrigin.extract(m_ByOrigin.begin()).mapped());
    return TRUE;
}

std::unique_ptr<ICmEvent> CProxyAskers::TakeNotification(uint64_t aId, CCmRefPtrT<CCmThreadLink>& aLink) {
    const auto found = m_Askers.find(aId);
    if (found == m_Askers.end())
        return nullptr;
    aLink = found->second.m_pLink;
    return std::move(found->second.m_pNotification);
}

CProxyAskers::CTarget CProxyAskers::Take(uint64_t aId) {
    const auto node = m_Askers.extract(aId);
    if (!node)
        return {};
    const CTarget target = node.mapped().m_Target;
    const auto [begin, end] = m_ByKey.equal_range(target.GetKey());
    for (auto i = begin; i != end; ++i) {
        if (i->second == aId) {
            m_ByKey.erase(i);
            break;
        }
    }
    const auto origin = m_ByOrigin.find(node.mapped().m_strOrigin);
    if (origin != m_ByOrigin.end())
        origin->second.erase(aId);
    return target;
}

BOOL CProxyAskers::Cancel(const void* aKey) {
    BOOL bFound = FALSE;
    for (auto i = m_ByKey.find(aKey); i != m_ByKey.end(); i = m_ByKey.find(aKey)) {
        Take(i->second);
        bFound = TRUE;
    }
    return bFound;
}

ICmProxySourceSink* CProxyAskers::FindSink(uint64_t aId) const {
    const auto found = m_Askers.find(aId);
    return found != m_Askers.end() ? found->second.m_Target.m_pSink : nullptr;
}

std::vector<std::pair<uint64_t, CCmRefPtrT<CCmThreadLink>>> CProxyAskers::GetSinks() const {
    std::vector<std::pair<uint64_t, CCmRefPtrT<CCmThreadLink>>> sinks;
    for (const auto& [ullId, asker] : m_Askers)
        if (asker.m_Target.m_pSink && asker.m_pNotification)
            sinks.emplace_back(ullId, asker.m_pLink);
    return sinks;
}

}  // namespace talvo
