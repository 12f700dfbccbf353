// The passive side of a reliable connection.
#pragma once

#include <memory>

#include "talvo/connection/protocol/reliable_channels.h"
#include "talvo/connection/protocol/rlb_conn.h"

// An acceptor makes it for each of its transports. The connect request must come within 60 seconds. The request of a new client
// makes it a connection: the acceptor's sink is notified before the response is sent, as with CPkgConnServer. A request for an
// existing channel makes it hand its transport over to that connection, and it is deleted without a call.
//
// A connection whose transport is lost waits for its client. If the application ends it, the acceptor keeps the reason for the
// client for CS_OPT_RECONNECT_TIME.
class TALVO_API CRlbConnTCPServer : public CRlbConn {
public:
    CRlbConnTCPServer();
    ~CRlbConnTCPServer() override;

    // Before the transport.
    void SetChannels(std::shared_ptr<talvo::CReliableChannels> aChannels) { m_pChannels = std::move(aChannels); }

    // Abandons the opening. Nothing is sent: a client that asks for its channel tries again.
    void CancelConnect();

    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;
    CmResult Disconnect(CmResult aReason) override;
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aId) override;

    // For CReliableChannels. A client that has received so much may continue.
    CmBool MayReopen(CmDword aPeerReceived) const;
    // The client does not come back.
    void EndLost() { Final_i(CM_ERROR_NETWORK_PEER_NOT_BACK); }

protected:
    void OnRecvConnReq() override;
    void LostWhileOpening_i(CmResult aReason) override { Final_i(aReason); }
    void Suspended_i(CmResult aReason, CmDword aConnectedMsec) override;
    void Ending_i(CmBool aRemember, CmResult aReason) override;
    CmResult GetLateReason_i() const override { return CM_ERROR_NETWORK_PEER_NOT_BACK; }

private:
    void Accept_i();
    void HandOver_i(const CCsPduConnToken& aRequest);
    void Reopen_i(ICmTransport& aTransport, const CCsPduConnToken& aRequest);
    void RefuseClient_i(CmResult aReason);
    talvo::CIpBytes GetPeer_i();

    std::shared_ptr<talvo::CReliableChannels> m_pChannels;
};
