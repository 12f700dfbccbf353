#include "talvo/http/client/channel_http_client.h"

#include <new>
#include <utility>

#include "talvo/base/ensure_single_thread.h"
#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/http/channel/channel_options.h"
#include "talvo/http/client/http_client_pool.h"
#include "talvo/http/client/http_redirect.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_memory.h"
#include "talvo/http/message/http_text.h"
#include "talvo/http/message/http_url.h"

using talvo::has_control;
using talvo::ResultWithMemory;
using talvo::WithMemory;

namespace {

CCmLiveCounter s_Live("CCmChannelHttpClient");

CmResult Copy(const CCmInetAddr& aFrom, CCmInetAddr& aTo) {
    return WithMemory([&] { aTo = aFrom; }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

}  // namespace

CCmChannelHttpClient::CCmChannelHttpClient(const CCmHttpUrl& aUrl, DWORD, const CCmProxyRoute& aProxies)
    : m_dwThread(cm_thread_self_id()), m_Exchange(*this), m_dwMaxRedirects(talvo::MAX_HTTP_REDIRECTS) {
    m_Route.SetProxies(aProxies);
    WithMemory([&] { m_pUrl = new CCmHttpUrl(aUrl); });
    ++s_Live;
}

CCmChannelHttpClient::~CCmChannelHttpClient() {
    Close_i(CM_ERROR_NETWORK_SOCKET_CLOSE);
    --s_Live;
}

// A release without Disconnect ends the upcalls, although the object lives on until its timer.
void CCmChannelHttpClient::OnReferenceDestory() {
    Close_i(CM_ERROR_NETWORK_SOCKET_CLOSE);
    CCmReferenceControlTimerDeleteT::OnReferenceDestory();
}

CmResult CCmChannelHttpClient::SetRequestMethod(const CCmHttpAtom& aMethod) {
    if (m_Status != SETTING_UP)
        return CM_ERROR_ALREADY_INITIALIZED;
    return ResultWithMemory([&] { return m_Request.SetMethod(aMethod); });
}

CmResult CCmChannelHttpClient::SetRequestHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, BOOL aMerge) {
    if (m_Status != SETTING_UP)
        return CM_ERROR_ALREADY_INITIALIZED;
    return ResultWithMemory([&] { return m_Request.SetHeader(aAtom, aValue, aMerge); });
}

BOOL CCmChannelHttpClient::GetRequestHeader(const CCmHttpAtom& aAtom, CCmString& aValue) {
    return m_Request.GetHead().GetHeader(aAtom, aValue);
}

CmResult CCmChannelHttpClient::SetRequestBody(const CCmMessageBlock& aBody) {
    return m_Status == SETTING_UP ? m_Request.SetBody(aBody) : CM_ERROR_ALREADY_INITIALIZED;
}

CmResult CCmChannelHttpClient::SetCredentials(const CCmString& aUser, const CCmString& aPassword) {
    if (m_Status != SETTING_UP)
        return CM_ERROR_ALREADY_INITIALIZED;
    return ResultWithMemory([&] { return m_Authenticator.SetCredentials(aUser, aPassword); });
}

// The user does not get interim answers.
const CCmHttpResponseHead& CCmChannelHttpClient::GetResponseHead() {
    static const CCmHttpResponseHead s_None;
    return m_bAnswered ? m_Exchange.GetHead() : s_None;
}

BOOL CCmChannelHttpClient::GetResponseHeader(const CCmHttpAtom& aAtom, CCmString& aValue) {
    return GetResponseHead().GetHeader(aAtom, aValue);
}

CmResult CCmChannelHttpClient::GetFailure(CCmString& aText) {
    WithMemory([&] { aText = m_strFailure; });
    return m_Cause;
}

CmResult CCmChannelHttpClient::GetUrl(CCmHttpUrl*& aUrl) {
    aUrl = CCmRefPtrT<CCmHttpUrl>(m_pUrl).Detach();
    return aUrl ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmChannelHttpClient::AsyncOpen(ICmChannelSink* aSink) {
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    if (m_Status != SETTING_UP)
        return CM_ERROR_ALREADY_INITIALIZED;
    if (m_dwThread != cm_thread_self_id())
        return CM_ERROR_NOT_AVAILABLE;
    talvo::CHttpClientPool* pPool = nullptr;
    if (talvo::CHttpClientPool::OfThisThread(pPool) == CM_OK && pPool->IsDraining())
        return CM_ERROR_NOT_AVAILABLE;
    CmResult rv = m_pUrl ? CheckUrl_i() : CM_ERROR_OUT_OF_MEMORY;
    if (rv == CM_OK)
        rv = m_Request.Prepare();
    if (rv == CM_ERROR_NOT_IMPLEMENTED)
        CM_ERROR_TRACE_THIS("CCmChannelHttpClient::AsyncOpen, not implemented. method="
                            << m_Request.GetMethod().operator const char*() << " url=" << m_pUrl->GetAsciiSpec());
    if (rv != CM_OK)
        return rv;
    m_pSink = aSink;
    m_Status = OPEN;
    rv = ResultWithMemory([this] { return FindProxies_i(); });
    if (rv != CM_OK) {
        StopFinding();
        m_Exchange.Close(rv);
        m_pSink = nullptr;
        m_Status = SETTING_UP;
    }
    return rv;
}

CmResult CCmChannelHttpClient::CheckUrl_i() const {
    if (m_pUrl->GetScheme() != "http" && m_pUrl->GetScheme() != "https")
        return CM_ERROR_NOT_IMPLEMENTED;
    const CCmString& strHost = m_pUrl->GetHostName();
    const BOOL bHost = !strHost.empty() && strHost.find_first_of(" @?#") == CCmString::npos && !has_control(strHost);
    return bHost && !has_control(m_pUrl->GetPath()) ? CM_OK : CM_ERROR_INVALID_ARG;
}

// The user may bring a streamed body before the proxies are known.
CmResult CCmChannelHttpClient::FindProxies_i() {
    const CmResult rv = FindProxies(*m_pUrl);
    if (rv == CM_ERROR_WOULD_BLOCK)
        return m_Exchange.Prepare(m_Request);
    return rv == CM_OK ? BeginRoute_i() : rv;
}

CmResult CCmChannelHttpClient::BeginRoute_i() {
    m_Route.Begin(*m_pUrl, m_dwConnectTimeout);
    if (m_dwRedirects == 0)
        m_FirstProxy = m_Route.GetHttpProxy() ? *m_Route.GetHttpProxy() : CCmProxyServer();
    return StartExchange_i();
}

CmResult CCmChannelHttpClient::StartExchange_i() {
    talvo::CHttpDestination to;
    CmResult rv = m_Route.MakeDestination(*m_pUrl, to);
    if (rv == CM_OK)
        rv = MeetProxy_i(to.m_Proxy);
    if (rv != CM_OK)
        return rv;
    to.m_Identity = to.m_Proxy.IsDirect() ? m_Authenticator.GetIdentity() : m_pProxyAuthentication->GetIdentity();
    return m_Exchange.Start(m_Request, to, m_Route.BeginConnect());
}

// A reused connection has its identity, because refused ones are not used again.
CCmString CCmChannelHttpClient::OnExchangeConnection(talvo::EHttpConnection aConnection) {
    m_Route.OnConnected();
    const BOOL bProxy = m_Route.GetHttpProxy() != nullptr, bReused = aConnection == talvo::EHttpConnection::REUSED;
    if (bProxy && aConnection != talvo::EHttpConnection::SAME)
        m_pProxyAuthentication->OnConnection(bReused && m_pProxyAuthentication->GetIdentity());
    if (!bProxy && aConnection != talvo::EHttpConnection::SAME)
        m_Authenticator.OnConnection(bReused && m_Authenticator.GetIdentity());
    const char* pMethod = m_Request.GetMethod();
    talvo::CHttpHeadParts parts;
    parts.m_strTarget = talvo::MakeHttpTarget(*m_pUrl);
    parts.m_bKeepAlive = !!m_Exchange.GetSettings().m_dwKeepAlive;
    CmResult rv = CM_OK;
    if (!bProxy || !m_Authenticator.GetIdentity())
        rv = m_Authenticator.Authorize(pMethod, parts.m_strTarget, parts.m_Authorization);
    if (rv == CM_OK && bProxy)
        rv = AddProxyParts_i(parts);
    CCmString strHead = rv == CM_OK ? m_Request.MakeHead(*m_pUrl, parts) : CCmString();
    if (strHead.empty())
        throw std::bad_alloc();
    return strHead;
}

CmResult CCmChannelHttpClient::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    if (aPara)
        aPara->m_dwHaveSent = 0;
    if (!m_pSink)
        return CM_ERROR_NOT_INITIALIZED;
    return ResultWithMemory([&] { return m_Exchange.SendBody(aData, aPara); });
}

CmResult CCmChannelHttpClient::EndRequestBody() {
    return m_pSink ? ResultWithMemory([this] { return m_Exchange.EndBody(); }) : CM_ERROR_NOT_AVAILABLE;
}

CmResult CCmChannelHttpClient::Disconnect(CmResult aReason) {
    Close_i(aReason);
    return CM_OK;
}

void CCmChannelHttpClient::Close_i(CmResult aReason) {
    m_pSink = nullptr;
    if (m_Status != SETTING_UP)
        m_Status = OVER;
    m_Timer.Cancel();
    m_Held.Clear();
    m_strWhole.clear();
    m_pProxyAuthentication.reset();
    StopFinding();
    m_Exchange.Close(aReason);
}

DWORD* CCmChannelHttpClient::FindOption_i(DWORD aCommand) {
    talvo::CHttpClientExchange::CSettings& settings = m_Exchange.GetSettings();
    switch (aCommand) {
    case CM_OPT_CHANNEL_WHOLE_BODY:
        return &m_dwWholeBody;
    case CM_OPT_CHANNEL_MAX_REDIRECTS:
        return &m_dwMaxRedirects;
    case CM_OPT_CHANNEL_CONNECT_TIMEOUT:
        return &m_dwConnectTimeout;
    case CM_OPT_CHANNEL_SILENCE_TIMEOUT:
        return &settings.m_dwSilenceTimeout;
    case CM_OPT_CHANNEL_CONTINUE_TIMEOUT:
        return &settings.m_dwContinueTimeout;
    case CM_OPT_CHANNEL_KEEP_ALIVE:
        return &settings.m_dwKeepAlive;
    }
    return nullptr;
}

CmResult CCmChannelHttpClient::SetOption(DWORD aCommand, void* aArg) {
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    if (aCommand == CM_OPT_TRANSPORT_PAUSE_READING)
        return ResultWithMemory([&] { return Pause_i(!!*static_cast<BOOL*>(aArg)); });
    if (aCommand < CM_OPT_CHANNEL_WHOLE_BODY || aCommand > CM_OPT_CHANNEL_SSL_CONTEXT)
        return m_Exchange.SetOption(aCommand, aArg);
    if (m_Status != SETTING_UP)
        return CM_ERROR_ALREADY_INITIALIZED;
    switch (aCommand) {
    case CM_OPT_CHANNEL_ALLOW_DOWNGRADE:
        m_bMayDowngrade = !!*static_cast<BOOL*>(aArg);
        return CM_OK;
    case CM_OPT_CHANNEL_CONNECT_TO:
        return Copy(*static_cast<CCmInetAddr*>(aArg), m_Route.GetConnectTo());
    case CM_OPT_CHANNEL_SSL_CONTEXT:
        m_Route.GetContext() = *static_cast<CCmRefPtrT<CCmSslContext>*>(aArg);
        return CM_OK;
    case CM_OPT_CHANNEL_MAX_REDIRECTS:
        if (*static_cast<DWORD*>(aArg) > talvo::MAX_HTTP_REDIRECTS)
            return CM_ERROR_INVALID_ARG;
        break;
    }
    *FindOption_i(aCommand) = *static_cast<DWORD*>(aArg);
    return CM_OK;
}

CmResult CCmChannelHttpClient::GetOption(DWORD aCommand, void* aArg) {
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    const DWORD* pOption = FindOption_i(aCommand);
    if (aCommand == CM_OPT_TRANSPORT_PAUSE_READING)
        *static_cast<BOOL*>(aArg) = m_bPaused;
    else if (aCommand == CM_OPT_CHANNEL_LAST_FAILURE)
        *static_cast<CCmFailure*>(aArg) = m_LastFailure;
    else if (aCommand == CM_OPT_CHANNEL_CONNECT_TO)
        return Copy(m_Route.GetConnectTo(), *static_cast<CCmInetAddr*>(aArg));
    else if (aCommand == CM_OPT_CHANNEL_SSL_CONTEXT)
        *static_cast<CCmRefPtrT<CCmSslContext>*>(aArg) = m_Route.GetContext();
    else if (pOption)
        *static_cast<DWORD*>(aArg) = *pOption;
    else
        return m_Exchange.GetOption(aCommand, aArg);
    return CM_OK;
}

// Data on hold is delivered from the loop, not inside the call.
CmResult CCmChannelHttpClient::Pause_i(BOOL aPause) {
    if (!aPause && m_pSink && (m_Held.GetLength() > 0 || m_bEnded)) {
        const CmResult rv = m_Timer.Schedule(this, CCmTimeValue::s_tvZero, 1);
        if (rv != CM_OK && rv != CM_ERROR_FOUND)
            return rv;
    }
    m_bPaused = aPause;
    m_Exchange.Pause(m_bPaused);
    return CM_OK;
}

void CCmChannelHttpClient::OnTimer(CCmTimerWrapperID*) { Deliver_i(); }
