// The two queues of a transport's thread proxy: what the user sent and what the network received.
#pragma once

#include "talvo/base/mutex.h"
#include "talvo/transport/message_list.h"

namespace talvo {

// How many bytes may wait: what the user has set, or as much as the socket's own buffer where that is larger than the default.
class CProxyLimit {
public:
    static constexpr DWORD DEFAULT = 1 << 20;

    void Set(DWORD aLimit) {
        m_dwLimit = aLimit;
        m_bFixed = TRUE;
    }
    void Grow(DWORD aBuffer) {
        if (!m_bFixed)
            m_dwLimit = aBuffer > DEFAULT ? aBuffer : DEFAULT;
    }
    DWORD Get() const { return m_dwLimit; }

private:
    DWORD m_dwLimit = DEFAULT;
    BOOL m_bFixed = FALSE;
};

// How many blocks a chain has.
DWORD CountBlocks(const CCmMessageBlock& aChain);

// Chains that the user's thread handed over and the network thread has not given to the transport yet. Bounded by a limit on
// the bytes that wait, and by one on the blocks, which cost memory however few bytes they have: above either a send is refused,
// and the queue says when half of both has drained. Any thread.
class CProxySendQueue {
public:
    // A block for each so many bytes of the limit, and of the default limit at least.
    static constexpr DWORD BYTES_A_BLOCK = 128;

    void SetLimit(DWORD aLimit);
    void GrowLimit(DWORD aBuffer);
    DWORD GetLimit();

    // Takes aData, all or nothing, so a message stays whole: a copy of a small one, if it may be copied, and a duplicate of any
    // other. aLength is its length, aCost what it counts; what lies below the limit may exceed it by one message.
    // CM_ERROR_PARTIAL_DATA: full. CM_ERROR_OUT_OF_MEMORY. aTell: the network thread does not know yet that there is something;
    // aHurry: since it was last hurried much has come. One lock; a duplicate is made before it, in vain when the queue is full.
    CmResult Push(const CCmMessageBlock& aData, DWORD aLength, DWORD aCost, BOOL aMayCopy, BOOL& aTell, BOOL& aHurry);

    // Refuses all further data with CM_ERROR_NULL_POINTER: afterwards IsEmpty is final. Any thread.
    void Close();

    // Network thread: moves everything that waits to the empty aMessages. FALSE: nothing there, and the next Push has to tell.
    BOOL Take(CMessageList& aMessages);
    // Network thread: so much is gone; a message that was copied had no block. TRUE: the user, who was refused before, can send
    // again.
    BOOL Sent(uint64_t aCost, DWORD aBlocks);

    // Bytes that wait, those that were taken but not sent included.
    uint64_t GetWaiting();
    BOOL IsEmpty() { return GetWaiting() == 0; }

private:
    DWORD GetMostBlocks_l() const CM_REQUIRES(m_Mutex);

    CCmMutexThread m_Mutex;
    CMessageList m_Messages CM_GUARDED_BY(m_Mutex);
    CProxyLimit m_Limit CM_GUARDED_BY(m_Mutex);
    uint64_t m_ullWaiting CM_GUARDED_BY(m_Mutex) = 0;  // bytes
    uint64_t m_ullBlocks CM_GUARDED_BY(m_Mutex) = 0;
    uint64_t m_ullQuiet CM_GUARDED_BY(m_Mutex) = 0;  // bytes since the network thread was hurried
    BOOL m_bTold CM_GUARDED_BY(m_Mutex) = FALSE;     // the network thread knows that there is something
    BOOL m_bRefused CM_GUARDED_BY(m_Mutex) = FALSE;  // an OnSend is owed
    BOOL m_bClosed CM_GUARDED_BY(m_Mutex) = FALSE;
};

// Chunks that the network thread received and the user's thread has not taken yet. Any thread.
class CProxyReceiveQueue {
public:
    // What a chunk counts beyond its payload: a peer that sends single bytes must not make us keep a hundred times as much.
    static constexpr DWORD CHUNK_COST = 128;

    void SetLimit(DWORD aLimit);
    void GrowLimit(DWORD aBuffer);
    DWORD GetLimit();

    // Takes aChunk, of aLength bytes, as the send queue does. CM_ERROR_OUT_OF_MEMORY. aStop: more than the limit waits now,
    // reading has to stop.
    CmResult Push(const CCmMessageBlock& aChunk, DWORD aLength, BOOL aMayCopy, BOOL& aStop);
    // Moves everything that waits to the empty aChunks. FALSE: nothing there.
    BOOL Take(CMessageList& aChunks);
    // The user has had chunks of that cost. TRUE: reading was stopped and can go on.
    BOOL Taken(uint64_t aCost);
    // Whether reading has to rest now. Asked when it is applied, since both threads may have changed it meanwhile.
    BOOL IsStopped();

private:
    CCmMutexThread m_Mutex;
    CMessageList m_Chunks CM_GUARDED_BY(m_Mutex);
    CProxyLimit m_Limit CM_GUARDED_BY(m_Mutex);
    uint64_t m_ullWaiting CM_GUARDED_BY(m_Mutex) = 0;  // bytes
    BOOL m_bStopped CM_GUARDED_BY(m_Mutex) = FALSE;
};

}  // namespace talvo
