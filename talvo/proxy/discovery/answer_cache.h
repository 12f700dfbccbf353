// The kept answers.
#pragma once

#include <deque>
#include <unordered_map>

#include "talvo/base/ref_ptr.h"
#include "talvo/proxy/discovery/proxy_answer.h"

namespace talvo {

// Answers by origin, each until its time. The user of this class locks. Times are those of CCmClock::GetTimeOfDayUsec.
class TALVO_API CAnswerCache {
public:
    explicit CAnswerCache(size_t aMost) : m_stMost(aMost) {}

    // Null: there is none, or its time is over.
    CCmRefPtrT<CCmProxyAnswer> Find(const CCmString& aOrigin, int64_t aNow) const;
    // Beyond the most, the oldest one is dropped. Throws std::bad_alloc; nothing is kept then.
    void Add(const CCmString& aOrigin, const CCmRefPtrT<CCmProxyAnswer>& aAnswer, int64_t aUntil);
    void Clear();

private:
    struct CEntry {
        CCmRefPtrT<CCmProxyAnswer> m_pAnswer;
        int64_t m_llUntil;
    };

    const size_t m_stMost;
    std::unordered_map<CCmString, CEntry> m_Entries;
    std::deque<CCmString> m_Order;  // of the entries, the oldest first
};

}  // namespace talvo
