// The passive side of a package connection.
#pragma once

#include "talvo/connection/protocol/pkg_conn.h"

// Made by an acceptor for each transport that it is handed. It has 60 seconds for the connect request; then, or when the
// transport is lost before, it goes without anybody being told. The acceptor's sink hears of it before the response is sent,
// and what the sink sends inside follows the response, also when it disconnects with CM_OK there.
class TALVO_API CPkgConnServer : public CPkgConn {
public:
    CPkgConnServer();
    ~CPkgConnServer() override;

    // Gives the opening up; the owner is told nothing any more.
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
