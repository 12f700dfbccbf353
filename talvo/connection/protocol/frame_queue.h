// Frames that a transport has not taken yet.
#pragma once

#include "talvo/base/block_chain.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// A frame is a small header and the payload behind it. Frames wait here in order because the transport is full, or because they
// are gathered to leave together. Small payloads are copied behind their header into blocks that many frames share; of larger
// ones the storage is shared with whoever gave them. Empty, it holds no memory. One thread; a transport must not call back from
// inside its SendData.
class TALVO_API CFrameQueue {
public:
    CFrameQueue() = default;
    CFrameQueue(const CFrameQueue&) = delete;
    CFrameQueue& operator=(const CFrameQueue&) = delete;

    // While it is empty. For a datagram transport: each frame is a SendData of its own; one that is refused otherwise than with
    // CM_ERROR_PARTIAL_DATA is dropped, since it will never be taken. Without: a stream, of which nothing is ever dropped.
    void SetDatagrams(BOOL aDatagrams) { m_bDatagrams = aDatagrams != FALSE; }

    // Sends a frame, after those that wait. It allocates nothing unless something is refused: that is kept. The caller's
    // payload is consumed in any case, and the blocks stay the caller's. The transport's result; CM_ERROR_OUT_OF_MEMORY: the
    // frame is lost, perhaps behind its first bytes, so that a stream cannot go on.
    CmResult Send(ICmTransport& aTransport, const void* aHeader, DWORD aHeaderLen, CCmMessageBlock& aPayload);

    // Adds a frame without sending. CM_ERROR_OUT_OF_MEMORY: nothing was added.
    CmResult Add(const void* aHeader, DWORD aHeaderLen, const CCmMessageBlock& aPayload);

    // The same for what a transport has refused.
    CmResult Keep(const CCmMessageBlock& aRest);

    // Sends what there is, many pieces a call. CM_OK: the queue is empty. Else the transport's result; try again after OnSend.
    CmResult Flush(ICmTransport& aTransport);

    // Hands over what there is; null: nothing.
    CCmChainPtr TakeAll();

    BOOL IsEmpty() const { return m_dwLength == 0; }
    // A transport has refused a part of what waits, since it was last empty; more has to wait for its OnSend.
    BOOL IsRefused() const { return m_bRefused; }
    DWORD GetLength() const { return m_dwLength; }  // bytes, headers included
    void Clear() { TakeAll(); }

private:
    CCmMessageBlock* SpaceFor_i(DWORD aCount);
    void LinkViews_i(CCmChainPtr aViews);
    CmResult SendPart_i(ICmTransport& aTransport);
    DWORD FirstPieces_i() const;
    DWORD FirstDatagram_i() const;
    BOOL IsSettled_i(CmResult aResult) const;

    CBlockChain m_Chain;        // no other object writes to the space of the last block
    DWORD m_dwLength = 0;       // unread bytes
    bool m_bDatagrams = false;  // the first block of each frame is READ_LOCKED
    bool m_bRefused = false;
};

}  // namespace talvo
