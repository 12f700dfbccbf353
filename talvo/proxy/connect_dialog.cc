#include "talvo/proxy/connect_dialog.h"

#include "talvo/base/message_block.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_framing.h"
#include "talvo/http/message/http_parser.h"

namespace talvo {

namespace {

using Atoms = CCmHttpAtomList;

constexpr int NEEDS_LOGIN = 407;
constexpr int WRONG_LOGIN = 401;  // of some proxies, in place of a second 407

// The reason that a status stands for; CM_OK: the tunnel is open.
CmResult ReasonOf(int aStatus) {
    if (aStatus >= 200 && aStatus <= 299)
        return CM_OK;
    const BOOL bOwn = aStatus == 501 || aStatus == 511;  // not implemented, and a network that wants a login
    const BOOL bPeer = aStatus == 404 || (aStatus >= 500 && aStatus <= 599 && !bOwn);
    return bPeer ? CM_ERROR_NETWORK_CONNECT_ERROR : CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE;
}

class CNoSink final : public CHttpBodySink {
    BOOL OnBody(CCmMessageBlock&) override { return TRUE; }
};

CCmMessageBlock ViewOf(std::string_view aBytes) {
    const auto dwSize = static_cast<DWORD>(aBytes.size());
    return CCmMessageBlock(dwSize, aBytes.data(), CCmMessageBlock::DONT_DELETE, dwSize);
}

}  // namespace

IProxyDialog::EStep CConnectDialog::Begin(CCmString& aOut) {
    m_Login.OnConnection();
    return Ask_i(aOut);
}

IProxyDialog::EStep CConnectDialog::Ask_i(CCmString& aOut) {
    aOut.append("CONNECT ").append(m_strTarget).append(" HTTP/1.1\r\nHost: ").append(m_strTarget);
    aOut.append("\r\nUser-Agent: talvo\r\n");
    m_Login.AppendField(m_strTarget, aOut);
    aOut.append("\r\n");
    return TALK;
}

IProxyDialog::EStep CConnectDialog::Take(std::string_view aIn, size_t& aTaken, CCmString& aOut) {
    EStep step = TALK;
    for (aTaken = 0; step == TALK && aTaken < aIn.size();) {
        size_t stTaken = 0;
        const std::string_view rest = aIn.substr(aTaken);
        if (m_bDraining) {
            step = Drain_i(rest, stTaken, aOut);
        } else {
            m_bRepeating = FALSE;
            const CConnectReply::EResult result = m_Reply.Take(rest, stTaken);
            if (result == CConnectReply::BROKEN)
                step = Malformed_i(m_Reply.GetFault());
            else if (result == CConnectReply::COMPLETE)
                step = Judge_i(aOut);
        }
        aTaken += stTaken;
    }
    return step;
}

IProxyDialog::EStep CConnectDialog::Judge_i(CCmString& aOut) {
    const int nStatus = m_Reply.GetStatus();
    if (nStatus >= 100 && nStatus <= 199 && nStatus != 101) {
        m_Reply.Clear();
        return ++m_dwInterim <= MOST_INTERIM ? TALK : Malformed_i("too many interim replies");
    }
    if (nStatus == NEEDS_LOGIN || nStatus == WRONG_LOGIN)
        return Challenged_i(aOut);
    m_Login.OnAccepted();
    const CmResult reason = ReasonOf(nStatus);
    return reason == CM_OK ? OPEN : Refused_i(reason, m_Reply.GetStatusText());
}

// The answer goes over this connection if it stays open and the body is short, else over a new one.
IProxyDialog::EStep CConnectDialog::Challenged_i(CCmString& aOut) {
    CCmHttpResponseHead head;
    CCmHttpParserT<CCmHttpResponseHead> parser(&head);
    parser.SetStrict(TRUE);
    CCmMessageBlock block = ViewOf(m_Reply.GetHead());
    if (parser.ParseHead(&block) != CM_OK || !head.IsComplete())
        return Malformed_i("a malformed 407");
    const CHttpFraming framing = get_response_framing(head, Atoms::Connect);
    const BOOL bStays = framing.m_nError == 0 && !framing.m_bMustClose && framing.m_Body != EHttpBody::UNTIL_CLOSE &&
                        is_persistent(head.GetVerion(), head) && framing.m_ullLength <= MOST_BODY;
    const CCmString* pChallenges = head.FindHeader(Atoms::Proxy_Authenticate);
    const CmResult rv = m_Login.OnChallenges(pChallenges ? *pChallenges : CCmString(), bStays);
    if (rv != CM_OK)
        return rv == CM_ERROR_WOULD_BLOCK ? AGAIN : Malformed_i(m_Reply.GetStatusText());
    if (!bStays)
        return m_Login.NeedsSameConnection() ? Malformed_i("the proxy closes during its login") : AGAIN;
    CCmHttpLimits limits;
    limits.m_ullMaxBody = MOST_BODY;
    m_Body.SetLimits(limits);
    m_Body.Begin(framing.m_Body, framing.m_ullLength);
    m_bDraining = TRUE;
    size_t stNone = 0;
    return Drain_i({}, stNone, aOut);
}

IProxyDialog::EStep CConnectDialog::Drain_i(std::string_view aIn, size_t& aTaken, CCmString& aOut) {
    CNoSink nothing;
    CCmMessageBlock block = ViewOf(aIn);
    const CmResult rv = m_Body.Feed(block, nothing);
    aTaken = aIn.size() - block.GetChainedLength();
    if (rv == CM_ERROR_PARTIAL_DATA)
        return TALK;
    if (rv != CM_OK)
        return m_Login.NeedsSameConnection() ? Malformed_i("a malformed 407") : AGAIN;
    m_bDraining = FALSE;
    m_bRepeating = !m_Login.NeedsSameConnection();
    m_Reply.Clear();
    return Ask_i(aOut);
}

}  // namespace talvo
