// The two queues of a transport's thread proxy: the user's sends and the network's received data.
#pragma once

#include "talvo/base/mutex.h"
#include "talvo/transport/message_list.h"

namespace talvo {

// The limit of queued bytes: the user's value, or the size of the socket's own buffer if that is larger than the default.
class CProxyLimit {
public:
    static constexpr CmDword DEFAULT = 1 << 20;

    void Set(CmDword aLimit) {
        m_dwLimit = aLimit;
        m_bFixed = CM_TRUE;
    }
    void Grow(CmDword aBuffer) {
        if (!m_bFixed)
            m_dwLimit = aBuffer > DEFAULT ? aBuffer : DEFAULT;
    }
    CmDword Get() const { return m_dwLimit; }

private:
    CmDword m_dwLimit = DEFAULT;
    CmBool m_bFixed = CM_FALSE;
};

// The number of blocks of a chain.
CmDword CountBlocks(const CCmMessageBlock& aChain);

// The common part of both queues. Any thread.
class CProxyQueue {
public:
    // See CMessageList. Before the first push.
    void SetFraming(IFramedSending::EFraming aFraming);

    void SetLimit(CmDword aLimit);
    void GrowLimit(CmDword aBuffer);
    CmDword GetLimit();

    CProxyQueue(const CProxyQueue&) = delete;
    CProxyQueue& operator=(const CProxyQueue&) = delete;

protected:
    CProxyQueue() = default;

    CCmMutexThread m_Mutex;
    CMessageList m_Chains CM_GUARDED_BY(m_Mutex);
    CProxyLimit m_Limit CM_GUARDED_BY(m_Mutex);
    uint64_t m_ullWaiting CM_GUARDED_BY(m_Mutex) = 0;  // bytes
};

// Chains from the user's thread that the network thread has not passed to the transport yet. One limit bounds the queued bytes,
// another the blocks, because a block costs memory even with few bytes. Above either limit a send is refused, and the queue
// reports when half of both has drained. Any thread.
class CProxySendQueue : public CProxyQueue {
public:
    // One block for each so many bytes of the limit, or of the default limit if that is larger.
    static constexpr CmDword BYTES_A_BLOCK = 128;

    // Takes aData, all or nothing, so a message stays whole. Copies a small one, if it may be copied, and duplicates any other.
    // aLength is its length, aCost its cost; the total may exceed the limit by one message. CM_ERROR_PARTIAL_DATA: full.
    // CM_ERROR_OUT_OF_MEMORY. aNotify (out): the network thread must be notified. aWake (out): 32 KiB have come
    // since the last wake-up; wake it now. Takes one lock; a duplicate is made before, and dropped if the queue is full.
    CmResult Push(const CCmMessageBlock& aData, CmDword aLength, CmDword aCost, CmBool aMayCopy, CmBool& aNotify,
                  CmBool& aWake);

    // Refuses all further data with CM_ERROR_NULL_POINTER: afterwards IsEmpty is final. Any thread.
    void Close();
    // User's thread, after Close: TRUE, once: the user was refused before, and expects a report.
    CmBool TakeRefusal();

    // Network thread: moves all queued data to the empty aMessages. FALSE: no data, and the next Push must notify.
    CmBool Take(CMessageList& aMessages);
    // Network thread: that much is finished; a copied message had no block. TRUE: the user was refused before, and can send
    // again.
    CmBool Sent(uint64_t aCost, CmDword aBlocks);

    // Bytes in the queue and those taken but not sent.
    uint64_t GetWaiting();
    CmBool IsEmpty() { return GetWaiting() == 0; }

private:
    CmDword GetMostBlocks_l() const CM_REQUIRES(m_Mutex);

    uint64_t m_ullBlocks CM_GUARDED_BY(m_Mutex) = 0;
    uint64_t m_ullQuiet CM_GUARDED_BY(m_Mutex) = 0;        // bytes since the last wake-up
    CmBool m_bNotified CM_GUARDED_BY(m_Mutex) = CM_FALSE;  // the network thread is notified of data
    CmBool m_bRefused CM_GUARDED_BY(m_Mutex) = CM_FALSE;   // an OnSend is due
    CmBool m_bClosed CM_GUARDED_BY(m_Mutex) = CM_FALSE;
};

// Chunks from the network thread that the user's thread has not taken yet. Any thread.
class CProxyReceiveQueue : public CProxyQueue {
public:
    // The cost of a chunk besides its payload: a peer that sends single bytes must not use a hundred times as much memory.
    static constexpr CmDword CHUNK_COST = 128;

    // Takes aChunk, of aLength bytes, as the send queue does. CM_ERROR_OUT_OF_MEMORY. aStop (out): the queue exceeds its limit,
    // and reading must stop.
    CmResult Push(const CCmMessageBlock& aChunk, CmDword aLength, CmBool aMayCopy, CmBool& aStop);
    // The same for a message in each of aCount frames, aLength bytes, see CMessageList.
    CmResult PushFrames(const char* aFrames, CmDword aLength, CmDword aCount, CmBool& aStop);
    // Moves all queued data to the empty aChunks. FALSE: no data.
    CmBool Take(CMessageList& aChunks);
    // The user has received chunks of that cost. TRUE: reading was stopped and can continue.
    CmBool Taken(uint64_t aCost);
    // TRUE: reading must pause now. Called when the state is applied, because both threads may have changed it meanwhile.
    CmBool IsStopped();

private:
    CmBool Added_l(uint64_t aCost) CM_REQUIRES(m_Mutex);

    CmBool m_bStopped CM_GUARDED_BY(m_Mutex) = CM_FALSE;
};

}  // namespace talvo
