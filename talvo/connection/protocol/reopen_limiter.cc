#include "talvo/connection/protocol/reopen_limiter.h"

#include "talvo/base/with_memory.h"

namespace talvo {

namespace {

constexpr DWORD MAX_REFUSED = 10;
constexpr size_t MAX_ADDRESSES = 4096;
constexpr int64_t PERIOD = 60000000;

}  // namespace

BOOL CReopenLimiter::IsBlocked(const CIpBytes& aAddr, int64_t aNow) const {
    const auto it = m_Entries.find(aAddr);
    return it != m_Entries.end() && aNow < it->second.m_llBlockedUntil;
}

void CReopenLimiter::OnRefused(const CIpBytes& aAddr, int64_t aNow) {
    auto it = m_Entries.find(aAddr);
    if (it == m_Entries.end()) {
        if (m_Entries.size() >= MAX_ADDRESSES) {
            m_Entries.erase(m_Ages.front());
            m_Ages.pop_front();
        }
        const BOOL bAdded = WithMemory([&] {
            m_Ages.push_back(aAddr);
            it = m_Entries.try_emplace(aAddr).first;
            it->second.m_Age = std::prev(m_Ages.end());
        });
        if (!bAdded) {
            if (m_Ages.size() > m_Entries.size())
                m_Ages.pop_back();
            return;
        }
    }
    CEntry& entry = it->second;
    m_Ages.splice(m_Ages.end(), m_Ages, entry.m_Age);
    if (entry.m_dwRefused == 0 || aNow - entry.m_llSince >= PERIOD) {
        entry.m_llSince = aNow;
        entry.m_dwRefused = 0;
    }
    if (++entry.m_dwRefused < MAX_REFUSED)
        return;
    entry.m_dwRefused = 0;
    entry.m_llBlockedUntil = aNow + PERIOD;
}

}  // namespace talvo
