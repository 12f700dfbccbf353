// The settings of one source, and the rule that chooses among them.
#pragma once

#include <vector>

#include "talvo/proxy/discovery/bypass_rules.h"
#include "talvo/proxy/discovery/proxy_answer.h"
#include "talvo/transport/proxy_route.h"

namespace talvo {

// A plain value: made by the readers of the sources, then only read.
struct TALVO_API CProxySettings {
    // The servers for one scheme.
    struct CServers {
        CCmProxyRoute m_Route;  // empty: not set
        CCmString m_strSource;  // as CCmProxyAnswer::GetSource
    };
    enum EChoice {
        NOTHING,   // this source has no answer
        ROUTE,     // aServers (out)
        BYPASSED,  // direct by a bypass rule
        SCRIPT     // m_strScript, or automatic detection
    };

    CCmString m_strSource;  // "KDE"
    CServers m_Http, m_Https;
    CServers m_Other;  // for a scheme without servers of its own
    CBypassRules m_Bypass;
    BOOL m_bReversed = FALSE;  // the rules name the hosts that use the proxy
    BOOL m_bDetect = FALSE;    // the script of the network is wanted, if it is allowed
    CCmString m_strScript;     // its URL; "": none
    BOOL m_bDirect = FALSE;    // no proxy is wanted
    std::vector<CCmProxySetting> m_Found;

    EChoice Choose(const CProxyOrigin& aOrigin, CServers& aServers) const;

    // Reads URIs into aServers. A text that has none leaves it unset, with a trace line without the text.
    void SetServers(CServers& aServers, std::string_view aUris, std::string_view aSource);
    // The same for one server of a desktop: "host", "scheme://host:port" or "host port". aSocks: it is SOCKS5 whatever its
    // scheme.
    void SetDesktopServer(CServers& aServers, std::string_view aText, BOOL aSocks);
    // A URL, or an absolute path.
    void SetScript(std::string_view aText);
    // Notes a setting for people to read.
    void List(std::string_view aSource, std::string_view aName, std::string_view aValue);
};

// aText with "***" for all between the first scheme and the last "@", and '?' for control characters.
TALVO_API CCmString HideCredentials(std::string_view aText);

}  // namespace talvo
