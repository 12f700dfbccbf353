#include "talvo/transport/proxy_server.h"

#include <algorithm>

#include "talvo/base/ascii.h"
#include "talvo/base/ip_bytes.h"
#include "talvo/base/with_memory.h"

namespace {

struct CKind {
    const char* m_pScheme;
    WORD m_wPort;
};

constexpr CKind KINDS[] = {{"direct", 0},    {"http", 80},      {"https", 443},  // by ECmProxyKind
                           {"socks4", 1080}, {"socks4a", 1080}, {"socks5", 1080}};

constexpr BOOL IsNameByte(char aByte) {
    return (aByte >= 'a' && aByte <= 'z') || (aByte >= '0' && aByte <= '9') || aByte == '-' || aByte == '_' || aByte == '.';
}

// "": there is no such host.
CCmString HostOf(std::string_view aHost) {
    if (talvo::CIpBytes ip; talvo::CIpBytes::Parse(aHost, ip))
        return ip.GetText();
    CCmString strHost = aHost.size() <= CCmProxyServer::LONGEST_HOST ? talvo::to_lower(aHost) : CCmString();
    return std::ranges::all_of(strHost, IsNameByte) ? strHost : CCmString();
}

}  // namespace

CmResult CCmProxyServer::Make(ECmProxyKind aKind, std::string_view aHost, WORD aPort, CCmProxyServer& aServer) {
    const BOOL bDirect = aKind == CM_PROXY_DIRECT;
    if (aKind > CM_PROXY_SOCKS5 || (bDirect && (!aHost.empty() || aPort != 0)))
        return CM_ERROR_INVALID_ARG;
    CCmProxyServer server;
    if (!talvo::WithMemory([&] { server.m_strHost = HostOf(aHost); }))
        return CM_ERROR_OUT_OF_MEMORY;
    if (!bDirect && server.m_strHost.empty())
        return CM_ERROR_INVALID_ARG;
    server.m_Kind = aKind;
    server.m_wPort = aPort != 0 ? aPort : KINDS[aKind].m_wPort;
    aServer = std::move(server);
    return CM_OK;
}

CmResult CCmProxyServer::SetCredentials(std::string_view aUser, std::string_view aPassword) {
    if (IsDirect() || talvo::has_control(aUser) || talvo::has_control(aPassword))
        return CM_ERROR_INVALID_ARG;
    if (!aUser.empty())
        return m_Credentials.Set(aUser, aPassword);
    m_Credentials = {};
    return CM_OK;
}

CCmString CCmProxyServer::GetText() const {
    CCmString strText = KINDS[m_Kind].m_pScheme;
    strText += "://";
    if (IsDirect())
        return strText;
    const BOOL bBrackets = m_strHost.find(':') != CCmString::npos;
    strText += bBrackets ? "[" + m_strHost + "]" : m_strHost;
    return strText + ":" + std::to_string(m_wPort);
}
