#include "talvo/proxy/connector_proxy.h"

#include <cerrno>
#include <utility>

#include "talvo/base/config.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/bad_proxies.h"
#include "talvo/transport/race_options.h"
#include "talvo/transport/tcp/connector_tcp.h"
#include "talvo/transport/tls/connector_ssl.h"

namespace talvo {

namespace {

// The factories of the lower rooms make this connector.
[[maybe_unused]] const BOOL s_bOffered = (SetOwnConnectorMaker(CConnectorProxy::Make), TRUE);

BOOL IsRouteOption(DWORD aCommand) { return aCommand == CM_OPT_CONNECT_ROUTE || aCommand == CM_OPT_CONNECT_PROXY; }

}  // namespace

std::unique_ptr<ACmConnectorInternal> CConnectorProxy::Make(const CCmConnectorSettings& aSettings) {
    std::unique_ptr<CConnectorProxy> pConnector;
    WithMemory([&] { pConnector.reset(new CConnectorProxy(aSettings)); });
    if (pConnector && !pConnector->m_pDirect)
        pConnector.reset();
    return pConnector;
}

CConnectorProxy::CConnectorProxy(const CCmConnectorSettings& aSettings)
    : m_bProxied(aSettings.m_dwType == CM_TRANSPORT_TYPE_PROXY),
      m_dwType(m_bProxied ? +CM_TRANSPORT_TYPE_TCP : aSettings.m_dwType),
      m_pReactor(aSettings.m_pReactor),
      m_Upper(*aSettings.m_pUpper),
      m_Options(aSettings.m_dwType, TRUE),
      m_pDirect(m_dwType == CM_TRANSPORT_TYPE_TCP ? CCmConnectorTcp::Make({m_dwType, aSettings.m_pReactor, this})
                                                  : CCmConnectorSsl::Make({m_dwType, aSettings.m_pReactor, this})) {}

CmResult CConnectorProxy::SetOption(DWORD aCommand, void* aArg) {
    if (aCommand == OPT_CONNECT_NEVER_DIRECT && m_bProxied) {
        m_bNeverDirect = *static_cast<BOOL*>(aArg);
        return CM_OK;
    }
    return IsRouteOption(aCommand) ? m_Options.Set(aCommand, aArg) : m_pDirect->SetOption(aCommand, aArg);
}

CmResult CConnectorProxy::GetOption(DWORD aCommand, void* aArg) {
    return IsRouteOption(aCommand) ? m_Options.Get(aCommand, aArg) : m_pDirect->GetOption(aCommand, aArg);
}

int CConnectorProxy::Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal) {
    Close();
    m_Failure = {};
    const auto route = m_Options.ValueOf<CCmProxyRoute>(CM_OPT_CONNECT_ROUTE);
    const BOOL bRouted = IsRouted_i(aAddr, route);
    m_bRouted = bRouted || m_bNeverDirect;
    m_pDirect->SetTimed(m_bTimed);
    if (!m_bRouted)
        return ConnectDirectly_i(aAddr, aAddrLocal);
    BOOL bBegun = FALSE;
    m_bStarting = TRUE;
    const BOOL bMemory = WithMemory([&] { bBegun = Begin_i(aAddr, aAddrLocal, bRouted ? route : CCmProxyRoute::Direct()); });
    m_bStarting = FALSE;
    if (bMemory)
        return bBegun ? 1 : -1;
    Close();
    m_Failure = CCmFailure(ENOMEM, "connect to", aAddr);
    return -1;
}

BOOL CConnectorProxy::IsRouted_i(const CCmInetAddr& aAddr, const CCmProxyRoute& aRoute) const {
    if (aAddr.IsResolved() && aAddr.GetType() == AF_UNIX)
        return FALSE;
    if (!aRoute.IsEmpty())
        return !aRoute.IsDirect();
    const DWORD dwMode = m_Options.ValueOf<DWORD>(CM_OPT_CONNECT_PROXY);
    const BOOL bDiscovered = dwMode == CM_CONNECT_PROXY_DEFAULT ? m_bProxied : dwMode == CM_CONNECT_PROXY_DISCOVERED;
    return bDiscovered && ICmProxySource::Get();
}

