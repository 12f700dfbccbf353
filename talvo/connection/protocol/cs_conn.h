// The engine of the protocol connections.
#pragma once

#include <optional>

#include "talvo/connection/protocol/buffered_sending.h"
#include "talvo/connection/protocol/conn_base.h"
#include "talvo/connection/protocol/conn_liveness.h"
#include "talvo/connection/protocol/connection_options.h"
#include "talvo/connection/protocol/direct_sending.h"
#include "talvo/connection/protocol/pdu_reader.h"
#include "talvo/transport/connection_type.h"
#include "talvo/transport/framed_sending.h"

//   upper layer         SendData                              OnReceive, OnSend, OnDisconnect
//                          |                                       ^
//   CCsConn     CBufferedSending or                            CPduReader
//               CDirectSending alone  ------> CConnLiveness <------'
//                          v                                       |
//   transport           SendData                              OnReceive, OnSend, OnDisconnect
//
// Frames the upper layer's data into data PDUs. A send buffer of bounded size keeps them; without one they are sent at once,
// and only bytes that the transport refused are kept. Assembles PDUs from received bytes, and passes connect, disconnect and
// keep-alive PDUs to the derived classes. Over a datagram transport one PDU is one datagram.
//
// SendData takes a message whole or not at all. CM_ERROR_PARTIAL_DATA: no room now, an OnSend follows. CM_ERROR_INVALID_ARG: it
// exceeds the maximum, see CM_OPT_TRANSPORT_MAX_MESSAGE; the trace names the option that raises it. CM_ERROR_OUT_OF_MEMORY: not
// taken, and no OnSend follows; or memory ran out after a part was sent, and the connection has ended with OnDisconnect.
// CM_ERROR_NOT_AVAILABLE: not connected. OnSend may also come without a refusal.
//
// While reading is paused (option 141), messages from an earlier read of the transport still come.
//
// Network thread only. Every upcall may send, set options, disconnect and release the connection.
class TALVO_API CCsConn : public CConnBase,
                          public ICmTransportSink,
                          public CCmTimerWrapperIDSink,
                          public talvo::IFramedSending {
public:
    // aMaxBufLen: bytes of the send buffer; 0: none.
    explicit CCsConn(CmDword aMaxBufLen);
    ~CCsConn() override;

    // TRUE: send keep-alives. Call it before the connection is up.
    void NeedKeepAlive(CmBool aNeed) { m_bNeedKeepAlive = aNeed; }
    // 1: a server's side, 2: a client's; 0: neither.
    CmByte GetInstanceType() const { return m_byInstanceType; }

    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;
    // For a thread proxy, which frames messages itself.
    EFraming GetFraming() const override { return m_bNeedACK || m_bDatagrams ? NOT_FRAMED : PACKAGE; }
    CmResult SendFrames(CCmMessageBlock& aFrames, const talvo::IFrameLengths& aLengths, CmDword& aTaken) override;
    void SetFrameSink(talvo::IFrameSink* aSink) override { SetFrameSink_i(aSink); }
    // The commands of ECsOption and, of ECmTransportOption, 141 and 144 to 146. All others go to the transport below,
    // CM_ERROR_NOT_AVAILABLE without one.
    CmResult SetOption(CmDword aCommand, void* aArg) override;
    CmResult GetOption(CmDword aCommand, void* aArg) override;
    CmResult Disconnect(CmResult aReason) override;

protected:
    // These follow the transport's operations in this order.
    virtual CmResult SendKeepAlive();
    virtual CmResult SendConnReq();
    virtual CmResult SendConnResp();
    virtual CmResult SendDisconn(CmResult aReason);
    virtual CmResult SendDataFromSendBuf();
    virtual int DoACK(CmDword aSeq);
    virtual void OnRecvConnResp() {}
    virtual void OnRecvConnReq() {}
    virtual void OnRecvDisconn();
    virtual void OnRecvKeepAlive();
    virtual void ACK2PeerIfPossiable(CCmMessageBlock& aData);
    virtual void Reserved() {}  // an unused slot of the interface

public:
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrpt, CCmTransportParameter* aPara = nullptr) override;
    void OnSend(ICmTransport* aTrpt, CCmTransportParameter* aPara = nullptr) override;

