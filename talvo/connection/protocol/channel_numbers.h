// The channel numbers of an acceptor.
#pragma once

#include <array>
#include <map>
#include <unordered_map>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// Gives numbers from 1 to 65,535 at random, each once at a time. A number that was given back rests, and is given again only
// when no other is free: a client that comes back too late then rarely meets another's channel. Its memory and the time of a
// call do not depend on the number of calls. One thread.
class TALVO_API CChannelNumbers {
public:
    // 0: none is free. aNow: microseconds of any clock that does not go back.
    CmWord Take(int64_t aNow);
    // The number rests until then; without memory it does not rest.
    void GiveBack(CmWord aNumber, int64_t aUntil);

private:
    static constexpr CmDword COUNT = 65535;

    class CNumberSet {
    public:
        CmBool Has(CmWord aNumber) const { return (m_Bits[aNumber / 64] & BitOf(aNumber)) != 0; }
        void Add(CmWord aNumber);
        void Remove(CmWord aNumber);
        // A number that is not in the set, each with the same chance. 0: there is none.
        CmWord PickOther() const;

    private:
        static uint64_t BitOf(CmWord aNumber) { return uint64_t{1} << aNumber % 64; }

        std::array<uint64_t, (COUNT + 1) / 64> m_Bits{1};  // 0 is no number
        CmDword m_dwCount = 0;
    };
    using CByTime = std::multimap<int64_t, CmWord>;

    void Wake_i(CByTime::iterator aPlace);

    CNumberSet m_Used;
    CNumberSet m_Busy;  // used or resting
    CByTime m_ByTime;   // the resting ones, by the end of the rest
    std::unordered_map<CmWord, CByTime::iterator> m_Resting;
};

}  // namespace talvo
