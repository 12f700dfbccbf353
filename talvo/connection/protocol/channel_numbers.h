// The channel numbers of an acceptor.
#pragma once

#include <map>
#include <unordered_map>
#include <unordered_set>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// Gives numbers from 1 to 65,535 at random, each once at a time. A number that was given back rests, and is given again only
// when no other is free: a client that comes back too late then rarely meets another's channel. One thread.
class TALVO_API CChannelNumbers {
public:
    // 0: none is free, or memory ran out. aNow: microseconds of any clock that does not go back.
    WORD Take(int64_t aNow);
    // The number rests until then.
    void GiveBack(WORD aNumber, int64_t aUntil);

private:
    BOOL IsFree_i(WORD aNumber, BOOL aRestingToo) const;
    WORD Find_i(BOOL aRestingToo) const;

    static constexpr DWORD COUNT = 65535;

    std::unordered_set<WORD> m_Used;
    std::unordered_map<WORD, int64_t> m_Resting;  // and until when
    std::multimap<int64_t, WORD> m_ByTime;        // the same, by the end of the rest
};

}  // namespace talvo
