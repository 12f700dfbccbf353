// The stored names of an atom list: a hash table that only grows, so that a look-up needs no lock.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <string_view>

#include "talvo/base/types.h"

namespace talvo {

// Find may run in any thread at any time; the caller of Add holds the list's mutex. Texts stay in place until the table is
// destroyed.
//
// Peers choose the names, so the hash is seeded with secret numbers: otherwise they could aim all names at one
// chain.
class CHttpNameTable {
public:
    CHttpNameTable();
    ~CHttpNameTable();
    CHttpNameTable(const CHttpNameTable&) = delete;
    CHttpNameTable& operator=(const CHttpNameTable&) = delete;

    // The zero-terminated text that was added for aName, in any case; null: none was.
    const char* Find(std::string_view aName) const;

    // Copies aName, which must not be in the table. Null: memory ran out.
    const char* Add(std::string_view aName);

    // Adds all names of aOther, which no other thread may use.
    void AddAll(const CHttpNameTable& aOther);

    size_t GetCount() const { return m_stCount; }
    size_t GetBytes() const { return m_stBytes; }  // of the texts with their terminators

private:
    struct CNode {
        std::string_view GetText() const { return {m_Text.get(), m_stLength}; }

        CNode* m_pNext;
        uint64_t m_ullHash;
        size_t m_stLength;
        std::unique_ptr<char[]> m_Text;
    };

    uint64_t Hash(std::string_view aName) const;
    std::atomic<CNode*>& Bucket(uint64_t aHash) { return m_Buckets[aHash % BUCKETS]; }
    const std::atomic<CNode*>& Bucket(uint64_t aHash) const { return m_Buckets[aHash % BUCKETS]; }

    static constexpr size_t BUCKETS = 8192;  // a chain of eight at the default limit of names

    std::array<std::atomic<CNode*>, BUCKETS> m_Buckets{};  // each owns its chain
    uint64_t m_ullSeed = 0;
    uint64_t m_ullFactor = 0;
    size_t m_stCount = 0;
    size_t m_stBytes = 0;
};

}  // namespace talvo
