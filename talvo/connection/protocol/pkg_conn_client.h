// The active side of a package connection.
#pragma once

#include "talvo/connection/protocol/pkg_conn.h"

// A connector makes it for one attempt: the sink of the lower connector and of its transport. From then on the attempt has 60
// seconds; over datagrams the request is sent up to seven times in 4.2 seconds. Reasons of the connector's OnConnectIndication,
// besides those of the lower connector: CM_ERROR_NETWORK_CONNECT_ERROR (20006) after 60 s;
// CM_ERROR_NETWORK_BAD_CONNECT_RESPONSE (20013): the peer is of another type; CM_ERROR_NETWORK_SOCKET_ERROR (20001): the
// transport was lost meanwhile; or the peer's reason.
class TALVO_API CPkgConnClient : public CPkgConn {
public:
    CPkgConnClient();
    ~CPkgConnClient() override;

    // Abandons the attempt; the owner gets no more calls.
    void CancelConnect();

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override;
    void OnDisconnect(CmResult aReason, ICmTransport* aTrpt) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

protected:
    void OnRecvConnResp() override;
    CmBool HasKeepAliveTimer_i() const override { return CM_TRUE; }
    void CancelTimers_i() override;

private:
    void OnRetransmitTimer_i();
    void OnHandshakeTimeout_i();
    void OnConnected_i();

    CCmTimerWrapperID m_RetransmitTimer;
    CmResult m_LimitResult;       // of arming the time-out of the handshake
    CmDword m_dwRetransmits = 0;  // firings of the retransmit timer
    CmBool m_bCancelled = CM_FALSE;
    CmBool m_bRespReceived = CM_FALSE;
};
