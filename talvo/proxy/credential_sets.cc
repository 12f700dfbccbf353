#include "talvo/proxy/credential_sets.h"

#include <algorithm>
#include <utility>

#include "talvo/base/with_memory.h"

namespace talvo {

CmResult CCredentialSets::Set(const CCmString& aProxy, const char* aRealm, const CCmCredentials& aCredentials) {
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    WithMemory([&] { rv = Set_i({aProxy, aRealm ? aRealm : "", !aRealm, FALSE, aCredentials}); });
    return rv;
}

CmResult CCredentialSets::SetAnswer(const CCmString& aProxy, const CCmString& aRealm, const CCmCredentials& aCredentials) {
    CmResult rv = CM_ERROR_OUT_OF_MEMORY;
    WithMemory([&] { rv = Set_i({aProxy, aRealm, FALSE, TRUE, aCredentials}); });
    return rv;
}

CmResult CCredentialSets::Set_i(CSet aSet) {
    m_Sets.reserve(MOST);  // nothing below fails for lack of memory
    const auto same = std::find_if(m_Sets.begin(), m_Sets.end(), [&](const CSet& s) {
        return s.m_strProxy == aSet.m_strProxy && s.m_strRealm == aSet.m_strRealm && s.m_bAnyRealm == aSet.m_bAnyRealm;
    });
    if (same != m_Sets.end()) {
        m_Sets.erase(same);
    } else if (m_Sets.size() == MOST) {
        const auto oldest = std::find_if(m_Sets.begin(), m_Sets.end(), [](const CSet& s) { return s.m_bAnswer; });
        if (oldest == m_Sets.end())
            return CM_ERROR_NOT_AVAILABLE;
        m_Sets.erase(oldest);
    }
    m_Sets.push_back(std::move(aSet));
    return CM_OK;
}

const CCmCredentials* CCredentialSets::Find(const CCmString& aProxy, const CCmString& aRealm) const {
    const CCmCredentials* pForAny = nullptr;
    for (const CSet& set : m_Sets) {
        if (set.m_strProxy != aProxy)
            continue;
        if (set.m_bAnyRealm)
            pForAny = &set.m_Credentials;
        else if (set.m_strRealm == aRealm)
            return &set.m_Credentials;
    }
    return pForAny;
}

BOOL CCredentialSets::HasAny(const CCmString& aProxy) const {
    return std::any_of(m_Sets.begin(), m_Sets.end(), [&](const CSet& s) { return s.m_strProxy == aProxy; });
}

BOOL CCredentialSets::Forget(const CCmString& aProxy) {
    return std::erase_if(m_Sets, [&](const CSet& s) { return s.m_strProxy == aProxy; }) > 0;
}

void CCredentialSets::ForgetRefused(const CCmString& aProxy, const CCmString& aRealm, const CCmCredentials& aCredentials) {
    const CCmCredentials* pFound = Find(aProxy, aRealm);
    if (pFound && *pFound == aCredentials)
        std::erase_if(m_Sets, [&](const CSet& s) { return &s.m_Credentials == pFound; });
}

}  // namespace talvo
