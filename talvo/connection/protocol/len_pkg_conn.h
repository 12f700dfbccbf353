// Messages over a byte stream, each after its length.
#pragma once

#include "talvo/base/time_value.h"
#include "talvo/connection/protocol/conn_base.h"
#include "talvo/connection/protocol/connection_options.h"
#include "talvo/connection/protocol/frame_queue.h"
#include "talvo/connection/protocol/receive_chain.h"
#include "talvo/transport/framed_sending.h"

namespace talvo {
class CConnServerList;
}

//  0               4                4 + L
//  | length L      | payload ...    |           L big-endian, never 0
//
// No handshake, no acknowledgement, no keep-alive: connected as soon as the transport below is. Both ends must be of this
// class; a connector or acceptor makes it and gives it the transport. OnReceive brings one whole message. If a peer announces a
// message of length 0 or beyond CS_OPT_MAX_MESSAGE_LEN, the connection is aborted: OnDisconnect with reason CM_OK, or
// CM_ERROR_NOT_AVAILABLE.
//
// Network thread only. Every upcall may send, set options, disconnect and release the connection. Messages before OpenWithSink
// are dropped: open it inside the indication.
class TALVO_API CLenPkgConn : public CConnBase,
                              public ICmTransportSink,
                              public ICmAcceptorConnectorSink,
                              public talvo::IFramedSending {
public:
    CLenPkgConn();
    ~CLenPkgConn() override;

    // Takes a message whole or not at all. CM_OK: sent, or kept and sent first when the transport has room again.
    // CM_ERROR_PARTIAL_DATA: one is kept already; OnSend follows. CM_ERROR_INVALID_ARG: longer than CS_OPT_MAX_MESSAGE_LEN.
    // CM_ERROR_NOT_AVAILABLE: not connected. CM_ERROR_OUT_OF_MEMORY: the connection has ended with OnDisconnect. An empty
    // message is not sent: CM_OK.
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;

    // For a thread proxy, which frames messages itself.
    EFraming GetFraming() const override { return LENGTH; }
    CmResult SendFrames(CCmMessageBlock& aFrames, const talvo::IFrameLengths& aLengths, CmDword& aTaken) override;
    void SetFrameSink(talvo::IFrameSink* aSink) override { SetFrameSink_i(aSink); }

    // CS_OPT_MAX_MESSAGE_LEN, CM_OPT_TRANSPORT_UNACKNOWLEDGED, _MAX_MESSAGE and _CORK. All others go to the transport below,
    // CM_ERROR_NOT_AVAILABLE without one. While corked, up to 64 KiB are gathered. While reading is paused, messages from an
    // earlier read of the transport still come.
    CmResult SetOption(CmDword aCommand, void* aArg) override;
    CmResult GetOption(CmDword aCommand, void* aArg) override;

    // Ends the transport below with aReason and returns its result. With CM_OK the unsent bytes are sent first, for at most
    // LingerSeconds (CTransportLinger). With any other reason they are lost, see CM_OPT_TRANSPORT_UNACKNOWLEDGED.
    CmResult Disconnect(CmResult aReason) override;

    // Ends an opening without a call.
    void CancelConnect() { Disconnect(CM_OK); }

    // Adds it to the connections with an unfinished opening; not owned; may be null.
    void SetServerList(talvo::CConnServerList* aList);

    // The time of its last end, by the wall clock; zero: not ended.
    CCmTimeValue GetDisconnTimestamp() const { return m_tvDisconnected; }

    // From the connector or acceptor below.
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override;
    // From the transport below. OnSend is passed on, even if the kept bytes are refused again.
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) override;
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override;

private:
    static constexpr CmDword HEADER_LEN = 4;

    CmDword GetMaxMessage_i() const;
    CmResult RefuseTooLong_i(CmDword aLength) const;
    CmResult SendData_i(CCmMessageBlock& aData, CmDword aLength);
    CmResult SendPending_i();
    CmBool ReadLength_i();
    CmBool TakeNext_i(CCmTransportParameter* aPara);
    talvo::CWholeFrames FindFrames_i(const char*& aFrames) const;
    CmBool TakeMessage_i(CCmTransportParameter* aPara);
    void Reset4Recv();
    void Reset();

    talvo::CFrameQueue m_Pending;
    talvo::CReceiveChain m_Receive;
    CmDword m_dwNeeded = HEADER_LEN;  // bytes until the next step
    CmDword m_dwMessageLen = 0;       // of the current message; 0: not read yet
    CmDword m_dwMaxMessage = CS_DEFAULT_MAX_MESSAGE_LEN;
    CmBool m_bCorked = CM_FALSE;
    CCmTimeValue m_tvDisconnected;
};
