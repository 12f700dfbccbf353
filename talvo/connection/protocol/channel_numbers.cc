#include "talvo/connection/protocol/channel_numbers.h"

#include "talvo/base/random_source.h"
#include "talvo/base/with_memory.h"

namespace talvo {

BOOL CChannelNumbers::IsFree_i(WORD aNumber, BOOL aRestingToo) const {
    return aNumber != 0 && !m_Used.contains(aNumber) && (aRestingToo || !m_Resting.contains(aNumber));
}

// A few random tries, and then every number from a random one on.
WORD CChannelNumbers::Find_i(BOOL aRestingToo) const {
    constexpr int TRIES = 32;
    for (int i = 0; i < TRIES; ++i) {
        const auto wNumber = static_cast<WORD>(CCmRandomSource::Below(COUNT) + 1);
        if (IsFree_i(wNumber, aRestingToo))
            return wNumber;
    }
    const auto dwFirst = static_cast<DWORD>(CCmRandomSource::Below(COUNT));
    for (DWORD i = 0; i < COUNT; ++i) {
        const auto wNumber = static_cast<WORD>((dwFirst + i) % COUNT + 1);
        if (IsFree_i(wNumber, aRestingToo))
            return wNumber;
    }
    return 0;
}

WORD CChannelNumbers::Take(int64_t aNow) {
    for (auto it = m_ByTime.begin(); it != m_ByTime.end() && it->first <= aNow; it = m_ByTime.erase(it)) {
        if (const auto resting = m_Resting.find(it->second); resting != m_Resting.end() && resting->second == it->first)
            m_Resting.erase(resting);
    }
    WORD wNumber = m_Used.size() + m_Resting.size() < COUNT ? Find_i(FALSE) : 0;
    if (wNumber == 0 && m_Used.size() < COUNT)
        wNumber = Find_i(TRUE);
    if (wNumber == 0 || !WithMemory([&] { m_Used.insert(wNumber); }))
        return 0;
    m_Resting.erase(wNumber);
    return wNumber;
}

// Without memory the number does not rest.
void CChannelNumbers::GiveBack(WORD aNumber, int64_t aUntil) {
    if (m_Used.erase(aNumber) == 0)
        return;
    WithMemory([&] {
        m_ByTime.emplace(aUntil, aNumber);
        m_Resting[aNumber] = aUntil;
    });
}

}  // namespace talvo
