// The request for a tunnel through an HTTP proxy (RFC 9110, section 9.3.6).
#pragma once

#include "talvo/http/message/http_body.h"
#include "talvo/proxy/connect_reply.h"
#include "talvo/proxy/proxy_dialog.h"
#include "talvo/proxy/proxy_login.h"

namespace talvo {

class TALVO_API CConnectDialog final : public IProxyDialog {
public:
    static constexpr DWORD MOST_INTERIM = 8;      // replies before the final one
    static constexpr uint64_t MOST_BODY = 65536;  // of a 407 whose connection stays open

    // aTarget: of CProxyPeer. aLogin outlives the dialog.
    CConnectDialog(CCmString aTarget, IProxyLogin& aLogin) : m_strTarget(std::move(aTarget)), m_Login(aLogin) {}

    EStep Begin(CCmString& aOut) override;
    EStep Take(std::string_view aIn, size_t& aTaken, CCmString& aOut) override;
    BOOL HasAsked() const override { return TRUE; }
    BOOL IsRepeating() const override { return m_bRepeating; }

private:
    EStep Ask_i(CCmString& aOut);
    EStep Judge_i(CCmString& aOut);
    EStep Challenged_i(CCmString& aOut);
    EStep Drain_i(std::string_view aIn, size_t& aTaken, CCmString& aOut);

    const CCmString m_strTarget;
    IProxyLogin& m_Login;
    CConnectReply m_Reply;
    DWORD m_dwInterim = 0;
    BOOL m_bDraining = FALSE;   // the body of a 407; the next request follows it
    BOOL m_bRepeating = FALSE;  // see IsRepeating
    CHttpBodyReader m_Body;
};

}  // namespace talvo