protected:
    static constexpr CmDword TYPE_RELIABLE = talvo::CConnectionType::CANONICAL_RELIABLE;
    enum : CmByte { INSTANCE_NONE = 0, INSTANCE_SERVER = 1, INSTANCE_CLIENT = 2 };

    // Takes the transport below and determines its type.
    void TakeTransport_i(ICmTransport* aTransport);

    // A connected side changes its transport. DetachTransport_i closes the old one with aReason and drops its state:
    // pending bytes, an incomplete PDU, timers. The sink, the channel, the counters and the send buffer stay, and SendData
    // fills the buffer. The status is CS_STATUS_RECONNECTING. Then come TakeTransport_i and the handshake, ResumeData_i with
    // the receive counter of the peer, and StartData_i. It is connected again, and the bytes that the peer lacks are sent
    // before new ones. CM_ERROR_FAILURE: the counter is no resume point. The state is unchanged, and the connection cannot
    // continue.
    void DetachTransport_i(CmResult aReason);
    CmResult ResumeData_i(CmDword aPeerReceived);

    // The engine has found the end: a violation, a disconnect PDU, or no memory. The same as a loss of the transport, unless a
    // derived class continues after a loss.
    virtual void Finish_i(CmResult aReason) { OnDisconnect(aReason, m_pTransport.Get()); }

    // Clears the connection's whole state, the transport included.
    void Reset();
    void Reset4Recv() { m_Reader.Next(); }

    // The two ends. Close_i, for the upper layer: notifies the peer, detaches the sink and returns the transport's result.
    // End_i makes no notification and leaves the sink for NotifyEnd_i.
    CmResult Close_i(CmResult aReason);
    void End_i(CmResult aTransportReason);

    // Reads the type of the first PDU of the received bytes. FALSE: there is no such type.
    CmBool GetPDUType();
    CCsPduConnReqResp TakeConnectPdu_i();
    // The first 8 bytes of a connect PDU have come. FALSE: more of it is missing.
    virtual CmBool IsConnectPduWhole_i() { return CM_TRUE; }
    // Encodes a connect PDU of this connection, with its counter and channel.
    virtual void EncodeConnectPdu_i(CmByte aType, CCmMessageBlock& aMb) const;

    // TRUE: a message counts as received before the sink gets it, so that the peer does not send it again over a transport that
    // an upcall makes necessary.
    virtual CmBool CountsBeforeUpcall_i() const { return CM_FALSE; }

    // Enough bytes have come for an acknowledgement.
    virtual void SendAck_i() {}

    // Ends the connection if aResult has left a PDU half sent. Returns aResult.
    CmResult EndIfBroken_i(CmResult aResult);

    // The periodic work of a connected side.
    CmResult ScheduleKeepAlive_i() { return m_Liveness.Start(this); }
    void SendKeepAliveIfDue_i();
    virtual CmBool HasKeepAliveTimer_i() const { return m_bNeedKeepAlive; }  // while connected

    // A derived class adds its own.
    virtual void CancelTimers_i() { m_Liveness.Stop(); }

    // TRUE: the sink has sent before the connection was up. StartData_i sends that data, and calls OnSend if it is due.
    CmBool HasUnsentData_i() const { return m_Buffered && m_Buffered->GetUnsent() > 0; }
    void StartData_i();

    CmDword m_dwType = 0;       // the connection type
    CmDword m_cBaseType = 0;    // of the transport below
    bool m_bDatagrams = false;  // derived from m_cBaseType
    bool m_bNeedACK = true;
    bool m_bNeedKeepAlive = false;
    CmByte m_byInstanceType = INSTANCE_NONE;
    char m_szConnReq[CCsPduConnToken::LENGTH] = {};  // the connect request, kept for a repeat
    CmDword m_dwConnReq = 0;                         // its length; 0: none
    talvo::CConnLiveness m_Liveness;
    talvo::CPduReader m_Reader;
    talvo::CDirectSending m_Direct{m_Liveness};
    std::optional<talvo::CBufferedSending> m_Buffered;  // none: m_Direct only
    CmDword m_dwReceived = 0;                           // receive counter: the sequence number of the last data byte that came

private:
    // Sending.
    CmDword GetMaxMessage_i() const;
    CmResult RefuseTooLong_i(CmDword aLength) const;
    CmResult SendBuffered_i(CCmMessageBlock& aData);
    CmResult AddToSendBuf_i(CCmMessageBlock& aData);
    CmResult SendDirect_i(CCmMessageBlock& aData);
    CmResult SendConnectPdu_i(const CCmMessageBlock& aPdu);
    CmBool LetLinger_i();
    CmResult Uncork_i();
    CmDword GetUnsent_i();
    void ForgetTransport_i();
    // Options.
    CmResult SetMaxBufLen_i(CmDword aLength);
    CmResult SetKeepAliveInterval_i(CmDword aSeconds);
    CmResult PauseReading_i(CmBool aPause);
    // Receiving.
    CmBool IsMine_i(ICmTransport* aTrpt);
    CmBool TakePdu_i(CCmTransportParameter* aPara);
    talvo::CWholeFrames FindFrames_i(const char*& aFrames) const;
    CmBool PassFrames_i(const char* aFrames, const talvo::CWholeFrames& aWhole);
    CmBool TakeData_i(CCmTransportParameter* aPara);
    CmResult Deliver_i(CmDword aLength, CCmTransportParameter* aPara);
    CmBool ReadDataLength_i();
    CmBool TakeAck_i(CmDword aSeq);
    CmDword GetReceivedThen_i() const;
    void SetReceived_i(CmDword aReceived);
    CmBool Refuse_i(const char* aText);
    void DropDatagramRest_i();

    CmDword m_dwMaxMessage = CS_DEFAULT_MAX_MESSAGE_LEN;
    bool m_bAckProcessing = false;
    bool m_bNeedOnSend = false;  // a send was refused
    CmDword m_dwAckBytes = 0;    // ACK byte counter
};
