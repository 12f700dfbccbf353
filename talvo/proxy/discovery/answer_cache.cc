#include "talvo/proxy/discovery/answer_cache.h"

namespace talvo {

CCmRefPtrT<CCmProxyAnswer> CAnswerCache::Find(const CCmString& aOrigin, int64_t aNow) const {
    const auto found = m_Entries.find(aOrigin);
    return found != m_Entries.end() && aNow < found->second.m_llUntil ? found->second.m_pAnswer : nullptr;
}

void CAnswerCache::Add(const CCmString& aOrigin, const CCmRefPtrT<CCmProxyAnswer>& aAnswer, int64_t aUntil) {
    if (const auto found = m_Entries.find(aOrigin); found != m_Entries.end()) {
        found->second = {aAnswer, aUntil};
        return;
    }
    if (m_Order.size() == m_stMost) {
        m_Entries.erase(m_Order.front());
        m_Order.pop_front();
    }
    m_Order.push_back(aOrigin);
    try {
        m_Entries.emplace(aOrigin, CEntry{aAnswer, aUntil});
    } catch (...) {
        m_Order.pop_back();
        throw;
    }
}

void CAnswerCache::Clear() {
    m_Entries.clear();
    m_Order.clear();
}

}  // namespace talvo
