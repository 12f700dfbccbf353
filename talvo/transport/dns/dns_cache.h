// What is kept of answers, and for how long.
#pragma once

#include <list>
#include <unordered_map>
#include <vector>

#include "talvo/base/ref_ptr.h"
#include "talvo/transport/dns/dns_record.h"

namespace talvo {

// The outcome of a look-up as it comes from the hosts file or a server.
struct CDnsAnswer {
    std::vector<DWORD> m_Addresses;  // network byte order; none: it failed
    DWORD m_dwTtl = 0;               // seconds, as given
    CCmString m_strReason;           // why it failed
    BOOL m_bNoSuchName = FALSE;      // it failed because a server, or the rules for names, say that there is no address
};

}  // namespace talvo

// Keeps at most MAX_NAMES records, each until its time is over; a record too many drives out the one that was asked for longest
// ago. Knows neither threads nor servers: its user locks.
class TALVO_API CCmDnsCache {
public:
    static constexpr size_t MAX_NAMES = 4096;
    static constexpr size_t MAX_ADDRESSES = 256;  // of one name; what an answer has beyond that is dropped
    static constexpr DWORD MIN_TTL = 1;           // seconds
    static constexpr DWORD MAX_TTL = 3600;
    static constexpr DWORD FAILURE_TTL = 5;

    // The record for an answer that came now, living as long as the bounds allow.
    static CCmRefPtrT<CCmDnsRecord> MakeRecord(const CCmString& aName, talvo::CDnsAnswer aAnswer);

    // Keeps aRecord under its name, in place of the one before; without memory nothing.
    void Add(CCmRefPtrT<CCmDnsRecord> aRecord);

    // The live record of that name, which counts as used now; null: there is none. Names are compared exactly.
    CCmRefPtrT<CCmDnsRecord> Find(const CCmString& aName);

    void Clear();
    size_t GetSize() const { return m_Index.size(); }

private:
    using Records = std::list<CCmRefPtrT<CCmDnsRecord>>;

    void Remove_i(Records::iterator aPosition);

    Records m_Records;  // last used first
    std::unordered_map<CCmString, Records::iterator> m_Index;
};
