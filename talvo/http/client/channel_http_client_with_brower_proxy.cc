#include "talvo/http/client/channel_http_client_with_brower_proxy.h"

#include <utility>

#include "talvo/base/trace.h"
#include "talvo/http/message/http_memory.h"
#include "talvo/http/message/http_url.h"

CCmChannelHttpClientWithBrowerProxy::~CCmChannelHttpClientWithBrowerProxy() {
    CCmChannelHttpClientWithBrowerProxy::StopFinding();
}

CmResult CCmChannelHttpClientWithBrowerProxy::FindProxies(const CCmHttpUrl& aUrl) {
    m_strQuestion = aUrl.GetScheme() + "://" + aUrl.GetNameAndPort(FALSE) + "/";
    m_bAskedAgain = FALSE;
    const CmResult rv = Ask_i();
    if (rv != CM_OK && rv != CM_ERROR_WOULD_BLOCK)
        CM_ERROR_TRACE_THIS("CCmChannelHttpClientWithBrowerProxy::FindProxies, no route. url=" << m_strQuestion
                                                                                               << " reason=" << rv);
    return rv;
}

CmResult CCmChannelHttpClientWithBrowerProxy::Ask_i() {
    CCmProxyRoute route = CCmProxyRoute::Direct();
    ICmProxySource* pSource = ICmProxySource::Get();
    const CmResult rv = pSource ? pSource->Ask(m_strQuestion, *this, route) : CM_OK;
    if (rv == CM_OK)
        SetProxies(route);
    if (rv != CM_ERROR_WOULD_BLOCK)
        return rv;
    m_pSource = pSource;
    JoinCurrentThread();
    return rv;
}

void CCmChannelHttpClientWithBrowerProxy::StopFinding() {
    LeaveThread();
    if (ICmProxySource* pSource = std::exchange(m_pSource, nullptr))
        pSource->Cancel(*this);
}

void CCmChannelHttpClientWithBrowerProxy::OnProxyRoute(CmResult aReason, const CCmProxyRoute& aRoute) {
    m_pSource = nullptr;
    LeaveThread();
    if (aReason == CM_OK)
        SetProxies(aRoute);
    OnProxiesFound(aReason);
}

// Asks again once, so that settings that change all the time cannot keep the channel waiting.
void CCmChannelHttpClientWithBrowerProxy::OnProxySettingsChanged() {
    if (!m_pSource || std::exchange(m_bAskedAgain, TRUE))
        return;
    StopFinding();
    const CmResult rv = talvo::ResultWithMemory([this] { return Ask_i(); });
    if (rv != CM_ERROR_WOULD_BLOCK)
        OnProxiesFound(rv);
}

// A search has no connection that could finish its work.
void CCmChannelHttpClientWithBrowerProxy::OnDrain(ECmDrainStage aStage) {
    if (!m_pSource || !talvo::ends_connections(aStage))
        return;
    StopFinding();
    OnProxiesFound(CM_ERROR_NOT_AVAILABLE);
}
