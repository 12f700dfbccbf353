#include "talvo/http/client/http_destination.h"

#include <algorithm>

#include "talvo/http/message/http_authority.h"
#include "talvo/http/message/http_digest_hash.h"
#include "talvo/http/message/http_text.h"

namespace talvo {

namespace {

// A text that only the same user and password have, and that reveals neither.
CCmString IdentityOf(std::string_view aUser, std::string_view aPassword) {
    static const CCmString s_strSalt = HttpRandomHex();
    if (aUser.empty())
        return {};
    return "#" + HttpHashHex(EHttpHash::SHA256, {s_strSalt, aUser, "\n", aPassword});
}

}  // namespace

// The parts that most connections lack are left out, so that the key is short. No text of a host or an address has a line feed.
CCmString CHttpDestination::MakeKey() const {
    CCmString strKey = m_strHost;
    if (!is_ipv6_host(strKey))  // it is in lower case, and the case of its zone matters
        std::transform(strKey.begin(), strKey.end(), strKey.begin(), lower_case);
    strKey += ":" + std::to_string(m_wPort);
    if (!m_Proxy.IsDirect())
        strKey += "\nproxy";
    if (m_AddrConnectTo != CCmInetAddr::s_InetAddrAny)
        strKey += "\nat " + cm_address_text(m_AddrConnectTo);
    if (m_pContext)
        strKey += "\ntls " + std::to_string(reinterpret_cast<uintptr_t>(m_pContext.Get()));
    for (const CCmProxyServer& server : m_Tunnel.GetServers())
        strKey += "\nthrough " + server.GetText() + IdentityOf(server.GetUser(), server.GetPassword());
    if (m_Identity)
        strKey += "\nfor " + IdentityOf(m_Identity.m_User.Get(), m_Identity.m_Password.Get());
    return strKey;
}

}  // namespace talvo
