// The passive side of a package connection.
#pragma once

#include "talvo/connection/protocol/pkg_conn.h"

// An acceptor makes it for each of its transports. The connect request must come within 60 seconds. After that, or after a loss
// of the transport, the connection is deleted without a call. The acceptor's sink is notified before the response is sent. Data
// that the sink sends inside follows the response, also if the sink disconnects with CM_OK there.
class TALVO_API CPkgConnServer : public CPkgConn {
public:
    CPkgConnServer();
    ~CPkgConnServer() override;

    // Abandons the opening; the owner gets no more calls.
    void CancelConnect();

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrpt) override;
    void OnTimer(CCmTimerWrapperID* aId) override;
    CmResult Disconnect(CmResult aReason) override;

protected:
    void OnRecvConnReq() override;

private:
    void Accept_i();
    void RefuseType_i();
    void OnHandshakeTimeout_i();
};
