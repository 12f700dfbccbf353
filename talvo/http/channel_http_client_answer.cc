#include <algorithm>
#include <new>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/http/channel_http_client.h"
#include "talvo/http/http_atom_list.h"
#include "talvo/http/http_redirect.h"
#include "talvo/http/http_url.h"

// What becomes of the answers: followed, answered, delivered.

namespace {

constexpr uint64_t MAX_WHOLE_BODY = UINT32_MAX;
constexpr uint64_t MAX_RESERVED = 1 << 20;  // bytes on the word of the server

}  // namespace

// TRUE: the body is the user's.
BOOL CCmChannelHttpClient::OnExchangeHead() {
    m_Next = JudgeHead_i();
    if (m_Next != NOTHING)
        return FALSE;
    if (m_dwWholeBody && m_Exchange.GetExpected() > MAX_WHOLE_BODY) {
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "the body is too large to be delivered whole");
        return FALSE;
    }
    m_bAnswered = TRUE;
    m_pSink->OnConnect(CM_OK, this);
    return TRUE;
}

// An answer that would have to be followed with a body that is not there any more is delivered as it is.
CCmChannelHttpClient::ENext CCmChannelHttpClient::JudgeHead_i() {
    const CCmHttpResponseHead& head = m_Exchange.GetHead();
    const CCmString* pChallenges = head.FindHeader(CCmHttpAtomList::WWW_Authenticate);
    if (head.GetStatus() == 401 && pChallenges && !m_Request.IsStreamed() && m_Authenticator.OnChallenges(*pChallenges))
        return AUTHENTICATE;
    const CCmString* pLocation = head.FindHeader(CCmHttpAtomList::Location);
    if (!talvo::IsHttpRedirect(head.GetStatus()) || !pLocation || m_dwMaxRedirects == 0)
        return NOTHING;
    if (m_Request.IsStreamed() && !talvo::DoesHttpRedirectBecomeGet(head.GetStatus(), m_Request.GetMethod()))
        return NOTHING;
    m_strLocation = *pLocation;
    return REDIRECT;
}

void CCmChannelHttpClient::OnExchangeBody(CCmMessageBlock& aData) {
    if (m_dwWholeBody)
        KeepWhole_i(aData);
    else if (!m_bPaused && m_Held.GetLength() == 0)
        m_pSink->OnReceive(aData, this, nullptr);
    else if (m_Held.Append(aData, 0) != CM_OK)
        Fail_i(CM_ERROR_OUT_OF_MEMORY, "there is no memory for the body");
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

void CCmChannelHttpClient::OnExchangeRoom() { m_pSink->OnSend(this, nullptr); }

// Of an answer that is not the user's it does not matter how it ended.
void CCmChannelHttpClient::OnExchangeEnd(CmResult aCause, const CCmString& aText) {
    if (m_Next != NOTHING) {
        GoOn_i();
    } else if (aCause != CM_OK) {
        Fail_i(aCause, aText);
    } else {
        m_bEnded = TRUE;
        Deliver_i();
    }
}

void CCmChannelHttpClient::GoOn_i() {
    if (std::exchange(m_Next, NOTHING) == REDIRECT) {
        Follow_i();
        return;
    }
    if (const CmResult rv = StartExchange_i(); rv != CM_OK)
        Fail_i(rv, "there can be no connection");
}

void CCmChannelHttpClient::Follow_i() {
    if (m_dwRedirects++ == m_dwMaxRedirects) {
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "there are too many redirects");
        return;
    }
    const CCmRefPtrT<CCmHttpUrl> pUrl(new (std::nothrow) CCmHttpUrl);
    const CCmString strTarget = talvo::ResolveHttpLocation(*m_pUrl, m_strLocation);
    if (!pUrl || strTarget.empty() || !pUrl->Init(strTarget) || pUrl->GetScheme() != "http") {
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "the redirect is not followed. location=" + m_strLocation);
        return;
    }
    if (talvo::DoesHttpRedirectBecomeGet(m_Exchange.GetHead().GetStatus(), m_Request.GetMethod()))
        m_Request.BecomeGet();
    if (!talvo::IsSameHttpOrigin(*m_pUrl, *pUrl)) {
        m_Request.LeaveOrigin();
        m_Authenticator.Forget();
    }
    m_pUrl = pUrl;
    if (const CmResult rv = StartExchange_i(); rv != CM_OK)
        Fail_i(rv, "there can be no connection");
}

// What is held, and behind it the end, as far as the user wants to hear it now.
void CCmChannelHttpClient::Deliver_i() {
    if (m_bPaused || !m_pSink)
        return;
    if (m_Held.GetLength() > 0)
        m_Held.Take(m_Held.GetLength(), [this](CCmMessageBlock& aData) { m_pSink->OnReceive(aData, this, nullptr); });
    else if (m_bEnded && m_dwWholeBody && (m_EndReason == CM_OK || !m_strWhole.empty()) && !std::exchange(m_bWholeGiven, TRUE))
        DeliverWhole_i();
    if (m_bEnded && !m_bPaused && m_pSink)
        Over_i(m_EndReason);
}

void CCmChannelHttpClient::DeliverWhole_i() {
    const CCmString strBody = std::exchange(m_strWhole, {});
    const auto dwSize = static_cast<DWORD>(strBody.size());
    CCmMessageBlock block(dwSize, strBody.data(), CCmMessageBlock::DONT_DELETE, dwSize);
    m_pSink->OnReceive(block, this, nullptr);
}

// What has arrived before is the user's all the same.
void CCmChannelHttpClient::Fail_i(CmResult aCause, const CCmString& aText) {
    CM_ERROR_TRACE_THIS("CCmChannelHttpClient::OnDisconnect, " << aText << " url=" << m_pUrl->GetAsciiSpec()
                                                               << " reason=" << aCause);
    m_Exchange.Close(CM_ERROR_NETWORK_SOCKET_CLOSE);
    m_Cause = aCause;
    m_strFailure = aText;
    m_bEnded = TRUE;
    m_EndReason = CM_ERROR_NETWORK_HTTP_FAILURE;
    Deliver_i();
}

void CCmChannelHttpClient::Over_i(CmResult aReason) {
    m_Status = OVER;
    m_Timer.Cancel();
    if (ICmChannelSink* pSink = std::exchange(m_pSink, nullptr))
        pSink->OnDisconnect(aReason, this);
}
