#include <new>

#include "talvo/http/client/channel_http_client.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_memory.h"
#include "talvo/http/message/http_url.h"

// Requests in absolute form, which go to an HTTP proxy, and its challenges.

// Credentials never go from one proxy to another.
CmResult CCmChannelHttpClient::MeetProxy_i(const CCmProxyServer& aProxy) {
    if (!(aProxy == m_FirstProxy))
        m_Request.LeaveProxy();
    if (aProxy.IsDirect() || (m_pProxyAuthentication && aProxy == m_Proxy))
        return CM_OK;
    CCmCredentials credentials;
    const CmResult rv = credentials.Set(aProxy.GetUser(), aProxy.GetPassword());
    if (rv != CM_OK)
        return rv;
    talvo::IProxyAuthenticationUser& user = *this;
    m_bProxyRefuses = FALSE;
    m_Proxy = aProxy;
    m_pProxyAuthentication = std::make_unique<talvo::CProxyAuthentication>(user, m_Proxy.GetText(), credentials);
    return m_pProxyAuthentication->Start();
}

CmResult CCmChannelHttpClient::AddProxyParts_i(talvo::CHttpHeadParts& aParts) {
    aParts.m_bProxy = TRUE;
    aParts.m_strTarget = talvo::MakeAbsoluteHttpTarget(*m_pUrl);
    if (m_bProxyRefuses)
        return CM_OK;
    return m_pProxyAuthentication->Authorize(m_Request.GetMethod().operator const char*(), aParts.m_strTarget,
                                             aParts.m_ProxyAuthorization);
}

// NOTHING: the answer is the server's, or a 407 for the user.
CCmChannelHttpClient::ENext CCmChannelHttpClient::JudgeProxy_i() {
    const CCmHttpResponseHead& head = m_Exchange.GetHead();
    if (head.GetStatus() != 407) {
        m_pProxyAuthentication->OnAccepted();
        return NOTHING;
    }
    if (m_Request.IsStreamed() || m_bProxyRefuses)
        return NOTHING;
    const CCmString* pChallenges = head.FindHeader(CCmHttpAtomList::Proxy_Authenticate);
    const CmResult rv =
        m_pProxyAuthentication->OnChallenges(pChallenges ? *pChallenges : CCmString(), m_Exchange.MayStayOpen());
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    if (rv == CM_OK && m_pProxyAuthentication->NeedsSameConnection())
        m_Exchange.KeepConnection();
    return rv == CM_OK ? REPEAT : rv == CM_ERROR_WOULD_BLOCK ? ASK : NOTHING;
}

// Without credentials the request is repeated for the proxy's answer: the one before has been skipped.
void CCmChannelHttpClient::OnProxyAuthentication(CmResult aResult) {
    if (m_Next != ASK)
        return;
    m_bProxyRefuses = aResult != CM_OK;
    m_Next = REPEAT;
    if (m_Exchange.IsOver())
        StartNext_i();
}
