// The cache of answers and their lifetimes.
#pragma once

#include <list>
#include <unordered_map>
#include <vector>

#include "talvo/base/ref_ptr.h"
#include "talvo/transport/dns/dns_record.h"

namespace talvo {

// The outcome of a look-up, from the hosts file or a server.
struct CDnsAnswer {
    std::vector<DWORD> m_Addresses;  // network byte order; none: it failed
    DWORD m_dwTtl = 0;               // seconds, from the source
    CCmString m_strReason;           // the reason of a failure
    BOOL m_bNoSuchName = FALSE;      // it failed because a server, or the rules for names, exclude an address
};

}  // namespace talvo

// Keeps at most MAX_NAMES records, each until it expires. A further record replaces the least recently used one. Uses neither
// threads nor servers; the user of this class locks.
class TALVO_API CCmDnsCache {
public:
    static constexpr size_t MAX_NAMES = 4096;
    static constexpr size_t MAX_ADDRESSES = 256;  // of one name; further ones are dropped
    static constexpr DWORD MIN_TTL = 1;           // seconds
    static constexpr DWORD MAX_TTL = 3600;
    static constexpr DWORD FAILURE_TTL = 5;

    // The record of an answer that has just come. Its lifetime is within the limits.
    static CCmRefPtrT<CCmDnsRecord> MakeRecord(const CCmString& aName, talvo::CDnsAnswer aAnswer);

    // Stores aRecord under its name, in place of the old one. Without memory it stores nothing.
    void Add(CCmRefPtrT<CCmDnsRecord> aRecord);

    // The live record of that name, which counts as used now. Null: there is none. Names are compared exactly.
    CCmRefPtrT<CCmDnsRecord> Find(const CCmString& aName);

    void Clear();
    size_t GetSize() const { return m_Index.size(); }

private:
    using Records = std::list<CCmRefPtrT<CCmDnsRecord>>;

    void Remove_i(Records::iterator aPosition);

    Records m_Records;  // last used first
    std::unordered_map<CCmString, Records::iterator> m_Index;
};
