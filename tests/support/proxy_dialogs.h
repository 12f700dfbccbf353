// Dialogs with proxy servers, fed by a test.
#pragma once

#include "talvo/proxy/connect_dialog.h"
#include "talvo/proxy/proxy_peer.h"
#include "talvo/proxy/socks4_dialog.h"
#include "talvo/proxy/socks5_dialog.h"
#include "talvo/transport/proxy_server.h"

// Knows one set of credentials, which may be refused once.
class CTestLogin final : public talvo::IProxyLogin {
public:
    explicit CTestLogin(const std::string& aUser) : m_strUser(aUser) {}

    BOOL MayHave() override { return !m_strUser.empty(); }
    CmResult Choose() override {
        return m_strUser == "?" ? CM_ERROR_WOULD_BLOCK : MayHave() ? CM_OK : CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE;
    }
    std::string_view GetUser() const override { return m_strUser; }
    std::string_view GetPassword() const override { return "pw"; }
    void OnRefused() override { m_strUser.clear(); }
    void OnConnection() override {}
    void AppendField(const CCmString&, CCmString& aOut) override { aOut += m_strField; }
    CmResult OnChallenges(std::string_view aChallenges, BOOL aStaysOpen) override {
        m_strField = "A: " + std::string(aChallenges) + (aStaysOpen ? " stays" : " closes") + "\r\n";
        return Choose();
    }
    BOOL NeedsSameConnection() const override { return m_strUser == "ntlm"; }
    void OnAccepted() override {}

private:
    std::string m_strUser, m_strField;
};

// aPeer: a name or an address, port 443.
inline std::unique_ptr<talvo::IProxyDialog> MakeDialog(ECmProxyKind aKind, const char* aPeer, CTestLogin& aLogin) {
    CCmInetAddr addr;
    talvo::CProxyPeer peer;
    addr.SetName(aPeer, 443);
    if (!talvo::CProxyPeer::Make(addr, peer))
        return nullptr;
    if (aKind == CM_PROXY_HTTP)
        return std::make_unique<talvo::CConnectDialog>(peer.GetTarget(), aLogin);
    if (aKind == CM_PROXY_SOCKS5)
        return std::make_unique<talvo::CSocks5Dialog>(peer, aLogin);
    return std::make_unique<talvo::CSocks4Dialog>(peer, aLogin.GetUser());
}
