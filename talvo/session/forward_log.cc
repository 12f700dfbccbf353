#include "talvo/session/forward_log.h"

#include <algorithm>
#include <utility>

#include "talvo/base/with_memory.h"

namespace talvo {

namespace {

constexpr size_t FIRST_SIZE = 16;

// The first number from aBegin on, and before aEnd, for which aHolds is not true; aEnd: there is none. Those for which it is
// true come before the others.
template <class Number, class Holds>
Number FindEnd(Number aBegin, Number aEnd, Holds aHolds) {
    while (aBegin < aEnd) {
        const Number middle = aBegin + (aEnd - aBegin) / 2;
        if (aHolds(middle))
            aBegin = middle + 1;
        else
            aEnd = middle;
    }
    return aBegin;
}

}  // namespace

CCmForwardCount CForwardLog::GetKeylessFrom(uint64_t aNumber) const {
    const uint64_t ullFrom = std::max(aNumber, m_ullBegin);
    if (ullFrom >= m_ullEnd)
        return {};
    const CForwardEntry& entry = At(ullFrom);
    return {m_dwKeyless - entry.m_dwKeylessBefore, m_dwKeylessBytes - entry.m_dwKeylessBytesBefore};
}

uint64_t CForwardLog::FindFirstWithoutKey() const {
    m_ullWithoutKey = std::max(m_ullWithoutKey, m_ullBegin);
    while (m_ullWithoutKey < m_ullEnd && At(m_ullWithoutKey).HasNewestOfKey())
        ++m_ullWithoutKey;
    return m_ullWithoutKey;
}

uint64_t CForwardLog::GetRunEnd(uint64_t aNumber, DWORD aMaxBytes) const {
    const WORD wRun = At(aNumber).m_wRun;
    const uint64_t ullMost = At(aNumber).m_ullBytesBefore + aMaxBytes;
    const uint64_t ullEnd = std::min(m_ullEnd, aNumber + MOST_MESSAGES);  // from there on the numbers of runs repeat
    return FindEnd(aNumber + 1, ullEnd, [&](uint64_t n) { return At(n).m_wRun == wRun && GetBytesBefore(n + 1) <= ullMost; });
}

DWORD CForwardRange::CountWithin(DWORD aBytes, DWORD& aRest) const {
    aRest = 0;
    if (m_ullFirst < m_Log.GetBegin())
        return 0;  // closed inside the send
    const DWORD dwCount = FindEnd(DWORD{0}, m_dwCount, [&](DWORD n) { return GetBytes_i(n + 1) <= aBytes; });
    const BOOL bBegun = dwCount < m_dwCount && GetBytes_i(dwCount) < aBytes;
    aRest = bBegun ? static_cast<DWORD>(GetBytes_i(dwCount + 1) - aBytes) : 0;
    return dwCount;
}

CmResult CForwardLog::Append(DWORD aTick) {
    CForwardEntry& entry = Entry_i(m_ullEnd);
    const DWORD dwLength = entry.m_Message.m_dwLength;
    entry.m_bReplaced = entry.m_bKeyForgotten = false;
    entry.m_ullBytesBefore = m_ullBytesForwarded;
    entry.m_dwKeylessBefore = m_dwKeyless;
    entry.m_dwKeylessBytesBefore = m_dwKeylessBytes;
    entry.m_dwTime = aTick;
    if ((entry.m_Message.HasKey() || entry.m_Message.IsKeyMessage()) && AppendKeyed_i(entry.m_Message) != CM_OK)
        return CM_ERROR_OUT_OF_MEMORY;
    if (!entry.m_Message.HasKey()) {
        ++m_dwKeyless;
        m_dwKeylessBytes += dwLength;
    }
    entry.m_wRun = FindRun_i(entry.m_Message);
    m_dwLongest = std::max(m_dwLongest, dwLength);
    m_ullBytes += dwLength;
    m_ullBytesForwarded += dwLength;
    ++m_ullEnd;
    return CM_OK;
}

// The indexes of key messages and of keys. CM_ERROR_OUT_OF_MEMORY: unchanged.
CmResult CForwardLog::AppendKeyed_i(const CForwardMessage& aMessage) {
    if (aMessage.IsKeyMessage() && !WithMemory([&] { m_KeyMessages.insert(m_KeyMessages.end(), m_ullEnd); }))
        return CM_ERROR_OUT_OF_MEMORY;
    BOOL bNewKey = FALSE;
    CKey* pKey = aMessage.HasKey() ? ReserveKey_i(aMessage.m_ullKey, bNewKey) : nullptr;
    if (aMessage.HasKey() && !pKey) {
        m_KeyMessages.erase(m_ullEnd);
        return CM_ERROR_OUT_OF_MEMORY;
    }
    m_bKeyMessage = m_bKeyMessage || aMessage.IsKeyMessage();
    if (pKey)
        UseKey_i(*pKey, bNewKey, aMessage.m_dwLength);
    return CM_OK;
}

// The run of the next message.
WORD CForwardLog::FindRun_i(const CForwardMessage& aMessage) {
    if (aMessage.m_pPayload) {
        m_pRunEnd = nullptr;
        return ++m_wRun;
    }
    const char* pStorage = aMessage.GetStorage();
    const BOOL bGoesOn = pStorage == m_pRunEnd && aMessage.m_Framing == m_RunFraming && GetCount() > 0;
    m_pRunEnd = pStorage + aMessage.GetHeaderLength() + aMessage.m_dwLength;
    m_RunFraming = aMessage.m_Framing;
    return bGoesOn ? m_wRun : ++m_wRun;
}

CmResult CForwardLog::Grow_i() {
    std::vector<CForwardEntry> ring;
    if (!WithMemory([&] { ring.resize(std::max(FIRST_SIZE, m_Ring.size() * 2)); }))
        return CM_ERROR_OUT_OF_MEMORY;
    for (uint64_t n = m_ullBegin; n != m_ullEnd; ++n)
        ring[n & (ring.size() - 1)] = std::move(Entry_i(n));
    m_Ring.swap(ring);
    return CM_OK;
}

CForwardLog::CKey* CForwardLog::ReserveKey_i(uint64_t aKey, BOOL& aNew) {
    CKey* pKey = nullptr;
    WithMemory([&] {
        const auto [it, bNew] = m_Keys.try_emplace(aKey);
        pKey = &it->second;
        aNew = bNew;
    });
    return pKey;
}

// The message m_ullEnd is the newest of its key from now on.
void CForwardLog::UseKey_i(CKey& aKey, BOOL aNew, DWORD aLength) {
    if (!aNew) {
        Unlink_i(aKey);
        if (aKey.m_ullNumber >= m_ullBegin)
            Entry_i(aKey.m_ullNumber).m_bReplaced = true;
        else
            DropKept_i(aKey.m_ullNumber);
    }
    aKey = {
        .m_ullNumber = m_ullEnd, .m_ullKey = At(m_ullEnd).m_Message.m_ullKey, .m_dwLength = aLength, .m_pOlder = m_pNewestKey};
    (m_pNewestKey ? m_pNewestKey->m_pNewer : m_pOldestKey) = &aKey;
    m_pNewestKey = &aKey;
    m_ullKeyBytes += aLength;
}

void CForwardLog::Unlink_i(CKey& aKey) {
    (aKey.m_pOlder ? aKey.m_pOlder->m_pNewer : m_pOldestKey) = aKey.m_pNewer;
    (aKey.m_pNewer ? aKey.m_pNewer->m_pOlder : m_pNewestKey) = aKey.m_pOlder;
    m_ullKeyBytes -= aKey.m_dwLength;
}

void CForwardLog::DropKept_i(uint64_t aNumber) {
    const auto it = m_Kept.find(aNumber);
    if (it == m_Kept.end())
        return;
    m_ullBytes -= it->second.m_Message.m_dwLength;
    m_Kept.erase(it);
}

// Releases the blocks of dropped messages: the references to one block in one step.
class CForwardLog::CBlockReleases {
public:
    CBlockReleases() = default;
    ~CBlockReleases() { Release_i(); }
    CBlockReleases(const CBlockReleases&) = delete;
    CBlockReleases& operator=(const CBlockReleases&) = delete;

