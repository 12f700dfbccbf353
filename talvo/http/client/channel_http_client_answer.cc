#include <algorithm>
#include <new>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/http/client/channel_http_client.h"
#include "talvo/http/client/http_redirect.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_memory.h"
#include "talvo/http/message/http_url.h"

// Handles the answers: redirects, challenges, delivery.

namespace {

constexpr uint64_t MAX_WHOLE_BODY = UINT32_MAX;
constexpr const char* NO_MEMORY = "there is no memory";
constexpr const char* NO_PROXY = "the proxy cannot be reached or used";
constexpr uint64_t MAX_RESERVED = 1 << 20;  // bytes reserved because the server announced them

// The cause of a failure that neither connector nor transport has found.
ECmFailureCause CauseOf(CmResult aCause) {
    if (aCause == CM_ERROR_TIMEOUT)
        return CM_FAILURE_SILENCE;
    const BOOL bServer = aCause == CM_ERROR_NETWORK_HTTP_FAILURE || aCause == CM_ERROR_NETWORK_SOCKET_ERROR ||
                         aCause == CM_ERROR_NETWORK_TLS_CUT;
    return bServer ? CM_FAILURE_PROTOCOL : CM_FAILURE_LOCAL;
}

}  // namespace

// TRUE: the user gets the body.
BOOL CCmChannelHttpClient::OnExchangeHead() {
    m_Next = JudgeHead_i();
    if (m_Next != NOTHING)
        return FALSE;
    if (m_dwWholeBody && m_Exchange.GetExpected() > MAX_WHOLE_BODY) {
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "the body is too large to be delivered whole");
        return FALSE;
    }
    m_bAnswered = TRUE;
    talvo::Upcall([this] { m_pSink->OnConnect(CM_OK, this); });
    return TRUE;
}

// If a redirect or challenge needs a request body that is no longer available, the answer is delivered unchanged.
CCmChannelHttpClient::ENext CCmChannelHttpClient::JudgeHead_i() {
    const CCmHttpResponseHead& head = m_Exchange.GetHead();
    if (const ENext next = m_Route.GetHttpProxy() ? JudgeProxy_i() : NOTHING; next != NOTHING)
        return next;
    if (JudgeOrigin_i())
        return REPEAT;
    const CCmString* pLocation = head.FindHeader(CCmHttpAtomList::Location);
    if (!talvo::IsHttpRedirect(head.GetStatus()) || !pLocation || m_dwMaxRedirects == 0)
        return NOTHING;
    if (m_Request.IsStreamed() && !talvo::DoesHttpRedirectBecomeGet(head.GetStatus(), m_Request.GetMethod()))
        return NOTHING;
    m_strLocation = *pLocation;
    return REDIRECT;
}

// TRUE: the request is repeated with credentials.
BOOL CCmChannelHttpClient::JudgeOrigin_i() {
    const CCmHttpResponseHead& head = m_Exchange.GetHead();
    if (head.GetStatus() != 401) {
        m_Authenticator.OnAccepted();
        return FALSE;
    }
    const CCmString* pChallenges = head.FindHeader(CCmHttpAtomList::WWW_Authenticate);
    if (!pChallenges || m_Request.IsStreamed() ||
        !m_Authenticator.OnChallenges(*pChallenges, !m_Route.GetHttpProxy(), m_Exchange.MayStayOpen()))
        return FALSE;
    if (m_Authenticator.NeedsSameConnection())
        m_Exchange.KeepConnection();
    return TRUE;
}

BOOL CCmChannelHttpClient::NeedsSameConnection_i() const {
    return m_Route.GetHttpProxy() ? m_pProxyAuthentication->NeedsSameConnection() : m_Authenticator.NeedsSameConnection();
}

void CCmChannelHttpClient::OnExchangeBody(CCmMessageBlock& aData) {
    if (m_dwWholeBody)
        KeepWhole_i(aData);
    else if (!m_bPaused && m_Held.GetLength() == 0)
        talvo::Upcall([&] { m_pSink->OnReceive(aData, this, nullptr); });
    else if (m_Held.Append(aData, 0) != CM_OK)
        Fail_i(CM_ERROR_OUT_OF_MEMORY, NO_MEMORY);
}

void CCmChannelHttpClient::KeepWhole_i(const CCmMessageBlock& aData) {
    if (m_strWhole.size() + aData.GetTopLevelLength() > MAX_WHOLE_BODY) {
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "the body is too large to be delivered whole");
        return;
    }
    if (m_strWhole.empty())
        m_strWhole.reserve(std::min(m_Exchange.GetExpected(), MAX_RESERVED));
    m_strWhole.append(aData.GetTopLevelReadPtr(), aData.GetTopLevelLength());
}

void CCmChannelHttpClient::OnExchangeRoom() {
    talvo::Upcall([this] { m_pSink->OnSend(this, nullptr); });
}

// If the answer is not for the user, only an end for lack of memory matters.
void CCmChannelHttpClient::OnExchangeEnd(CmResult aCause, const char* aText) {
    if (m_Next != NOTHING && aCause != CM_ERROR_OUT_OF_MEMORY) {
        if (m_Next == REPEAT && NeedsSameConnection_i() && !m_Exchange.HasKeptConnection())
            Fail_i(m_Route.GetHttpProxy() ? CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE : CM_ERROR_NETWORK_SOCKET_ERROR,
                   "the connection was closed inside its authentication");
        else if (m_Next != ASK)
            StartNext_i();
    } else if (m_Exchange.IsUnconnected() && m_Route.OnUnconnected(aCause)) {
        StartNext_i();
    } else if (aCause != CM_OK) {
        Fail_i(aCause, aCause == CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE ? NO_PROXY : aText);
    } else {
        m_bEnded = TRUE;
        Deliver_i();
    }
}

