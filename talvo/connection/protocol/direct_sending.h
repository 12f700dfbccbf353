// PDUs that are sent to the transport at once.
#pragma once

#include "talvo/base/export.h"
#include "talvo/connection/protocol/conn_liveness.h"
#include "talvo/connection/protocol/cs_pdu.h"
#include "talvo/connection/protocol/frame_queue.h"

namespace talvo {

// The sending of a connection without a send buffer. With a buffer it sends only connect PDUs and gathered data.
// Bytes that the transport refuses are pending, and are sent first. Every send needs a transport to be set. One thread.
class TALVO_API CDirectSending {
public:
    // aLiveness is notified of each send, and lives as long as this object.
    explicit CDirectSending(CConnLiveness& aLiveness) : m_Liveness(aLiveness) {}

    // The transport below; not owned. Null: none any more, and its pending bytes are dropped.
    void SetTransport(ICmTransport* aTransport, CmBool aDatagrams);
    ICmTransport* GetTransport() const { return m_pTransport; }
    CmBool IsDatagrams() const { return m_bDatagrams; }
    CConnLiveness& GetLiveness() const { return m_Liveness; }

    // Corked, data PDUs are gathered, up to some 64 KiB.
    void SetCorked(CmBool aCorked) { m_bCorked = aCorked != CM_FALSE; }
    CmBool IsCorked() const { return m_bCorked; }
    // TRUE: pending frames were gathered and not refused, and more may join them.
    CmBool MayGather() const { return m_bCorked && !m_Pending.IsRefused() && m_Pending.GetLength() < GATHER_LIMIT; }

    CFrameQueue& GetPending() { return m_Pending; }

    // Sends a data PDU around aData, which is consumed: sent or pending. CM_OK; else not taken: the transport's result for
    // earlier pending bytes, CM_ERROR_OUT_OF_MEMORY.
    CmResult SendData(CCmMessageBlock& aData);
    // The same without sending. CM_ERROR_OUT_OF_MEMORY: not taken.
    CmResult GatherData(CCmMessageBlock& aData, CmBool aNeedACK);
    // Whole PDUs, see CFrameQueue. CM_ERROR_OUT_OF_MEMORY: broken.
    CmResult SendFrames(CCmMessageBlock& aFrames, const IFrameLengths& aLengths, CmDword& aTaken);
    // A PDU without payload, after the pending bytes. The transport's result; if refused, it is pending.
    CmResult SendPdu(const CCsPduBase& aPdu);
    // Likewise, with three tries; dropped if a datagram transport refuses it. aPdu: encoded.
    CmResult SendConnectPdu(const CCmMessageBlock& aPdu);
    // Sends the pending bytes. CM_OK: all are sent.
    CmResult Flush();

    // Memory ran out after a part of a PDU was sent: the stream cannot continue.
    CmBool IsBroken() const { return m_bBroken; }
    void SetBroken() { m_bBroken = CM_TRUE; }

private:
    static constexpr CmDword GATHER_LIMIT = 65536;

    CmResult SendFrame(const CCsPduBase& aHeader, CCmMessageBlock& aPayload);
    CmResult Sent(CmResult aResult);

    CConnLiveness& m_Liveness;
    ICmTransport* m_pTransport = nullptr;
    CFrameQueue m_Pending;
    bool m_bDatagrams = false;
    bool m_bCorked = false;
    bool m_bBroken = false;
};

}  // namespace talvo
