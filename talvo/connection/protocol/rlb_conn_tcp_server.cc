#include "talvo/connection/protocol/rlb_conn_tcp_server.h"

#include "talvo/base/live_counter.h"
#include "talvo/base/random_source.h"
#include "talvo/base/trace.h"

namespace {

CCmLiveCounter s_Live("CRlbConnTCPServer");

const CCmTimeValue OPENING_LIMIT(60);

}  // namespace

CRlbConnTCPServer::CRlbConnTCPServer() : CRlbConn(INSTANCE_SERVER) { ++s_Live; }

CRlbConnTCPServer::~CRlbConnTCPServer() { --s_Live; }

void CRlbConnTCPServer::CancelConnect() {
    m_pOwner = nullptr;
    End_i(CM_OK);
}

void CRlbConnTCPServer::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CRlbConnTCPServer::OnConnectIndication aReason =" << aReason);
    const BOOL bArmed = ArmTimer_i(OPENING_LIMIT);
    TakeTransport_i(aTrpt);
    SetCurrStatus(CS_STATUS_HANDSHAKE);
    if (!bArmed || !aTrpt || aTrpt->OpenWithSink(this) != CM_OK)
        Final_i(CM_ERROR_NETWORK_SOCKET_ERROR);
}

talvo::CIpBytes CRlbConnTCPServer::GetPeer_i() {
    CCmInetAddr addr;
    GetTransportOption_i(CM_OPT_TRANSPORT_PEER_ADDR, &addr);
    return addr.GetIpBytes();
}

void CRlbConnTCPServer::OnRecvConnReq() {
    const CCsPduConnToken pdu = TakeRequestOrResponse_i();
    CM_INFO_TRACE_THIS("CRlbConnTCPServer::OnRecvConnReq(), wChannel =" << pdu.GetConTag() << " m_wStatus=" << m_wStatus);
    if (m_wStatus != CS_STATUS_HANDSHAKE) {
        ViolatedBy_i("a second connect request");
    } else if (pdu.GetConnType() != m_byConnType) {
        CM_WARNING_TRACE_THIS("CRlbConnTCPServer::OnRecvConnReq(), Wrong Connection type=" << int{pdu.GetConnType()});
        SendConnResp();
        RefuseClient_i(CM_ERROR_NOT_AVAILABLE);
    } else if (m_Reader.GetReceived() > 0) {
        ViolatedBy_i("data before the connect response");
    } else if (pdu.GetConTag() != 0) {
        HandOver_i(pdu);
    } else if (pdu.GetACK() != 0 || pdu.m_dwAttempt != 0 || !(pdu.m_Token == CCsConnToken{})) {
        RefuseClient_i(CM_ERROR_NETWORK_CONNECT_REFUSED);
    } else {
        Accept_i();
    }
}

// The sink may have ended it inside the indication.
void CRlbConnTCPServer::Accept_i() {
    if (!m_pChannels || (IsToken_i() && !CCmRandomSource::Fill(m_Token.m_Bytes, sizeof m_Token.m_Bytes))) {
        RefuseClient_i(CM_ERROR_NETWORK_CONNECT_REFUSED);
        return;
    }
    SetChannel(m_pChannels->Open(*this, m_Token, GetPeer_i()));
    if (GetChannel() == 0) {
        CM_WARNING_TRACE_THIS("CRlbConnTCPServer::OnRecvConnReq(), refused: there is no free channel.");
        RefuseClient_i(CM_ERROR_NETWORK_CONNECT_REFUSED);
        return;
    }
    Indicate_i(CM_OK);
    if (m_wStatus != CS_STATUS_HANDSHAKE)
        return;
    CmResult rv = SendConnResp();
    SetCurrStatus(CS_STATUS_CONNECTED);
    if (rv != CM_ERROR_OUT_OF_MEMORY)
        rv = StartConnected_i();
    if (rv == CM_OK)
        StartData_i();
    else
        Final_i(rv);
}

