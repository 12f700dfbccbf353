// The log of a forward session.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include "talvo/session/forward_message.h"
#include "talvo/transport/framed_sending.h"

namespace talvo {

// A message and its place among the others.
struct CForwardEntry {
    CForwardMessage m_Message;
    uint64_t m_ullBytesBefore = 0;  // of all earlier messages
    DWORD m_dwKeylessBefore = 0;    // earlier messages without a key, and their bytes: only differences of them are used
    DWORD m_dwKeylessBytesBefore = 0;
    DWORD m_dwTime = 0;            // tick of milliseconds
    WORD m_wRun = 0;               // equal for messages that lie behind each other in the storage, see GetRunEnd
    bool m_bReplaced = false;      // a newer message has its key
    bool m_bKeyForgotten = false;  // treated as one without a key when it leaves the log
    BOOL IsNewestOfKey() const { return m_Message.HasKey() && !m_bReplaced && !m_bKeyForgotten; }
    // TRUE: with CONFLATE no receiver loses a message if the log drops this one.
    BOOL HasNewestOfKey() const { return m_bReplaced || IsNewestOfKey(); }
};

static_assert(sizeof(CForwardEntry) <= 64);

//    kept               Begin                           End
//    k . . k k . k      [ m m k m k m m m k m k k m m ]           k: the newest message of its key
//
// Messages have consecutive numbers. The log has all from Begin on. Of those before, only the newest of each key are kept. The
// limits are checked by the caller: Append adds, DropFirst and ForgetKey remove. One thread.
class TALVO_API CForwardLog {
public:
    static constexpr DWORD MOST_MESSAGES = 65536;
    static constexpr DWORD MOST_KEYS = 65536;
    static constexpr uint64_t NONE = UINT64_MAX;

    CForwardLog() = default;
    CForwardLog(const CForwardLog&) = delete;
    CForwardLog& operator=(const CForwardLog&) = delete;

    uint64_t GetBegin() const { return m_ullBegin; }
    uint64_t GetEnd() const { return m_ullEnd; }
    DWORD GetCount() const { return static_cast<DWORD>(m_ullEnd - m_ullBegin); }
    // Of payload, kept messages included.
    CCmForwardCount GetHeld() const { return {GetCount() + m_Kept.size(), m_ullBytes}; }
    uint64_t GetBytesKept() const { return m_ullBytes - (m_ullBytesForwarded - GetBytesBefore(m_ullBegin)); }
    DWORD GetLongest() const { return m_dwLongest; }  // bytes of the longest message that it has ever had
    const CForwardEntry& At(uint64_t aNumber) const { return m_Ring[aNumber & (m_Ring.size() - 1)]; }

    // Of all messages before aNumber, which is in the log or its end.
    uint64_t GetBytesBefore(uint64_t aNumber) const {
        return aNumber == m_ullEnd ? m_ullBytesForwarded : At(aNumber).m_ullBytesBefore;
    }
    uint64_t GetBytesForwarded() const { return m_ullBytesForwarded; }
    // The end of the messages from aNumber on that lie behind each other in the storage, with the same framing, and have at
    // most aMaxBytes of payload together; aNumber + 1 for a large message.
    uint64_t GetRunEnd(uint64_t aNumber, DWORD aMaxBytes) const;
    // The messages without a key among those from aNumber on that are in the log.
    CCmForwardCount GetKeylessFrom(uint64_t aNumber) const;

    // The first message of the log without HasNewestOfKey(), or its end. Its costs are those of the messages passed since the
    // last call.
    uint64_t FindFirstWithoutKey() const;

    // The place of the next message, so that none is moved; it is empty. Null: memory ran out.
    CForwardMessage* GetPlace() {
        return GetCount() < m_Ring.size() || Grow_i() == CM_OK ? &Entry_i(m_ullEnd).m_Message : nullptr;
    }
    // Adds the message in that place as number GetEnd(), at the time aTick. CM_ERROR_OUT_OF_MEMORY: it is not added; take it
    // out of its place.
    CmResult Append(DWORD aTick);
    // Removes the messages before aNumber; the newest of a key is kept. The log must have them.
    void DropTo(uint64_t aNumber);
    void DropFirst() { DropTo(m_ullBegin + 1); }

