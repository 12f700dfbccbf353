// A receiver's position in the log of a forward session, and its policy.
#pragma once

#include "talvo/session/forward_log.h"
#include "talvo/session/forward_session.h"

namespace talvo {

// Decides which messages of the log a receiver gets. Knows no transport and no clock. A copy of a cursor can look ahead.
//
//    replayed first          then from m_ullNext on, each in turn
//    k . . k k . k           m m k m k m m m                          replayed: only with JOIN_ALL_KEYS
//        ^ m_ullNext while m_bReplays, m_ullStart is then the first after the replayed ones
//
// Before the log drops messages, it must be up to date with all that it does not need: see Settle.
class TALVO_API CForwardCursor {
public:
    static constexpr DWORD MOST_MILLISECONDS = 0x7FFFFFFF;  // half of the range of ticks; a higher limit is this one

    CForwardCursor(const CForwardLog& aLog, const CCmForwardReceiverOptions& aOptions);

    ECmForwardPolicy GetPolicy() const { return static_cast<ECmForwardPolicy>(m_byPolicy); }

    // The next message to send, after all that the policy skips; null: none at present. Valid until the log changes.
    const CForwardEntry* Peek(const CForwardLog& aLog);
    // The message of Peek is sent.
    void Take(DWORD aLength);

    // TRUE: it takes all messages from GetNext() on, one after the other.
    BOOL IsPlain() const { return !m_bReplays && !m_bAwaitsKey && GetPolicy() != CM_FORWARD_CONFLATE; }
    // TRUE: its policy skips messages, so that one that it takes may be the only one in use of the storage that many share.
    BOOL MaySkip() const { return GetPolicy() == CM_FORWARD_CONFLATE || GetPolicy() == CM_FORWARD_DROP_OLDEST; }
    uint64_t GetNext() const { return m_ullNext; }
    // Plain cursors: the next aCount messages are sent.
    void TakeMany(const CForwardLog& aLog, DWORD aCount) { MoveTo_i(aLog, m_ullNext + aCount, m_Sent); }

    // A cursor that waits for a KEY_MESSAGE skips what has come meanwhile.
    void Settle(const CForwardLog& aLog);
    // TRUE: all messages are decided.
    BOOL IsCaughtUp(const CForwardLog& aLog) const;

    // TRUE: its lag has reached a limit. For CONFLATE only messages without a key count.
    BOOL IsAtLimit(const CForwardLog& aLog, DWORD aTick) const;
    // TRUE: it is at most half of each limit.
    BOOL IsRelieved(const CForwardLog& aLog, DWORD aTick) const;
    // No limit of messages or bytes is reached while the log ends before these.
    uint64_t GetMessagesLimit(const CForwardLog& aLog) const;
    uint64_t GetBytesLimit(const CForwardLog& aLog) const;
    // The tick at which the limit of milliseconds is reached. FALSE: it is not, without further messages.
    BOOL GetTimeLimit(const CForwardLog& aLog, DWORD& aTick) const;

    // For DROP_OLDEST: moves on, beyond aBeyond at least (0: anywhere).
    void DropOldest(const CForwardLog& aLog, DWORD aTick, uint64_t aBeyond = 0);

    // TRUE: the receiver loses a message if the log drops its first one.
    BOOL NeedsFirst(const CForwardLog& aLog) const { return GetFirstNeeded(aLog) <= aLog.GetBegin(); }
    // The first message that it may need of the log.
    uint64_t GetFirstNeeded(const CForwardLog& aLog) const;
    // TRUE: likewise if the log forgets the key whose newest message is aNumber; aKept: only for the key it has that one.
    BOOL NeedsKey(uint64_t aNumber, BOOL aKept) const;
    // The first message that it may need because it is the newest of its key; CForwardLog::NONE.
    uint64_t GetFirstNeededKey() const {
        return m_bReplays || GetPolicy() == CM_FORWARD_CONFLATE ? m_ullNext : CForwardLog::NONE;
    }

    void CountRefusal() { ++m_dwRefused; }
    // Call it before each move, so that the longest lag is seen.
    void NoteLag(const CForwardLog& aLog);
    // The receiver is gone: its lag is dropped.
    void End(const CForwardLog& aLog);

    void GetStatistics(const CForwardLog& aLog, DWORD aTick, CCmForwardStatistics& aStatistics) const;

private:
    CCmForwardCount GetLag_i(const CForwardLog& aLog) const;
    CCmForwardCount GetLimitedLag_i(const CForwardLog& aLog) const;
    void MoveTo_i(const CForwardLog& aLog, uint64_t aNumber, CCmForwardCount& aCounted);
    const CForwardEntry* PeekReplayed_i(const CForwardLog& aLog);
    void EndReplay_i(CCmForwardCount& aCounted);
    BOOL GetOldestTick_i(const CForwardLog& aLog, DWORD& aTick) const;

    uint64_t m_ullNext = 0;       // the first message that is not decided yet
    uint64_t m_ullBytesNext = 0;  // bytes before it; while replaying, before m_ullStart
    uint64_t m_ullStart = 0;      // the first message that is due and not replayed out of order
    uint64_t m_ullJoined = 0;     // the end of the log when it joined: messages before do not count towards the limits
    uint64_t m_ullBytesJoined = 0;
    uint64_t m_ullReplayBytes = 0;  // still to replay
    CCmForwardCount m_Sent;
    CCmForwardCount m_Dropped;
    CCmForwardCount m_Conflated;
    DWORD m_dwReplayed = 0;  // messages due for the replay
    DWORD m_dwReplay = 0;    // those of them that are still to replay
    DWORD m_dwMaxMessages;
    DWORD m_dwMaxBytes;
    DWORD m_dwMaxMilliseconds;
    DWORD m_dwRefused = 0;
    DWORD m_dwLongestLag = 0;
    BYTE m_byPolicy;
    bool m_bReplays = false;
    bool m_bAwaitsKey = false;   // nothing is sent before the next KEY_MESSAGE
    bool m_bDueFromKey = false;  // nor is it due: it has not joined yet
};

static_assert(sizeof(CForwardCursor) <= 128);

}  // namespace talvo