    void Add(CCmDataBlock* aBlock) {
        if (aBlock != m_pBlock)
            Release_i();
        m_pBlock = aBlock;
        ++m_dwCount;
    }

private:
    void Release_i() {
        if (m_pBlock)
            m_pBlock->ReleaseReferences(m_dwCount);
        m_dwCount = 0;
    }

    CCmDataBlock* m_pBlock = nullptr;  // m_dwCount references to it
    DWORD m_dwCount = 0;
};

void CForwardLog::DropTo(uint64_t aNumber) {
    CBlockReleases releases;
    while (m_ullBegin < aNumber)
        DropFirst_i(releases);
}

void CForwardLog::DropFirst_i(CBlockReleases& aReleases) {
    CForwardEntry& entry = Entry_i(m_ullBegin);
    if (entry.m_Message.IsKeyMessage())
        m_KeyMessages.erase(m_ullBegin);
    const BOOL bKeep = entry.IsNewestOfKey() &&
                       (entry.m_Message.m_pPayload || CForwardPacker::Separate(entry.m_Message) == CM_OK) &&
                       WithMemory([&] { m_Kept.emplace_hint(m_Kept.end(), m_ullBegin, std::move(entry)); });
    if (!bKeep)
        m_ullBytes -= entry.m_Message.m_dwLength;
    if (CCmDataBlock* pBlock = entry.m_Message.m_pBlock.Detach())
        aReleases.Add(pBlock);
    entry.m_Message.m_pPayload.reset();
    ++m_ullBegin;
}

void CForwardLog::ForgetKey() {
    if (!m_pOldestKey)
        return;
    CKey& key = *m_pOldestKey;
    Unlink_i(key);
    if (key.m_ullNumber >= m_ullBegin) {
        Entry_i(key.m_ullNumber).m_bKeyForgotten = true;
        m_ullWithoutKey = std::min(m_ullWithoutKey, key.m_ullNumber);
    } else {
        DropKept_i(key.m_ullNumber);
    }
    m_Keys.erase(uint64_t{key.m_ullKey});
}

const CForwardEntry* CForwardLog::FindFrom(uint64_t& aNumber) const {
    if (aNumber < m_ullBegin) {
        const auto it = m_Kept.lower_bound(aNumber);
        if (it != m_Kept.end()) {
            aNumber = it->first;
            return &it->second;
        }
        aNumber = m_ullBegin;
    }
    return aNumber < m_ullEnd ? &At(aNumber) : nullptr;
}

uint64_t CForwardLog::FindKeyMessage(uint64_t aNumber) const {
    const auto it = m_KeyMessages.lower_bound(aNumber);
    return it == m_KeyMessages.end() ? NONE : *it;
}

void CForwardLog::Clear() {
    DropTo(m_ullEnd);
    m_Kept.clear();
    m_Keys.clear();
    m_Ring.clear();
    m_pOldestKey = nullptr;
    m_pNewestKey = nullptr;
    m_ullBytes = 0;
    m_ullKeyBytes = 0;
}

}  // namespace talvo
