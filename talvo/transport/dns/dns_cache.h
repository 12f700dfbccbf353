// The cache of answers and their lifetimes.
#pragma once

#include <list>
#include <unordered_map>

#include "talvo/base/ref_ptr.h"
#include "talvo/transport/dns/dns_record.h"

// Keeps at most MAX_NAMES records. Each is valid until the answer of one of its families expires. A further record replaces the
// least recently used one. Uses neither threads nor servers; the user of this class locks.
class TALVO_API CCmDnsCache {
public:
    static constexpr size_t MAX_NAMES = 4096;

    // Stores aRecord under its name, in place of the old one. Without memory it stores nothing.
    void Add(CCmRefPtrT<CCmDnsRecord> aRecord);

    // The valid record of that name, which counts as used now. Null: there is none. Names are compared exactly.
    CCmRefPtrT<CCmDnsRecord> Find(const CCmString& aName);

    // The rest of a record that is not valid any more: the answer of a family whose addresses have not expired. Throws
    // std::bad_alloc.
    talvo::CDnsAnswers FindRest(const CCmString& aName) const;

    void Clear();
    size_t GetSize() const { return m_Index.size(); }

private:
    using Records = std::list<CCmRefPtrT<CCmDnsRecord>>;

    void Remove_i(Records::iterator aPosition);

    Records m_Records;  // last used first
    std::unordered_map<CCmString, Records::iterator> m_Index;
};