// The transport's further bytes go to the other connection. This one has no transport any more and ends. A reference to the
// other one would delay the end that its user's last release makes.
void CRlbConnTCPServer::HandOver_i(const CCsPduConnToken& aRequest) {
    talvo::CReopenRequest request{aRequest, IsToken_i(), TRUE, GetPeer_i()};
    GetTransportOption_i(CM_OPT_TRANSPORT_SOCK_ALIVE, &request.m_bAlive);
    talvo::CReliableChannels::CVerdict verdict;
    verdict.m_Reason = CM_ERROR_NETWORK_CONNECT_REFUSED;
    if (m_pChannels)
        verdict = m_pChannels->Judge(request);
    if (!verdict.m_pConn && verdict.m_bSilent) {
        Final_i(CM_ERROR_NETWORK_CONNECT_REFUSED);
        return;
    }
    if (!verdict.m_pConn) {
        RefuseClient_i(verdict.m_Reason);
        return;
    }
    const CCmRefPtrT<ICmTransport> pTransport = m_pTransport;
    SetTPTransport(nullptr);
    m_Direct.SetTransport(nullptr, FALSE);
    Final_i(CM_ERROR_NETWORK_SOCKET_CLOSE);  // without a notification
    verdict.m_pConn->Reopen_i(*pTransport, aRequest);
}

BOOL CRlbConnTCPServer::MayReopen(DWORD aPeerReceived) const {
    const BOOL bOpen = m_wStatus == CS_STATUS_CONNECTED || m_wStatus == CS_STATUS_RECONNECTING;
    return bOpen && m_Buffered->GetSendBuf().IsResumePoint(aPeerReceived);
}

// Nothing is taken from the old transport after the counter has been read for the response.
void CRlbConnTCPServer::Reopen_i(ICmTransport& aTransport, const CCsPduConnToken& aRequest) {
    if (m_wStatus == CS_STATUS_CONNECTED)
        Detach_i(CM_ERROR_NETWORK_SOCKET_CLOSE);
    m_dwAttempt = aRequest.m_dwAttempt;
    TakeTransport_i(&aTransport);
    aTransport.OpenWithSink(this);
    m_pChannels->OnBack(m_wChannel, GetPeer_i());
    if (const CmResult rv = SendConnResp(); rv == CM_ERROR_OUT_OF_MEMORY) {
        Final_i(rv);
        return;
    }
    Continue_i(aRequest.GetACK());
    TellSuspended_i(CM_ERROR_NETWORK_SOCKET_CLOSE);
    if (m_wStatus == CS_STATUS_CONNECTED)
        StartResumed_i();
}

void CRlbConnTCPServer::RefuseClient_i(CmResult aReason) {
    RefusePeer_i(aReason);
    Final_i(aReason);
}

CmResult CRlbConnTCPServer::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    const CmResult rv = CRlbConn::SendData(aData, aPara);
    if (rv == CM_OK && m_wStatus == CS_STATUS_RECONNECTING)
        m_pChannels->OnBytes(m_wChannel, GetKept_i());
    return rv;
}

// Data that a sink sent inside its indication must be delivered, and the peer takes no data before the response.
CmResult CRlbConnTCPServer::Disconnect(CmResult aReason) {
    m_Est.EnsureSingleThread();
    if (aReason == CM_OK && m_wStatus == CS_STATUS_HANDSHAKE && HasUnsentData_i() && SendConnResp() != CM_ERROR_OUT_OF_MEMORY)
        SetCurrStatus(CS_STATUS_CONNECTED);
    return CRlbConn::Disconnect(aReason);
}

void CRlbConnTCPServer::Suspended_i(CmResult aReason, DWORD) {
    if (m_pChannels->IsClosed()) {
        Final_i(CM_ERROR_NETWORK_PEER_NOT_BACK);
        return;
    }
    m_pChannels->OnLost(m_wChannel, GetKept_i());
    if (m_wStatus == CS_STATUS_RECONNECTING)
        TellSuspended_i(aReason);
}

void CRlbConnTCPServer::Ending_i(BOOL aRemember, CmResult aReason) {
    const auto pChannels = m_pChannels;
    const WORD wChannel = m_wChannel;
    if (!pChannels || wChannel == 0)
        return;
    const BOOL bKnown = m_wStatus != CS_STATUS_HANDSHAKE;  // to the client
    m_wChannel = 0;
    if (aRemember && bKnown)
        pChannels->Remember(wChannel, aReason, m_dwReconnectTime);
    else
        pChannels->Forget(wChannel, m_dwReconnectTime);
}
