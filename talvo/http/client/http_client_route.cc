#include "talvo/http/client/http_client_route.h"

#include <algorithm>
#include <new>

#include "talvo/base/clock.h"
#include "talvo/base/config.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/http/message/http_url.h"
#include "talvo/transport/bad_proxies.h"

namespace talvo {

namespace {

constexpr DWORD SERVER_TIMEOUT_MS = 10'000;  // until the next server is tried

// Of two limits in milliseconds, 0 for none.
DWORD LowerLimit(DWORD a, DWORD b) { return a == 0 || b == 0 ? std::max(a, b) : std::min(a, b); }

BOOL IsHttpProxy(const CCmProxyServer& aServer) {
    return aServer.GetKind() == CM_PROXY_HTTP || aServer.GetKind() == CM_PROXY_HTTPS;
}

void Append(CCmProxyRoute& aRoute, const CCmProxyServer& aServer) {
    if (aRoute.Add(aServer) != CM_OK)  // a part of a route is never full
        throw std::bad_alloc();
}

// TRUE: it comes behind a server that is never bad.
BOOL IsBadOrDirect(const CCmProxyServer& aServer) {
    CCmProxyRoute route(aServer);
    Append(route, CCmProxyServer());
    return CBadProxies::Instance().Order(route)[0].IsDirect();
}

CCmRefPtrT<CCmSslContext> Context(const CCmRefPtrT<CCmSslContext>& aOwn) { return aOwn ? aOwn : CCmSslContext::GetDefault(); }

}  // namespace

void CHttpClientRoute::Begin(const CCmHttpUrl& aUrl, DWORD aConnectMs) {
    m_Ways.clear();
    m_stWay = 0;
    m_dwConnectMs = aConnectMs;
    if (m_Proxies.IsEmpty() || m_Proxies.IsDirect() || m_AddrConnectTo.GetType() == AF_UNIX)
        return;
    m_llConnectUntil = 0;
    m_bAbsolute = aUrl.GetScheme() == "http" && m_AddrConnectTo == CCmInetAddr::s_InetAddrAny;
    if (m_bAbsolute)
        Split_i();
    else
        m_Ways.push_back(m_Proxies);  // the connector tries its servers in turn
}

// An HTTP proxy is a way of its own; a tunnel may go through each of the servers between two of them.
void CHttpClientRoute::Split_i() {
    BOOL bTunnel = FALSE;
    for (const CCmProxyServer& server : CBadProxies::Instance().Order(m_Proxies)) {
        if (!bTunnel || IsHttpProxy(server))
            m_Ways.emplace_back();
        Append(m_Ways.back(), server);
        bTunnel = !IsHttpProxy(server);
    }
}

const CCmProxyServer* CHttpClientRoute::GetHttpProxy() const {
    const BOOL bAbsolute = m_bAbsolute && !m_Ways.empty() && IsHttpProxy(m_Ways[m_stWay].GetServers()[0]);
    return bAbsolute ? &m_Ways[m_stWay].GetServers()[0] : nullptr;
}

CmResult CHttpClientRoute::MakeDestination(const CCmHttpUrl& aUrl, CHttpDestination& aTo) const {
    const CCmProxyServer* pProxy = GetHttpProxy();
    const BOOL bTls = pProxy ? pProxy->GetKind() == CM_PROXY_HTTPS : aUrl.GetScheme() == "https";
    aTo.m_Proxy = pProxy ? *pProxy : CCmProxyServer();
    aTo.m_strHost = pProxy ? pProxy->GetHost() : aUrl.GetHostName();
    aTo.m_wPort = pProxy ? pProxy->GetPort() : aUrl.GetPort();
    aTo.m_AddrConnectTo = m_AddrConnectTo;
    if (bTls)
        aTo.m_pContext = Context(pProxy ? nullptr : m_pContext);
    if (!pProxy && !m_Ways.empty() && !m_Ways[m_stWay].IsDirect())
        aTo.m_Tunnel = m_Ways[m_stWay];
    return bTls && !aTo.m_pContext ? CM_ERROR_OUT_OF_MEMORY : CM_OK;
}

// A tunnel's connector limits the time for each of its servers.
DWORD CHttpClientRoute::BeginConnect() {
    if (m_Ways.empty())
        return m_dwConnectMs;
    const int64_t llNow = CCmClock::GetTimeOfDayUsec();
    if (m_llConnectUntil == 0)
        m_llConnectUntil = llNow + int64_t{m_dwConnectMs} * 1000;
    const int64_t llRest = (m_llConnectUntil - llNow) / 1000;
    const DWORD dwRest = m_dwConnectMs > 0 ? static_cast<DWORD>(std::max<int64_t>(llRest, 1)) : 0;
    const BOOL bLast = m_stWay + 1 == m_Ways.size();
    if (!GetHttpProxy() && (bLast || !m_Ways[m_stWay].IsDirect()))
        return dwRest;
    return LowerLimit(dwRest, get_uint32_param("HttpProxy", "ServerTimeoutMs", SERVER_TIMEOUT_MS));
}

void CHttpClientRoute::OnConnected() {
    m_llConnectUntil = 0;
    if (const CCmProxyServer* pProxy = GetHttpProxy())
        CBadProxies::Instance().Forgive(*pProxy);
}

// A tunnel's connector has tried its servers: if one of them is not remembered as bad, its answer is final.
BOOL CHttpClientRoute::IsUnreached_i(CmResult aReason) const {
    const auto servers = m_Ways[m_stWay].GetServers();
    if (!GetHttpProxy() && !std::ranges::all_of(servers, IsBadOrDirect))
        return FALSE;
    if (!GetHttpProxy() && !servers.back().IsDirect())
        return aReason == CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE;
    return aReason == CM_ERROR_NETWORK_CONNECT_TIMEOUT || aReason == CM_ERROR_NETWORK_CONNECT_ERROR ||
           aReason == CM_ERROR_NETWORK_DNS_FAILURE || (GetHttpProxy() && aReason == CM_ERROR_NETWORK_TLS_HANDSHAKE);
}

BOOL CHttpClientRoute::OnUnconnected(CmResult& aReason) {
    if (m_Ways.empty() || !IsUnreached_i(aReason))
        return FALSE;
    const CCmProxyServer* pProxy = GetHttpProxy();
    const BOOL bLate = m_dwConnectMs > 0 && CCmClock::GetTimeOfDayUsec() >= m_llConnectUntil;
    WithMemory([&] {
        CM_WARNING_TRACE_THIS("CHttpClientRoute::OnUnconnected, no connection. route=" << m_Ways[m_stWay].GetText()
                                                                                       << " reason=" << aReason);
    });
    if (pProxy && !bLate)
        CBadProxies::Instance().Note(*pProxy);
    if (!bLate && m_stWay + 1 < m_Ways.size()) {
        ++m_stWay;
        return TRUE;
    }
    if (pProxy)
        aReason = bLate ? CM_ERROR_NETWORK_CONNECT_ERROR : CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE;
    return FALSE;
}

}  // namespace talvo
