// The rules of one look-up at the servers.
#pragma once

#include <cstddef>

#include "talvo/transport/dns/dns_answer.h"

namespace talvo {

// One name on its way to its answers. Decides which questions to ask and when the answers suffice; uses neither sockets nor
// timers. Both families are asked at the same time, for one full name after the other until one of them has an address.
//
// The addresses of one family do not wait long for the other's: after the grace the look-up is ready, and an answer that comes
// later is reported by itself.
class TALVO_API CDnsLookUp {
public:
    static constexpr int GRACE_MSEC = 50;

    enum class EStep {
        WAIT,   // for an answer, or for the end of the grace
        ASK,    // ask for the pending families of GetFullName
        GRACE,  // call EndGrace after GRACE_MSEC
        EARLY,  // the same, and there are IPv6 addresses: a connector can begin
        READY,  // the answers are the outcome. Some may be pending, then LATE follows
        LATE    // the pending ones have come, the look-up has ended
    };

    // aFullNames: in the order of the questions, at least one. aAnswers: PENDING for each family to ask for; an answer that is
    // FOUND is from the cache.
    CDnsLookUp(const CCmString& aName, std::vector<CCmString> aFullNames, CDnsAnswers aAnswers);

    const CCmString& GetName() const { return m_strName; }
    const CCmString& GetFullName() const { return m_FullNames[m_stFullName]; }
    size_t GetFullNameIndex() const { return m_stFullName; }
    const CDnsAnswers& GetAnswers() const { return m_Answers; }

    // Stores an answer for the full name of that index. An answer that is not pending is ignored.
    void Take(size_t aFullName, BYTE aFamily, CDnsAnswer aAnswer);
    void EndGrace() { m_bGraceOver = TRUE; }
    // Pending answers will not come.
    void GiveUp(const CCmString& aReason);

    // The next step. Call it after each of the above until it is WAIT, or LATE, or READY without a pending answer.
    EStep Next();

private:
    BOOL IsSettled_i() const;
    BOOL TryNextName_i();
    void Finish_i();

    const CCmString m_strName;
    const std::vector<CCmString> m_FullNames;
    size_t m_stFullName = 0;
    CDnsAnswers m_Answers;
    CDnsAnswer m_NoData;  // of a full name that exists without an address; UNASKED: none
    BOOL m_bGrace = FALSE;
    BOOL m_bGraceOver = FALSE;
    BOOL m_bReady = FALSE;
};

}  // namespace talvo
