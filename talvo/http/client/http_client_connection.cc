#include "talvo/http/client/http_client_connection.h"

#include <algorithm>
#include <new>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/live_counter.h"
#include "talvo/connection/connection_manager.h"
#include "talvo/event/thread_manager.h"
#include "talvo/http/client/http_client_pool.h"
#include "talvo/http/message/http_memory.h"
#include "talvo/http/message/http_version.h"
#include "talvo/transport/connect_options.h"
#include "talvo/transport/socket_settings.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CHttpClientConnection");

}  // namespace

CHttpClientConnection::CHttpClientConnection(CHttpClientPool& aPool, const CCmString& aKey, IHttpConnectionUser& aUser)
    : m_pPool(&aPool), m_pUser(&aUser), m_strKey(aKey) {
    ++s_Live;
}

CHttpClientConnection::~CHttpClientConnection() {
    Leave_i(CM_OK);
    --s_Live;
}

// The last reference is released: the connection has no user, although it lives on until its timer.
void CHttpClientConnection::OnReferenceDestory() {
    Leave_i(CM_OK);
    CCmReferenceControlTimerDeleteT::OnReferenceDestory();
}

CmResult CHttpClientConnection::Connect(const CHttpConnectionRequest& aRequest) {
    CCmConnectionManager* pManager = CCmConnectionManager::Instance();
    if (!pManager)
        return CM_ERROR_NULL_POINTER;
    const CHttpDestination& to = aRequest.m_To;
    const DWORD dwType = to.m_pContext ? CM_TRANSPORT_TYPE_TLS : CM_TRANSPORT_TYPE_TCP;
    CmResult rv = pManager->CreateConnectionClient(dwType, m_pConnector.ParaOut());
    if (rv == CM_OK && to.m_pContext)
        rv = SetTls_i(to);
    CCmInetAddr addr = to.m_AddrConnectTo;
    if (rv == CM_OK && !to.m_Tunnel.IsEmpty())
        rv = SetTunnel_i(to, addr);
    else if (addr == CCmInetAddr::s_InetAddrAny)
        addr = CCmInetAddr(to.m_strHost.c_str(), to.m_wPort);
    if (rv != CM_OK)
        return rv;
    CCmTimeValue tvTimeout = CCmTimeValue::FromUsec(int64_t{aRequest.m_dwTimeoutMs} * 1000);
    m_pConnector->AsycConnect(this, addr, aRequest.m_dwTimeoutMs > 0 ? &tvTimeout : nullptr);
    return CM_OK;
}

CmResult CHttpClientConnection::SetTls_i(const CHttpDestination& aTo) {
    m_pContext = aTo.m_pContext;
    CCmString strName = aTo.m_strHost, strAlpn = HTTP_ALPN;
    CmResult rv = SetConnectOption(m_pConnector.Get(), CM_OPT_CONNECT_SSL_CONTEXT, &m_pContext);
    if (rv == CM_OK)
        rv = SetConnectOption(m_pConnector.Get(), CM_OPT_CONNECT_SERVER_NAME, &strName);
    if (rv == CM_OK)
        rv = SetConnectOption(m_pConnector.Get(), CM_OPT_CONNECT_ALPN, &strAlpn);
    return rv;
}

// aAddr (out): the end of the tunnel. Its name is looked up by the proxy.
CmResult CHttpClientConnection::SetTunnel_i(const CHttpDestination& aTo, CCmInetAddr& aAddr) {
    CCmProxyRoute route = aTo.m_Tunnel;
    const CmResult rv = SetConnectOption(m_pConnector.Get(), CM_OPT_CONNECT_ROUTE, &route);
    if (rv != CM_OK || !(aAddr == CCmInetAddr::s_InetAddrAny))
        return rv;
    return aAddr.SetName(aTo.m_strHost.c_str(), aTo.m_wPort);
}

void CHttpClientConnection::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) {
    CCmFailure failure;
    if (ICmConnectOptions* pOptions = aReason != CM_OK ? cm_get_connect_options(aRequestId) : nullptr)
        pOptions->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
    m_pConnector.Reset();
    m_pTransport = aTrpt;
    Enter_i([&] { Indicate_i(aReason, failure); });
}

// Runs one call of the loop or the transport. If memory runs out inside, this connection ends.
template <class Call>
void CHttpClientConnection::Enter_i(const Call& aCall) {
    if (!WithMemory(aCall))
        Lost_i(CM_ERROR_OUT_OF_MEMORY);
}

void CHttpClientConnection::Indicate_i(CmResult aReason, const CCmFailure& aFailure) {
    BOOL bTell = TRUE;
    if (m_pTransport) {
        m_pTransport->SetOption(CM_OPT_TRANSPORT_TELL_END, &bTell);
        AskForLargeReads(*m_pTransport);
    }
    const CmResult rv = aReason == CM_OK ? m_pTransport->OpenWithSink(this) : aReason;
    if (rv == CM_OK)
        m_pUser->OnConnectionReady(*this, FALSE);
    else
        Leave_i(rv)->OnConnectionFailed(rv, aFailure);
}

