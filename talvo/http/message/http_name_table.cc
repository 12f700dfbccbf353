#include "talvo/http/message/http_name_table.h"

#include <cstring>
#include <new>

#include "talvo/base/random_seed.h"
#include "talvo/http/message/http_text.h"

namespace talvo {

namespace {

// Sets the bit that distinguishes the cases of a letter. It makes some other characters equal, which is harmless in a hash.
constexpr uint64_t CASE_BITS = 0x2020202020202020;

// Combines both halves of the product: every bit of either factor affects every part of the result.
uint64_t mix(uint64_t aLeft, uint64_t aRight) {
    __extension__ using Product = unsigned __int128;
    const Product product = static_cast<Product>(aLeft) * aRight;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

}  // namespace

CHttpNameTable::CHttpNameTable() : m_ullSeed(random_seed()), m_ullFactor(random_seed() | 1) {}

CHttpNameTable::~CHttpNameTable() {
    for (std::atomic<CNode*>& bucket : m_Buckets) {
        for (CNode* pNode = bucket; pNode;) {
            const std::unique_ptr<CNode> pGone(pNode);
            pNode = pNode->m_pNext;
        }
    }
}

uint64_t CHttpNameTable::Hash(std::string_view aName) const {
    uint64_t ullHash = m_ullSeed ^ aName.size();
    for (; aName.size() > sizeof(uint64_t); aName.remove_prefix(sizeof(uint64_t)))
        ullHash = mix(ullHash ^ (load_word<uint64_t>(aName.data()) | CASE_BITS), m_ullFactor);
    return mix(ullHash ^ (word_of(aName) | CASE_BITS), m_ullFactor);
}

const char* CHttpNameTable::Find(std::string_view aName) const {
    const uint64_t ullHash = Hash(aName);
    const CNode* pNode = Bucket(ullHash).load(std::memory_order_acquire);
    while (pNode && (pNode->m_ullHash != ullHash || !equal_no_case(pNode->GetText(), aName)))
        pNode = pNode->m_pNext;
    return pNode ? pNode->m_Text.get() : nullptr;
}

const char* CHttpNameTable::Add(std::string_view aName) {
    std::unique_ptr<char[]> text(new (std::nothrow) char[aName.size() + 1]);
    if (!text)
        return nullptr;
    std::memcpy(text.get(), aName.data(), aName.size());
    text[aName.size()] = '\0';
    const uint64_t ullHash = Hash(aName);
    std::atomic<CNode*>& bucket = Bucket(ullHash);
    auto* pNode = new (std::nothrow) CNode{bucket.load(std::memory_order_relaxed), ullHash, aName.size(), std::move(text)};
    if (!pNode)
        return nullptr;
    ++m_stCount;
    m_stBytes += aName.size() + 1;
    bucket.store(pNode, std::memory_order_release);  // last: from now on other threads find it
    return pNode->m_Text.get();
}

void CHttpNameTable::AddAll(const CHttpNameTable& aOther) {
    for (const std::atomic<CNode*>& bucket : aOther.m_Buckets) {
        for (const CNode* pNode = bucket; pNode; pNode = pNode->m_pNext)
            if (!Add(pNode->GetText()))
                throw std::bad_alloc();
    }
}

}  // namespace talvo
