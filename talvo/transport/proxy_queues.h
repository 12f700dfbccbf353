// The two queues of a transport's thread proxy: what the user sent and what the network received.
#pragma once

#include "talvo/base/mutex.h"
#include "talvo/transport/message_list.h"

namespace talvo {

// Chains that the user's thread handed over and the network thread has not given to the transport yet. Bounded by a limit on
// the bytes that wait: above the limit a send is refused, and the queue says when half of it has drained. Any thread.
class CProxySendQueue {
public:
    static constexpr DWORD DEFAULT_LIMIT = 1 << 20;

    void SetLimit(DWORD aLimit);
    DWORD GetLimit();

    // Takes aData, all or nothing, so a message stays whole: a copy of a small one, if it may be copied, and a duplicate of any
    // other. aLength is its length, aCost what it counts; what lies below the limit may exceed it by one message.
    // CM_ERROR_PARTIAL_DATA: full. CM_ERROR_OUT_OF_MEMORY. aTell: the network thread does not know yet that there is something;
    // aHurry: since it was last hurried much has come. One lock; a duplicate is made before it, in vain when the queue is full.
    CmResult Push(const CCmMessageBlock& aData, DWORD aLength, DWORD aCost, BOOL aMayCopy, BOOL& aTell, BOOL& aHurry);

    // Network thread: moves everything that waits to the empty aMessages. FALSE: nothing there, and the next Push has to tell.
    BOOL Take(CMessageList& aMessages);
    // Network thread: so many bytes are gone. TRUE: the user, who was refused before, can send again.
    BOOL Sent(uint64_t aLength);

    // Whether bytes wait, those that were taken but not sent included.
    BOOL IsEmpty();

private:
    CCmMutexThread m_Mutex;
    CMessageList m_Messages CM_GUARDED_BY(m_Mutex);
    DWORD m_dwLimit CM_GUARDED_BY(m_Mutex) = DEFAULT_LIMIT;
    uint64_t m_ullWaiting CM_GUARDED_BY(m_Mutex) = 0;  // bytes
    uint64_t m_ullQuiet CM_GUARDED_BY(m_Mutex) = 0;    // bytes since the network thread was hurried
    BOOL m_bTold CM_GUARDED_BY(m_Mutex) = FALSE;       // the network thread knows that there is something
    BOOL m_bRefused CM_GUARDED_BY(m_Mutex) = FALSE;    // an OnSend is owed
};

// Chunks that the network thread received and the user's thread has not taken yet. Any thread.
class CProxyReceiveQueue {
public:
    static constexpr DWORD DEFAULT_LIMIT = 1 << 20;
    // What a chunk counts beyond its payload: a peer that sends single bytes must not make us keep a hundred times as much.
    static constexpr DWORD CHUNK_COST = 128;

    void SetLimit(DWORD aLimit);
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
    DWORD m_dwLimit CM_GUARDED_BY(m_Mutex) = DEFAULT_LIMIT;
    uint64_t m_ullWaiting CM_GUARDED_BY(m_Mutex) = 0;  // bytes
    BOOL m_bStopped CM_GUARDED_BY(m_Mutex) = FALSE;
};

}  // namespace talvo