int CConnectorProxy::ConnectDirectly_i(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal) {
    const int nRv = m_pDirect->Connect(aAddr, aAddrLocal);
    m_Failure = m_pDirect->GetFailure();
    return nRv;
}

BOOL CConnectorProxy::Begin_i(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal, const CCmProxyRoute& aRoute) {
    if (!CProxyPeer::Make(aAddr, m_Peer)) {
        m_Failure = CCmFailure(CM_FAILURE_LOCAL, "a proxy cannot get this name", "connect to", aAddr);
        CM_WARNING_TRACE_THIS("CConnectorProxy::Connect, refused. why=" << m_Failure.GetText());
        return FALSE;
    }
    m_AddrPeer = aAddr;
    m_AddrLocal = aAddrLocal ? *aAddrLocal : CCmInetAddr::s_InetAddrAny;
    m_bAskedAgain = FALSE;
    if (aRoute.IsEmpty())
        AskSource_i();
    else
        Use_i(aRoute);
    return TRUE;
}

// Users configure tunnels for https. A proxy for http often forbids CONNECT.
void CConnectorProxy::AskSource_i() {
    CCmProxyRoute route;
    m_pSource = ICmProxySource::Get();
    const CmResult rv = m_pSource ? m_pSource->Ask("https://" + m_Peer.GetTarget() + "/", *this, route) : CM_ERROR_NOT_FOUND;
    if (rv == CM_ERROR_WOULD_BLOCK)
        return;
    m_pSource = nullptr;
    UseAnswer_i(rv, route);
}

void CConnectorProxy::OnProxyRoute(CmResult aReason, const CCmProxyRoute& aRoute) {
    m_pSource = nullptr;
    FromLoop_i([&] { UseAnswer_i(aReason, aRoute); });
}

// A source that has no route at the moment is as good as none, unless it forbids the direct way.
void CConnectorProxy::UseAnswer_i(CmResult aReason, const CCmProxyRoute& aRoute) {
    if (aReason == CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE) {
        m_Failure = CCmFailure(CM_FAILURE_LOCAL, "the user's proxies are not known", "connect to", m_AddrPeer);
        Finish_i(aReason);
        return;
    }
    Use_i(aReason == CM_OK && !aRoute.IsEmpty() ? aRoute : CCmProxyRoute::Direct());
}

void CConnectorProxy::OnProxySettingsChanged() {
    if (!m_pSource || std::exchange(m_bAskedAgain, TRUE))
        return;
    m_pSource->Cancel(*this);
    FromLoop_i([&] { AskSource_i(); });
}

template <class Callable>
void CConnectorProxy::FromLoop_i(Callable aStep) {
    if (WithMemory(aStep))
        return;
    m_Failure = CCmFailure(ENOMEM, "connect to", m_AddrPeer);
    Finish_i(CM_ERROR_OUT_OF_MEMORY);
}

void CConnectorProxy::Use_i(const CCmProxyRoute& aRoute) {
    m_Servers = CBadProxies::Instance().Order(aRoute);
    m_stNext = 0;
    m_Reason = CM_ERROR_NETWORK_DNS_FAILURE;  // unless a server is tried
    Next_i();
}

// Starts the next server that can be tried.
void CConnectorProxy::Next_i() {
    while (m_stNext < m_Servers.size()) {
        const CCmProxyServer server = m_Servers[m_stNext++];
        if (server.IsDirect() ? StartDirect_i() : StartTunnel_i(server))
            return;
    }
    Finish_i(m_Reason);
}

// Both: TRUE: in progress, or over.
BOOL CConnectorProxy::StartDirect_i() {
    if (m_bNeverDirect) {
        m_Failure = CCmFailure(CM_FAILURE_LOCAL, "another attempt connects directly", "connect to", m_AddrPeer);
        Finish_i(CM_ERROR_NETWORK_CONNECT_ERROR);
        return TRUE;
    }
    const BOOL bAny = m_AddrLocal == CCmInetAddr::s_InetAddrAny;
    if (m_pDirect->Connect(m_AddrPeer, bAny ? nullptr : &m_AddrLocal) == -1) {
        Note_i(CM_ERROR_NETWORK_CONNECT_TIMEOUT, m_pDirect->GetFailure());
        return FALSE;
    }
    const DWORD dwTime = get_uint32_param("HttpProxy", "ServerTimeoutMs", CProxyTunnel::SERVER_TIME);
    if (m_stNext < m_Servers.size() && dwTime > 0) {
        const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, CCmTimeValue::FromUsec(int64_t{dwTime} * 1000), 1);
        m_bTimer = rv == CM_OK || rv == CM_ERROR_FOUND;
    }
    return TRUE;
}

