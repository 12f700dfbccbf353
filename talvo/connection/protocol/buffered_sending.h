// PDUs that go through a send buffer.
#pragma once

#include "talvo/base/export.h"
#include "talvo/connection/protocol/cs_send_buf.h"
#include "talvo/connection/protocol/direct_sending.h"

namespace talvo {

// The sending of a connection with a bounded send buffer. The buffer belongs to the connection and not to its transport: it
// outlives the transport. After a reconnection Resume sends the bytes that the peer lacks over the new one. One thread.
class TALVO_API CBufferedSending {
public:
    // aMaxBufLen: bytes. aDirect has the transport and sends the data that bypasses the buffer. It outlives this object.
    CBufferedSending(CmDword aMaxBufLen, CDirectSending& aDirect)
        : m_SendBuf(aMaxBufLen), m_dwMaxBufLen(aMaxBufLen), m_dwRoom(aMaxBufLen), m_Direct(aDirect) {}

    // Also ends the growth.
    void SetMaxBufLen(CmDword aMaxBufLen);
    CmDword GetMaxBufLen() const { return m_dwMaxBufLen; }
    // From now on Grow may enlarge the buffer, up to aMostBytes.
    void LetGrow(CmDword aMostBytes) { m_dwMostRoom = aMostBytes; }
    // Doubles the room until the transport is lost, if the buffer and not the transport limits the rate: all messages are sent,
    // and the peer has acknowledged half a room since the last growth. So a peer that never does makes nothing grow. FALSE:
    // neither is so, or it may not grow.
    CmBool Grow();
    void SetReceived(CmDword aReceived) { m_SendBuf.SetSeq4ACK(aReceived); }
    CmDword GetUnsent() const { return m_SendBuf.GetUnsent(); }

    // A data PDU around aData, which is consumed. CM_ERROR_PARTIAL_DATA: no room now. CM_ERROR_OUT_OF_MEMORY.
    CmResult Add(CCmMessageBlock& aData, CmBool aNeedACK);
    // Unless other data is due to be sent.
    void AddKeepAlive();
    void AddDisconn(CmResult aReason) { m_SendBuf.AddDisconnPDU(aReason); }

    // TRUE: a data PDU of aLength bytes can bypass the buffer: corked, not acknowledged, and no PDU before it is in the buffer.
    // Makes room for it if possible.
    CmBool MayGather(CmDword aLength, CmBool aNeedACK);
    // TRUE: the queued bytes fill a call of the transport.
    CmBool HasFullCall() const;

    // Sends the pending bytes and then the buffer. CM_OK: all is sent; else the transport's result. aNeedACK: sent PDUs stay
    // until the peer acknowledges them. After a refusal an acknowledged connection waits for OnRoom: its acknowledgements
    // request data again and again, and each call would fail.
    CmResult Flush(CmBool aNeedACK);
    // The transport takes data again.
    void OnRoom() { m_bRefused = false; }
    // Moves the unsent bytes after the pending ones. FALSE: memory ran out.
    CmBool MoveToPending();

    int DoACK(CmDword aSeq);
    void OnTransportLost();
    // The peer has received up to aSeq; the rest is sent again. FALSE: aSeq is no resume point, and the state is unchanged.
    CmBool Resume(CmDword aSeq) { return m_SendBuf.IsResumePoint(aSeq) && m_SendBuf.DoReconnACK(aSeq) != -1; }
    void Reset();

    CCsSendBuf& GetSendBuf() { return m_SendBuf; }
    const CCsSendBuf& GetSendBuf() const { return m_SendBuf; }

private:
    void SetRoom(CmDword aBytes);
    CmBool HasRoom(CmDword aLength, CmBool aNeedACK) const;
    CmResult SendCurrent();
    CmResult DropDatagram(CmDword aLength, CmResult aReason);

    CCsSendBuf m_SendBuf;
    CmDword m_dwMaxBufLen;
    CmDword m_dwRoom;          // bytes of the buffer now, at least m_dwMaxBufLen
    CmDword m_dwMostRoom = 0;  // the growth ends there
    uint64_t m_ullAcked = 0;   // bytes since the last growth
    bool m_bRefused = false;   // by the transport, an OnSend follows
    CDirectSending& m_Direct;
};

}  // namespace talvo
