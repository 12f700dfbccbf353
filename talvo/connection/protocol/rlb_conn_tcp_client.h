// The active side of a reliable connection.
#pragma once

#include <memory>

#include "talvo/base/inet_addr.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/connection/protocol/reconnect_backoff.h"
#include "talvo/connection/protocol/rlb_conn.h"
#include "talvo/transport/transport_interface.h"

namespace talvo {
class COptionValues;
}

// Where and how a client connects again.
struct CRlbTarget {
    CmDword m_dwBaseType = CM_TRANSPORT_TYPE_TCP;            // of the new transports
    CCmInetAddr m_AddrPeer;                                  // as the application gave it: a name is resolved anew
    CCmInetAddr m_AddrLocal;                                 // see m_bLocal
    CmBool m_bLocal = CM_FALSE;                              // m_AddrLocal is given
    std::shared_ptr<const talvo::COptionValues> m_pOptions;  // those of the application's connector; null: none
};

// A connector makes it for one attempt, the opening, which has 60 seconds and is not repeated. Once connected, it connects
// again by itself after each loss of its transport, with connectors of its own: the application's connector may be used again
// or released. Reasons of the opening's failure as of CPkgConnClient, and the peer's refusal, CM_ERROR_NETWORK_CONNECT_REFUSED.
//
//   state           event                          next
//   RECONNECTING    lost: back-off timer           WAITING
//     WAITING       timer: connect                 CONNECTING
//     CONNECTING    connected: send the request    ASKING
//     CONNECTING, ASKING   failure, loss, 10 s     WAITING, with a longer back-off
//     ASKING        good response                  CONNECTED
class TALVO_API CRlbConnTCPClient : public CRlbConn {
public:
    CRlbConnTCPClient();
    ~CRlbConnTCPClient() override;

    // Before the attempt.
    void SetTarget(const CRlbTarget& aTarget) { m_Target = aTarget; }

    // Abandons the opening; the owner gets no more calls.
    void CancelConnect();

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override;

protected:
    void OnRecvConnResp() override;
    void LostWhileOpening_i(CmResult aReason) override;
    void Suspended_i(CmResult aReason, CmDword aConnectedMsec) override;
    void OnRetryTimer_i() override;
    void Ending_i(CmBool aRemember, CmResult aReason) override;
    CmResult GetLateReason_i() const override { return CM_ERROR_NETWORK_RECONNECT_FAILED; }

private:
    enum EAttempt { NONE, WAITING, CONNECTING, ASKING };

    void Ask_i(ICmTransport& aTransport);
    void WaitForRetry_i();
    void Connect_i();
    void AttemptFailed_i();
    void DropConnector_i();
    void OnFirstResponse_i(const CCsPduConnToken& aPdu);
    void OnReopenResponse_i(const CCsPduConnToken& aPdu);
    void RefuseResponse_i(const char* aText);

    CRlbTarget m_Target;
    CCmReconnectBackoff m_Backoff;
    EAttempt m_Attempt = NONE;
    CCmRefPtrT<ICmConnector> m_pConnector;  // of the attempt
    CmResult m_LimitResult;                 // of arming the limit of the opening
    CmBool m_bCancelled = CM_FALSE;
};
