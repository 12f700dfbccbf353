// PDUs that go through a send buffer.
#pragma once

#include "talvo/base/export.h"
#include "talvo/connection/protocol/cs_send_buf.h"
#include "talvo/connection/protocol/direct_sending.h"

namespace talvo {

// The way of a connection with a send buffer of bounded size. The buffer belongs to the connection and not to its transport:
// it outlives the transport, and Resume sends again over another what the peer lacks. One thread.
class TALVO_API CBufferedSending {
public:
    // aMaxBufLen: bytes. aDirect has the transport and what goes past the buffer; lives as long as this object.
    CBufferedSending(DWORD aMaxBufLen, CDirectSending& aDirect)
        : m_SendBuf(aMaxBufLen), m_dwMaxBufLen(aMaxBufLen), m_Direct(aDirect) {}

    void SetMaxBufLen(DWORD aMaxBufLen);
    DWORD GetMaxBufLen() const { return m_dwMaxBufLen; }
    void SetReceived(DWORD aReceived) { m_SendBuf.SetSeq4ACK(aReceived); }
    DWORD GetUnsent() const { return m_SendBuf.GetUnsent(); }

    // A data PDU around aData, which is consumed. CM_ERROR_PARTIAL_DATA: no room now. CM_ERROR_OUT_OF_MEMORY.
    CmResult Add(CCmMessageBlock& aData, BOOL aNeedACK);
    // Unless something is to be sent anyway.
    void AddKeepAlive();
    void AddDisconn(CmResult aReason) { m_SendBuf.AddDisconnPDU(aReason); }

    // A data PDU of aLength bytes needs no place in the buffer: corked, not acknowledged, and none before it is there. Makes
    // room for it where it can.
    BOOL MayGather(DWORD aLength, BOOL aNeedACK);
    // So much waits that it makes a full call of the transport.
    BOOL HasFullCall() const;

    // Sends what is pending and then what is in the buffer. CM_OK: all has gone; else the transport's result. aNeedACK: what
    // has gone stays until the peer acknowledges it.
    CmResult Flush(BOOL aNeedACK);
    // Moves what has not been sent behind what is pending. FALSE: memory ran out.
    BOOL MoveToPending();

    int DoACK(DWORD aSeq) { return m_SendBuf.DoACK(aSeq); }
    // The peer has received up to aSeq; the rest is to be sent again. FALSE: aSeq fits nothing in the buffer.
    BOOL Resume(DWORD aSeq) { return m_SendBuf.DoReconnACK(aSeq) != -1; }
    void Reset() { m_SendBuf.Reset(); }

private:
    BOOL HasRoom(DWORD aLength, BOOL aNeedACK) const;
    CmResult SendCurrent();
    CmResult DropDatagram(DWORD aLength, CmResult aReason);

    CCsSendBuf m_SendBuf;
    DWORD m_dwMaxBufLen;
    CDirectSending& m_Direct;
};

}  // namespace talvo