    DWORD GetKeyCount() const { return static_cast<DWORD>(m_Keys.size()); }
    CCmForwardCount GetNewestOfKeys() const { return {m_Keys.size(), m_ullKeyBytes}; }
    // The number of the key's message that ForgetKey would drop; NONE: there is no key.
    uint64_t GetOldestKey() const { return m_pOldestKey ? m_pOldestKey->m_ullNumber : NONE; }
    // Forgets the key that was unused for the longest time; its message stays only in the log.
    void ForgetKey();
    BOOL IsKept(uint64_t aNumber) const { return aNumber < m_ullBegin && m_Kept.contains(aNumber); }

    // The first message of number aNumber or later that is kept or in the log; null: there is none. aNumber (out): its number.
    const CForwardEntry* FindFrom(uint64_t& aNumber) const;

    // The first KEY_MESSAGE of the log with number aNumber or later; NONE.
    uint64_t FindKeyMessage(uint64_t aNumber) const;
    uint64_t GetLastKeyMessage() const { return m_KeyMessages.empty() ? NONE : *m_KeyMessages.rbegin(); }
    BOOL HasHadKeyMessage() const { return m_bKeyMessage; }

    void Clear();

private:
    class CBlockReleases;
    // Keys are linked in the order of their last use.
    struct CKey {
        uint64_t m_ullNumber = 0;
        uint64_t m_ullKey = 0;
        DWORD m_dwLength = 0;
        CKey* m_pOlder = nullptr;
        CKey* m_pNewer = nullptr;
    };

    CForwardEntry& Entry_i(uint64_t aNumber) { return m_Ring[aNumber & (m_Ring.size() - 1)]; }
    CmResult Grow_i();
    CmResult AppendKeyed_i(const CForwardMessage& aMessage);
    WORD FindRun_i(const CForwardMessage& aMessage);
    CKey* ReserveKey_i(uint64_t aKey, BOOL& aNew);
    void UseKey_i(CKey& aKey, BOOL aNew, DWORD aLength);
    void Unlink_i(CKey& aKey);
    void DropKept_i(uint64_t aNumber);
    void DropFirst_i(CBlockReleases& aReleases);

    std::vector<CForwardEntry> m_Ring;  // its size is a power of two, or 0
    uint64_t m_ullBegin = 0;
    uint64_t m_ullEnd = 0;
    uint64_t m_ullBytes = 0;
    uint64_t m_ullBytesForwarded = 0;
    mutable uint64_t m_ullWithoutKey = 0;  // messages of the log before it have HasNewestOfKey()
    DWORD m_dwKeyless = 0;
    DWORD m_dwKeylessBytes = 0;
    DWORD m_dwLongest = 0;
    WORD m_wRun = 0;  // of the last message
    bool m_bKeyMessage = false;
    const char* m_pRunEnd = nullptr;  // the storage behind the last message; null: the next one begins a run
    EForwardFraming m_RunFraming = EForwardFraming::NONE;
    std::set<uint64_t> m_KeyMessages;           // the numbers of those in the log
    std::map<uint64_t, CForwardEntry> m_Kept;   // by number
    std::unordered_map<uint64_t, CKey> m_Keys;  // by key
    CKey* m_pOldestKey = nullptr;               // owned by m_Keys
    CKey* m_pNewestKey = nullptr;
    uint64_t m_ullKeyBytes = 0;
};

// The lengths of the frames of consecutive messages. Valid while the log has them.
class CForwardRange final : public IFrameLengths {
public:
    // The aCount messages from aFirst on, with aFraming.
    CForwardRange(const CForwardLog& aLog, uint64_t aFirst, DWORD aCount, EForwardFraming aFraming)
        : m_Log(aLog), m_ullFirst(aFirst), m_dwCount(aCount), m_dwHeader(HeaderLengthOf(aFraming)) {}

    DWORD GetCount() const override { return m_dwCount; }
    DWORD CountWithin(DWORD aBytes, DWORD& aRest) const override;

private:
    // The bytes of the first aCount frames.
    uint64_t GetBytes_i(DWORD aCount) const {
        return m_Log.GetBytesBefore(m_ullFirst + aCount) - m_Log.GetBytesBefore(m_ullFirst) + uint64_t{aCount} * m_dwHeader;
    }

    const CForwardLog& m_Log;
    const uint64_t m_ullFirst;
    const DWORD m_dwCount;
    const DWORD m_dwHeader;
};

}  // namespace talvo
