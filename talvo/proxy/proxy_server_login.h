// The credentials of an attempt at one proxy server, of its route, stored or asked for.
#pragma once

#include "talvo/http/client/proxy_authentication.h"
#include "talvo/proxy/proxy_login.h"
#include "talvo/transport/proxy_server.h"

namespace talvo {

class CProxyServerLogin final : public IProxyLogin, private IProxyAuthenticationUser, private ICmProxyCredentialsSink {
public:
    class IOwner {
    public:
        // The end of a wait that began with CM_ERROR_WOULD_BLOCK, from the loop. CM_OK: connect again. May delete the login.
        virtual void OnLogin(CmResult aResult) = 0;

    protected:
        virtual ~IOwner() = default;
    };

    // aOwner outlives the login. May throw std::bad_alloc.
    CProxyServerLogin(IOwner& aOwner, const CCmProxyServer& aServer);

    BOOL MayHave() override;
    CmResult Choose() override { return Noted_i(m_Choice.Choose("", "socks")); }
    std::string_view GetUser() const override { return m_Choice.GetCurrent().m_User.Get(); }
    std::string_view GetPassword() const override { return m_Choice.GetCurrent().m_Password.Get(); }
    void OnRefused() override { m_Choice.OnRefused(); }

    void OnConnection() override { m_Http.OnConnection(FALSE); }
    void AppendField(const CCmString& aTarget, CCmString& aOut) override;
    CmResult OnChallenges(std::string_view aChallenges, BOOL aStaysOpen) override;
    BOOL NeedsSameConnection() const override { return m_Http.NeedsSameConnection(); }
    void OnAccepted() override { m_Http.OnAccepted(); }

    // TRUE: OnLogin follows.
    BOOL IsWaiting() const { return m_bWaiting; }
    // The user id of SOCKS 4, which is not secret there; "": none. Asks nobody.
    std::string_view GetKnownUser();

private:
    void OnProxyAuthentication(CmResult aResult) override { m_Owner.OnLogin(Noted_i(aResult)); }
    void OnProxyCredentials(CmResult aReason, const CCmCredentials&) override { m_Owner.OnLogin(Noted_i(aReason)); }
    CmResult Noted_i(CmResult aResult) {
        m_bWaiting = aResult == CM_ERROR_WOULD_BLOCK;
        return aResult;
    }

    IOwner& m_Owner;
    const BOOL m_bHasOwn;              // in the route
    CProxyCredentialsChoice m_Choice;  // for SOCKS
    CProxyAuthentication m_Http;
    BOOL m_bWaiting = FALSE;
};

}  // namespace talvo
