// The common part of the two sides of a reliable connection.
#pragma once

#include "talvo/connection/protocol/cs_conn.h"
#include "talvo/connection/protocol/kept_options.h"
#include "talvo/transport/reconnect_sink.h"

//   client                                        server
//     |------- connect request ------------------->|   the first one without a channel; the response gives it
//     |<------ connect response -------------------|
//     |<------ data, keep-alives ----------------->|   acknowledged: sent PDUs stay in the send buffer until then
//     x        the transport is lost               x   both ends are suspended; SendData fills the send buffer
//     |------- connect request: counter, channel ->|   over a new transport
//     |<------ connect response: counter ----------|
//     |<------ data behind the other's counter --->|   no message is lost, doubled or out of order
//
// The connection ends when the peer has not been reached again within CS_OPT_RECONNECT_TIME. Reasons of OnDisconnect:
// CM_ERROR_NETWORK_PEER_NOT_BACK (20004): at a server, the client did not come back; CM_ERROR_NETWORK_RECONNECT_FAILED (20011):
// at a client, the server was not reached; CM_ERROR_NETWORK_CONNECT_REFUSED (20012): the server does not have the channel, for
// instance after its restart; CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE (20013) and CM_ERROR_NOT_AVAILABLE (10009): the peer
// violates the protocol; CM_ERROR_OUT_OF_MEMORY (10007); or the peer's reason.
//
// SendData takes data until the send buffer is full, connected or suspended. CM_OPT_TRANSPORT_UNACKNOWLEDGED counts the bytes
// that the peer's connection has not acknowledged. The options 108, 109, 110, 113, 141 and 149 are set again on each new
// transport; set while suspended, they are kept for the next one.
class TALVO_API CRlbConn : public CCsConn, public ICmAcceptorConnectorSink {
public:
    // TRUE: the token form, for both ends. Call it before the connection gets a transport.
    void UseToken(CmBool aToken);

    CmResult SetOption(CmDword aCommand, void* aArg) override;
    CmResult GetOption(CmDword aCommand, void* aArg) override;
    // Connected: as a package connection. Suspended: everything is freed, CM_ERROR_NETWORK_IN_DOUBT: data may not have reached
    // the peer. No upcall follows.
    CmResult Disconnect(CmResult aReason) override;
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrpt, CCmTransportParameter* aPara = nullptr) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrpt) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

protected:
    explicit CRlbConn(CmByte aInstanceType);

    // Hooks of a side. The transport is lost before the connection was open, or while it reconnects.
    virtual void LostWhileOpening_i(CmResult aReason) = 0;
    // The side's timer has fired in CS_STATUS_RECONNECTING.
    virtual void OnRetryTimer_i() {}
    // The connection has just been suspended, after so many milliseconds; the last call of its step.
    virtual void Suspended_i(CmResult aReason, CmDword aConnectedMsec) = 0;
    // The reconnect time is over.
    virtual CmResult GetLateReason_i() const = 0;
    // The connection is about to end. aRemember: by the application, with aReason.
    virtual void Ending_i(CmBool /*aRemember*/, CmResult /*aReason*/) {}

    // The transport is lost, and the connection can continue over another one. No upcall. FALSE: there is no memory for the
    // timer that limits this.
    CmBool Detach_i(CmResult aReason);
    void TellSuspended_i(CmResult aReason);
    // Continues over the current transport, with the peer's counter, a resume point. No upcall; StartResumed_i makes them.
    void Continue_i(CmDword aPeerReceived);
    void StartResumed_i();
    // Begins the periodic work of a connected side. CM_OK, or the failure of a timer.
    CmResult StartConnected_i();
    // Ends the connection and notifies the owner or the sink.
    void Final_i(CmResult aReason);
    // A disconnect PDU and an orderly close of the transport, which this connection then no longer has.
    void RefusePeer_i(CmResult aReason);
    void ViolatedBy_i(const char* aText);

    CmBool IsToken_i() const { return m_byConnType == CCsPduConnToken::CONN_TYPE; }
    // The current connect PDU; in the plain form without a token.
    CCsPduConnToken TakeRequestOrResponse_i();
    CmBool ArmTimer_i(const CCmTimeValue& aTime);

    CmBool IsConnectPduWhole_i() override;
    void EncodeConnectPdu_i(CmByte aType, CCmMessageBlock& aMb) const override;
    CmBool CountsBeforeUpcall_i() const override { return CM_TRUE; }
    CmBool HasKeepAliveTimer_i() const override { return CM_TRUE; }
    CmResult SendKeepAlive() override;
    CmResult SendDataFromSendBuf() override;
    void SendAck_i() override;
    void ACK2PeerIfPossiable(CCmMessageBlock& aData) override;
    void CancelTimers_i() override;
    void Finish_i(CmResult aReason) override { Final_i(aReason); }
    CmDword GetKept_i() const { return m_Buffered->GetSendBuf().GetUsed(); }

    CCsConnToken m_Token;
    CmDword m_dwAttempt = 0;          // of the last request
    CmDword m_dwSinceTick = 0;        // of the last change between connected and suspended
    CmDword m_dwReconnectTime = 120;  // seconds

private:
    void EndInOrder_i(CmBool aCut) override;
    CmBool IsAckDue_i() const { return m_Buffered->GetSendBuf().GetACKSent() != m_dwReceived; }
    CmBool StartSilence_i();
    CmResult SetSeconds_i(CmDword aCommand, CmDword aSeconds);
    CmResult SetKeptOption_i(CmDword aCommand, void* aArg);
    CmResult GetStatus_i(CCmReconnectStatus& aStatus) const;
    CmDword GetSince_i() const;

    talvo::CKeptOptions m_Kept;
    ICmReconnectSink* m_pReconnectSink = nullptr;  // not owned
    CCmReconnectStatus m_Status;
    CCmTimerWrapperID m_Timer;     // handshake: its limit; connected: silence; reconnecting: the side's own
    CCmTimerWrapperID m_Deadline;  // of the reconnect time
    CCmTimerWrapperID m_AckTimer;
    bool m_bAckTimer = false;   // runs
    bool m_bAckWanted = false;  // an acknowledgement is due as soon as the transport takes it
    bool m_bKeepAlive = false;  // likewise a keep-alive, with or without news
    bool m_bToldSuspended = false;
};