void CHttpClientConnection::Lend(IHttpConnectionUser& aUser) {
    m_pUser = &aUser;
    SetDeadline(NEVER);
}

BOOL CHttpClientConnection::Park(int64_t aUntil) {
    m_pUser = nullptr;
    m_llParked = CCmClock::GetTimeOfDayUsec();
    return WithMemory([=, this] { SetDeadline(aUntil); });
}

int64_t CHttpClientConnection::GetRest() const { return CCmClock::GetTimeOfDayUsec() - m_llParked; }

// The transport answers for itself and its socket. Behind a proxy a check waits for the network thread, twice. So a connection
// that was just used is assumed to be fit there.
BOOL CHttpClientConnection::IsFit() {
    const BOOL bProxy = !CCmThreadManager::IsEqualCurrentThread(CCmThreadManager::TT_NETWORK);
    if (bProxy && GetRest() < TRUSTED_USEC)
        return TRUE;
    BOOL bAlive = FALSE;
    DWORD dwUnread = 0;
    return m_pTransport && m_pTransport->GetOption(CM_OPT_TRANSPORT_SOCK_ALIVE, &bAlive) == CM_OK && bAlive &&
           m_pTransport->GetOption(CM_OPT_TRANSPORT_FIO_NREAD, &dwUnread) == CM_OK && dwUnread == 0;
}

CmResult CHttpClientConnection::SendData(CCmMessageBlock& aData, CCmTransportParameter& aPara) {
    return m_pTransport ? m_pTransport->SendData(aData, &aPara) : CM_ERROR_NULL_POINTER;
}

void CHttpClientConnection::SetDeadline(int64_t aMoment) {
    m_llDeadline = aMoment;
    if (aMoment < m_llTimer)
        Arm_i(CCmClock::GetTimeOfDayUsec());
}

void CHttpClientConnection::Arm_i(int64_t aNow) {
    m_llTimer = NEVER;
    const CmResult rv = m_Timer.Schedule(this, CCmTimeValue::FromUsec(std::max<int64_t>(m_llDeadline - aNow, 0)), 1);
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    m_llTimer = m_llDeadline;
}

void CHttpClientConnection::OnTimer(CCmTimerWrapperID*) {
    Enter_i([this] { Late_i(); });
}

void CHttpClientConnection::Late_i() {
    m_llTimer = NEVER;
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    if (m_llDeadline == NEVER)
        return;
    if (llNow < m_llDeadline) {
        Arm_i(llNow);
        return;
    }
    m_llDeadline = NEVER;
    if (m_pUser)
        m_pUser->OnConnectionDeadline();
    else
        Leave_i(CM_OK);
}

void CHttpClientConnection::GiveBack() {
    if (m_pPool)
        m_pPool->TakeBack(*this);
    else
        Leave_i(CM_OK);
}

void CHttpClientConnection::Close(CmResult aReason) { Leave_i(aReason); }

void CHttpClientConnection::Cut(CmResult aReason) {
    if (m_pTransport || !m_pUser)
        Lost_i(aReason, CCmFailure());
    else
        Leave_i(aReason)->OnConnectionFailed(aReason, CCmFailure());
}

// An idle connection has no request in flight, so data on it is no answer.
void CHttpClientConnection::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    if (m_pUser && aData.GetChainedLength() > 0)
        Enter_i([&] { m_pUser->OnConnectionReceive(aData); });
    else
        Lost_i(CM_OK);
}

void CHttpClientConnection::OnSend(ICmTransport*, CCmTransportParameter*) {
    if (m_pUser)
        Enter_i([this] { m_pUser->OnConnectionSend(); });
}

void CHttpClientConnection::OnDisconnect(CmResult aReason, ICmTransport* aTrptId) {
    CCmFailure failure;
    aTrptId->GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure);
    Lost_i(aReason, failure);
}

void CHttpClientConnection::Lost_i(CmResult aReason, const CCmFailure& aFailure) {
    if (IHttpConnectionUser* pUser = Leave_i(CM_OK))
        pUser->OnConnectionLost(aReason, aFailure);
}

// Closes, releases everything, and notifies the pool of the room. Returns the connection's user.
IHttpConnectionUser* CHttpClientConnection::Leave_i(CmResult aReason) {
    IHttpConnectionUser* pUser = std::exchange(m_pUser, nullptr);
    m_Timer.Cancel();
    m_llDeadline = m_llTimer = NEVER;
    if (m_pConnector)
        m_pConnector->CancelConnect();
    m_pConnector.Reset();
    if (m_pTransport)
        m_pTransport->Disconnect(aReason);
    m_pTransport.Reset();
    if (CHttpClientPool* pPool = std::exchange(m_pPool, nullptr))
        pPool->Forget(*this);
    return pUser;
}

}  // namespace talvo
