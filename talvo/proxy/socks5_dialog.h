// SOCKS 5 (RFC 1928), with user and password (RFC 1929).
#pragma once

#include "talvo/proxy/proxy_login.h"
#include "talvo/proxy/proxy_peer.h"
#include "talvo/proxy/socks_dialog.h"

namespace talvo {

class TALVO_API CSocks5Dialog final : public CSocksDialog {
public:
    // aLogin outlives the dialog.
    CSocks5Dialog(CProxyPeer aPeer, IProxyLogin& aLogin) : m_Peer(std::move(aPeer)), m_Login(aLogin) {}

    EStep Begin(CCmString& aOut) override;
    BOOL HasAsked() const override { return m_Stage == ASKED; }

private:
    enum EStage { METHOD, PASSWORD, ASKED };

    EStep Judge_i(std::string_view aReply, CCmString& aOut) override;
    EStep JudgeMethod_i(char aMethod, CCmString& aOut);
    EStep LogIn_i(CCmString& aOut);
    EStep JudgeLogin_i(char aStatus, CCmString& aOut);
    EStep Ask_i(CCmString& aOut);
    EStep JudgeReply_i(std::string_view aReply);

    const CProxyPeer m_Peer;
    IProxyLogin& m_Login;
    BOOL m_bOffersPassword = FALSE;
    EStage m_Stage = METHOD;
};

}  // namespace talvo