BOOL CConnectorProxy::StartTunnel_i(const CCmProxyServer& aServer) {
    if (!m_pTunnel)
        m_pTunnel.reset(new CProxyTunnel(m_dwType, m_pReactor, *this, *m_pDirect));
    CProxyTunnel::EResult result = CProxyTunnel::REFUSED;
    if (!m_pTunnel->Start({aServer, m_Peer, m_AddrPeer, m_AddrLocal, m_bTimed}, result))
        return TRUE;
    OnTunnelDone_i(result);
    return result == CProxyTunnel::REFUSED;
}

void CConnectorProxy::OnTunnelDone_i(CProxyTunnel::EResult aResult) {
    if (aResult == CProxyTunnel::UNFIT && m_Reason != CM_ERROR_NETWORK_DNS_FAILURE)
        return;  // the failure of a server that was tried says more
    Note_i(m_pTunnel->GetReason(), m_pTunnel->GetFailure());
    if (aResult == CProxyTunnel::REFUSED)
        Finish_i(m_Reason);
}

void CConnectorProxy::OnTunnelDone(CProxyTunnel::EResult aResult, CCmTransportTcp* aTransport) {
    if (aResult == CProxyTunnel::OPENED) {
        Finish_i(CM_OK, aTransport);
        return;
    }
    OnTunnelDone_i(aResult);
    if (aResult != CProxyTunnel::REFUSED)
        FromLoop_i([&] { Next_i(); });
}

int CConnectorProxy::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ACmConnectorInternal*) {
    if (std::exchange(m_bTimer, FALSE))
        m_pReactor->CancelTimer(this);
    m_Failure = m_pDirect->GetFailure();
    const BOOL bUnreached = aReason == CM_ERROR_NETWORK_CONNECT_ERROR || aReason == CM_ERROR_NETWORK_DNS_FAILURE;
    if (!m_bRouted || !bUnreached) {
        Finish_i(aReason, aTrpt);
        return 0;
    }
    Note_i(aReason, m_Failure);
    FromLoop_i([&] { Next_i(); });
    return 0;
}

// Reports, or ends a direct attempt so that the next server has its turn.
void CConnectorProxy::OnTimeout(const CCmTimeValue&, void*) {
    m_bTimer = FALSE;
    if (std::exchange(m_bReportDue, FALSE)) {
        m_Upper.OnConnectIndication(m_Reason, nullptr, this);  // last: the upper connector may delete this one
        return;
    }
    m_pDirect->Close();
    Note_i(CM_ERROR_NETWORK_CONNECT_ERROR,
           CCmFailure(CM_FAILURE_TIMEOUT, "the peer has not answered in time", "connect to", m_AddrPeer));
    FromLoop_i([&] { Next_i(); });
}

void CConnectorProxy::Note_i(CmResult aReason, const CCmFailure& aFailure) {
    m_Reason = aReason;
    m_Failure = aFailure;
}

// The last step of an attempt; from a timer if it is still inside Connect.
void CConnectorProxy::Finish_i(CmResult aReason, ICmTransport* aTrpt) {
    m_Reason = aReason;
    if (!m_bStarting) {
        m_Upper.OnConnectIndication(aReason, aTrpt, this);
        return;
    }
    const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, CCmTimeValue::s_tvZero, 1);
    m_bTimer = m_bReportDue = rv == CM_OK || rv == CM_ERROR_FOUND;
    if (!m_bReportDue)
        throw std::bad_alloc();
}

void CConnectorProxy::Close() {
    if (ICmProxySource* pSource = std::exchange(m_pSource, nullptr))
        pSource->Cancel(*this);
    if (std::exchange(m_bTimer, FALSE))
        m_pReactor->CancelTimer(this);
    m_bReportDue = FALSE;
    if (m_pTunnel)
        m_pTunnel->Stop();
    if (m_pDirect)
        m_pDirect->Close();
}

}  // namespace talvo
