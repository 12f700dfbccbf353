// The connection that passes only whole PDUs to its transport.
#pragma once

#include "talvo/connection/protocol/cs_conn.h"

// One class for both ends, without a handshake: connected as soon as its transport is. Data PDUs are in the 9-byte form with an
// acknowledgement field of 0. There is no send buffer. One message may wait, if the transport refused it, and until it is sent
// SendData returns CM_ERROR_PARTIAL_DATA. Sends keep-alives if requested, but does not time out a silent peer.
class TALVO_API CPkgSender : public CCsConn, public ICmAcceptorConnectorSink {
public:
    CPkgSender();
    ~CPkgSender() override;

    // Abandons the opening; the owner gets no more calls.
    void CancelConnect();

    // Notifies the peer and closes the transport below. With CM_OK the bytes that the transport has not taken yet are sent
    // first, the notification last, for at most LingerSeconds (CTransportLinger). Over datagrams and with any other reason they
    // are lost. No upcall follows. The transport's result; CM_OK if the connection lingers or had ended.
    CmResult Disconnect(CmResult aReason) override;

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrpt) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    // The time of the transport's loss, less 90 seconds; zero before. Reconnecting users measure from this time.
    const CCmTimeValue& GetDisconnTimestamp() const { return m_tvDisconnect; }

private:
    CCmTimeValue m_tvDisconnect;
};