void CCmChannelHttpClient::StartNext_i() {
    const CmResult rv = talvo::ResultWithMemory([this] { return GoOn_i(); });
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        Fail_i(rv, NO_MEMORY);
    else if (rv != CM_OK)
        Fail_i(rv, "there can be no connection");
}

// CM_OK: the next exchange is in progress, or the failure is reported. Else the reason why there is none.
CmResult CCmChannelHttpClient::GoOn_i() {
    switch (std::exchange(m_Next, NOTHING)) {
    case REDIRECT:
        return Follow_i();
    case BEGIN:
        return BeginRoute_i();
    default:
        return StartExchange_i();
    }
}

void CCmChannelHttpClient::OnProxiesFound(CmResult aReason) {
    m_Next = BEGIN;
    if (aReason == CM_OK)
        StartNext_i();
    else
        Fail_i(aReason, "the proxies for the URL are not known");
}

CmResult CCmChannelHttpClient::Follow_i() {
    if (m_dwRedirects++ == m_dwMaxRedirects) {
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "there are too many redirects");
        return CM_OK;
    }
    const CCmRefPtrT<CCmHttpUrl> pUrl(new CCmHttpUrl);
    const CCmString strTarget = talvo::ResolveHttpLocation(*m_pUrl, m_strLocation);
    if (strTarget.empty())
        return RefuseLocation_i();
    if (!pUrl->Init(strTarget))  // a resolved target is always a URL
        return CM_ERROR_OUT_OF_MEMORY;
    if (m_pUrl->GetScheme() == "https" && pUrl->GetScheme() == "http" && !m_bMayDowngrade)
        return RefuseLocation_i();
    if (talvo::DoesHttpRedirectBecomeGet(m_Exchange.GetHead().GetStatus(), m_Request.GetMethod()))
        m_Request.BecomeGet();
    if (!talvo::IsSameHttpOrigin(*m_pUrl, *pUrl)) {
        m_Request.LeaveOrigin();
        m_Authenticator.Forget();
    }
    m_pUrl = pUrl;
    return FindProxies_i();
}

CmResult CCmChannelHttpClient::RefuseLocation_i() {
    const CCmString strText = "the redirect is not followed. location=" + m_strLocation;
    Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, strText);
    return CM_OK;
}

// Delivers the data on hold, and after it the end, until the user pauses.
void CCmChannelHttpClient::Deliver_i() {
    if (m_bPaused || !m_pSink)
        return;
    if (m_Held.GetLength() > 0)
        DeliverHeld_i();
    else if (m_bEnded && m_dwWholeBody && (m_EndReason == CM_OK || !m_strWhole.empty()) && !std::exchange(m_bWholeGiven, TRUE))
        DeliverWhole_i();
    if (m_bEnded && !m_bPaused && m_pSink)
        Over_i(m_EndReason);
}

// If memory runs out, the data on hold is lost, and the body fails.
void CCmChannelHttpClient::DeliverHeld_i() {
    const CmResult rv = m_Held.Take(m_Held.GetLength(), [this](CCmMessageBlock& aData) {
        talvo::Upcall([&] { m_pSink->OnReceive(aData, this, nullptr); });
    });
    if (rv == CM_OK)
        return;
    m_Held.Clear();
    Fail_i(rv, NO_MEMORY);
}

void CCmChannelHttpClient::DeliverWhole_i() {
    const CCmString strBody = std::exchange(m_strWhole, {});
    const auto dwSize = static_cast<DWORD>(strBody.size());
    CCmMessageBlock block(dwSize, strBody.data(), CCmMessageBlock::DONT_DELETE, dwSize);
    talvo::Upcall([&] { m_pSink->OnReceive(block, this, nullptr); });
}

// The user still gets the data that arrived before.
void CCmChannelHttpClient::Fail_i(CmResult aCause, std::string_view aText) {
    CM_ERROR_TRACE_THIS("CCmChannelHttpClient::OnDisconnect, " << aText << " url=" << m_pUrl->GetAsciiSpec()
                                                               << " reason=" << aCause);
    m_Next = NOTHING;
    m_Exchange.Close(CM_ERROR_NETWORK_SOCKET_CLOSE);
    NoteFailure_i(aCause, aText);
    m_bEnded = TRUE;
    m_EndReason = aCause == CM_ERROR_OUT_OF_MEMORY ? aCause : CM_ERROR_NETWORK_HTTP_FAILURE;
    Deliver_i();
}

void CCmChannelHttpClient::NoteFailure_i(CmResult aCause, std::string_view aText) {
    m_Cause = aCause;
    m_LastFailure = m_Exchange.GetFailure();
    talvo::WithMemory([&] {
        m_strFailure = aText;
        CCmInetAddr addr;
        addr.SetName(m_pUrl->GetHostName().c_str(), m_pUrl->GetPort());  // only its text is needed: no look-up
        if (!m_LastFailure)
            m_LastFailure = CCmFailure(CauseOf(aCause), m_strFailure.c_str(), "exchange with", addr);
    });
}

void CCmChannelHttpClient::Over_i(CmResult aReason) {
    m_Status = OVER;
    m_Timer.Cancel();
    if (ICmChannelSink* pSink = std::exchange(m_pSink, nullptr))
        talvo::Upcall([&] { pSink->OnDisconnect(aReason, this); });
}
