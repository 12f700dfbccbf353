#include "talvo/connection/protocol/channel_numbers.h"

#include <bit>

#include "talvo/base/random_source.h"
#include "talvo/base/with_memory.h"

namespace talvo {

void CChannelNumbers::CNumberSet::Add(WORD aNumber) {
    m_dwCount += !Has(aNumber);
    m_Bits[aNumber / 64] |= BitOf(aNumber);
}

void CChannelNumbers::CNumberSet::Remove(WORD aNumber) {
    m_dwCount -= Has(aNumber);
    m_Bits[aNumber / 64] &= ~BitOf(aNumber);
}

WORD CChannelNumbers::CNumberSet::PickOther() const {
    if (m_dwCount == COUNT)
        return 0;
    uint64_t ullSkip = CCmRandomSource::LessThan(COUNT - m_dwCount);
    size_t stWord = 0;
    uint64_t ullFree = ~m_Bits[0];
    for (int nFree = std::popcount(ullFree); ullSkip >= static_cast<uint64_t>(nFree); nFree = std::popcount(ullFree)) {
        ullSkip -= static_cast<uint64_t>(nFree);
        ullFree = ~m_Bits[++stWord];
    }
    for (; ullSkip > 0; --ullSkip)
        ullFree &= ullFree - 1;  // without the lowest
    return static_cast<WORD>(stWord * 64 + static_cast<size_t>(std::countr_zero(ullFree)));
}

WORD CChannelNumbers::Take(int64_t aNow) {
    while (!m_ByTime.empty() && m_ByTime.begin()->first <= aNow)
        Wake_i(m_ByTime.begin());
    WORD wNumber = m_Busy.PickOther();
    if (wNumber == 0)
        wNumber = m_Used.PickOther();
    if (wNumber == 0)
        return 0;
    if (const auto it = m_Resting.find(wNumber); it != m_Resting.end())
        Wake_i(it->second);
    m_Used.Add(wNumber);
    m_Busy.Add(wNumber);
    return wNumber;
}

void CChannelNumbers::Wake_i(CByTime::iterator aPlace) {
    m_Busy.Remove(aPlace->second);
    m_Resting.erase(aPlace->second);
    m_ByTime.erase(aPlace);
}

void CChannelNumbers::GiveBack(WORD aNumber, int64_t aUntil) {
    if (!m_Used.Has(aNumber))
        return;
    m_Used.Remove(aNumber);
    auto place = m_ByTime.end();
    const BOOL bRests = WithMemory([&] {
        place = m_ByTime.emplace(aUntil, aNumber);
        m_Resting.emplace(aNumber, place);
    });
    if (bRests)
        return;
    if (place != m_ByTime.end())
        m_ByTime.erase(place);
    m_Busy.Remove(aNumber);
}

}  // namespace talvo
