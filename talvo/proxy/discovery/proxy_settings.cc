#include "talvo/proxy/discovery/proxy_settings.h"

#include <algorithm>
#include <new>

#include "talvo/base/config_text.h"
#include "talvo/base/secret.h"
#include "talvo/base/trace.h"

namespace talvo {

CProxySettings::EChoice CProxySettings::Choose(const CProxyOrigin& aOrigin, CServers& aServers) const {
    if (m_bDirect) {
        aServers = {CCmProxyRoute::Direct(), m_strSource};
        return ROUTE;
    }
    const CServers& own = aOrigin.m_strScheme == "http" ? m_Http : m_Https;
    const CServers& servers = own.m_Route.IsEmpty() ? m_Other : own;
    const BOOL bScript = !m_strScript.empty();
    if (!bScript && servers.m_Route.IsEmpty())
        return NOTHING;
    if (m_Bypass.Matches(aOrigin) != m_bReversed)
        return BYPASSED;
    aServers = servers;
    return bScript ? SCRIPT : ROUTE;
}

void CProxySettings::SetServers(CServers& aServers, std::string_view aUris, std::string_view aSource) {
    const CmResult rv = CCmProxyRoute::FromUris(aUris, aServers.m_Route);
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    if (rv == CM_OK)
        aServers.m_strSource = aSource;
    else
        CM_WARNING_TRACE("CProxySettings::SetServers, no server in the value. source=" << aSource);
}

// A desktop writes "http://host 8080", "host:8080" or "socks://host 1080", and an IPv6 address also without brackets.
void CProxySettings::SetDesktopServer(CServers& aServers, std::string_view aText, BOOL aSocks) {
    aText = TrimBlanks(aText);
    const size_t stScheme = aText.find("://");
    const std::string_view scheme = aText.substr(0, stScheme == std::string_view::npos ? 0 : stScheme + 3);
    const std::string_view place = aText.substr(scheme.size());
    const std::string_view host = place.substr(0, place.find_first_of(" \t"));
    const std::string_view port = TrimBlanks(place.substr(host.size()));
    CIpBytes ip;
    const BOOL bBare = CIpBytes::Parse(host, ip) && host.find(':') != std::string_view::npos;
    CCmString strUri(aSocks ? "socks5://" : scheme);
    strUri.append(bBare ? "[" : "").append(host).append(bBare ? "]" : "");
    if (!port.empty())
        strUri.append(":").append(port);
    if (!aText.empty())
        SetServers(aServers, strUri, m_strSource);
    WipeText(strUri);
}

void CProxySettings::List(std::string_view aSource, std::string_view aName, std::string_view aValue) {
    constexpr size_t MOST = 256;
    if (m_Found.size() < MOST)
        m_Found.push_back({CCmString(aSource), CCmString(aName), HideCredentials(aValue)});
}

void CProxySettings::SetScript(std::string_view aText) {
    const std::string_view text = TrimBlanks(aText);
    m_strScript = (text.starts_with('/') ? "file://" : "") + CCmString(text);
}

// A password may contain any separator, so one text has one mark.
CCmString HideCredentials(std::string_view aText) {
    const size_t stScheme = aText.find("://");
    const size_t stAt = aText.rfind('@');
    const BOOL bHidden = stAt != std::string_view::npos;
    const size_t stBegin = stScheme < stAt ? stScheme + 3 : 0;
    // With credentials never the whole text: a part of it would stay in memory behind the shorter one.
    CCmString strText(bHidden ? aText.substr(0, stBegin) : aText);
    if (bHidden)
        strText.append("***").append(aText.substr(stAt));
    std::ranges::replace_if(strText, is_control, '?');
    return strText;
}

}  // namespace talvo
