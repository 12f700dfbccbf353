#include "talvo/proxy/proxy_server_login.h"

#include <new>

namespace talvo {

CProxyServerLogin::CProxyServerLogin(IOwner& aOwner, const CCmProxyServer& aServer)
    : m_Owner(aOwner),
      m_bHasOwn(static_cast<bool>(aServer.GetCredentials())),
      m_Choice(*this, aServer.GetText(), aServer.GetCredentials()),
      m_Http(*this, aServer.GetText(), aServer.GetCredentials()) {
    if (!aServer.IsSocks() && m_Http.Start() == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
}

BOOL CProxyServerLogin::MayHave() {
    ICmProxyCredentials* pSource = ICmProxyCredentials::Get();
    return m_bHasOwn || (pSource && pSource->MayHaveCredentials(m_Choice.GetProxy()));
}

std::string_view CProxyServerLogin::GetKnownUser() {
    m_Choice.ChooseKnown("", "socks");
    return GetUser();
}

void CProxyServerLogin::AppendField(const CCmString& aTarget, CCmString& aOut) {
    CCmSecret value;
    if (m_Http.Authorize("CONNECT", aTarget, value) == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    if (!value.IsEmpty())
        aOut.append("Proxy-Authorization: ").append(value.Get()).append("\r\n");
}

CmResult CProxyServerLogin::OnChallenges(std::string_view aChallenges, BOOL aStaysOpen) {
    const CmResult rv = m_Http.OnChallenges(aChallenges, aStaysOpen);
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    return Noted_i(rv);
}

}  // namespace talvo
