// Frames that a transport has not taken yet.
#pragma once

#include "talvo/base/block_chain.h"
#include "talvo/transport/framed_sending.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {

// A frame is a small header and its payload. Frames are queued in order because the transport is full, or to leave together.
// Small payloads are copied after their header into blocks shared by many frames; larger ones share the caller's storage.
// Empty, it holds no memory. One thread; a transport must not call back from inside its SendData.
class TALVO_API CFrameQueue {
public:
    CFrameQueue() = default;
    CFrameQueue(const CFrameQueue&) = delete;
    CFrameQueue& operator=(const CFrameQueue&) = delete;

    // Set it while the queue is empty. TRUE, for a datagram transport: each frame is a SendData of its own. A frame refused
    // otherwise than with CM_ERROR_PARTIAL_DATA is dropped, because it can never be sent. FALSE: a stream, which never drops
    // data.
    void SetDatagrams(CmBool aDatagrams) { m_bDatagrams = aDatagrams != CM_FALSE; }

    // Sends a frame, after the queued ones. Allocates nothing unless bytes are refused, which are then queued. The caller's
    // payload is always consumed, and the blocks stay the caller's. The transport's result; CM_ERROR_OUT_OF_MEMORY: the frame
    // is lost, perhaps after its first bytes, so that a stream cannot continue.
    CmResult Send(ICmTransport& aTransport, const void* aHeader, CmDword aHeaderLen, CCmMessageBlock& aPayload);

    // Sends the frames of aFrames, whose lengths are aLengths, after the queued bytes. Of the last frame that the transport
    // takes in part the rest is queued; those after it stay the caller's. aTaken (out): the frames that are sent or queued. The
    // transport's result; CM_ERROR_OUT_OF_MEMORY: the stream cannot continue. Streams only.
    CmResult SendFrames(ICmTransport& aTransport, CCmMessageBlock& aFrames, const IFrameLengths& aLengths, CmDword& aTaken);

    // Adds a frame without sending. CM_ERROR_OUT_OF_MEMORY: the queue is unchanged.
    CmResult Add(const void* aHeader, CmDword aHeaderLen, const CCmMessageBlock& aPayload);

    // The same for bytes that a transport has refused.
    CmResult Keep(const CCmMessageBlock& aRest);

    // Sends the queued bytes, many pieces a call. CM_OK: the queue is empty. Else the transport's result; try again after
    // OnSend.
    CmResult Flush(ICmTransport& aTransport);

    // Removes and returns all queued bytes; null: none.
    CCmChainPtr TakeAll();

    CmBool IsEmpty() const { return m_dwLength == 0; }
    // TRUE: a transport has refused a part of the queue, since it was last empty; more bytes must wait for its OnSend.
    CmBool IsRefused() const { return m_bRefused; }
    CmDword GetLength() const { return m_dwLength; }  // bytes, headers included
    void Clear() { TakeAll(); }

private:
    CCmMessageBlock* SpaceFor_i(CmDword aCount);
    void LinkViews_i(CCmChainPtr aViews);
    CmResult KeepFirst_i(const CCmMessageBlock& aChain, CmDword aCount);
    CmResult SendPart_i(ICmTransport& aTransport);
    CmDword FirstPieces_i() const;
    CmDword FirstDatagram_i() const;
    CmBool IsSettled_i(CmResult aResult) const;

    CBlockChain m_Chain;        // only this object writes to the space of the last block
    CmDword m_dwLength = 0;     // unread bytes
    bool m_bDatagrams = false;  // the first block of each frame is READ_LOCKED
    bool m_bRefused = false;
};

}  // namespace talvo
