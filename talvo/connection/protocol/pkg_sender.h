// The connection that hands its transport whole PDUs only.
#pragma once

#include "talvo/connection/protocol/cs_conn.h"

// One class for both ends, without a handshake: connected as soon as its transport is. Data PDUs are in the 9-byte form with an
// acknowledgement field of 0. There is no send buffer: one message may wait, which the transport refused, and until that has
// gone SendData answers CM_ERROR_PARTIAL_DATA. Sends keep-alives if wanted, but does not watch over a silent peer.
class TALVO_API CPkgSender : public CCsConn, public ICmAcceptorConnectorSink {
public:
    CPkgSender();
    ~CPkgSender() override;

    // Gives the opening up; the owner is told nothing any more.
    void CancelConnect();

    // Tells the peer and closes the transport below. With CM_OK what the transport has not taken yet, the notice last, goes out
    // first, for at most LingerSeconds (CTransportLinger); over datagrams and with any other reason it is lost. No upcall
    // follows. The transport's result; CM_OK when the connection lingers or had ended.
    CmResult Disconnect(CmResult aReason) override;

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrpt) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    // When the transport was lost, less 90 seconds; zero before. Reconnecting users measure from there.
    const CCmTimeValue& GetDisconnTimestamp() const { return m_tvDisconnect; }

private:
    CCmTimeValue m_tvDisconnect;
};
