#include "tools/proxy_arguments.h"

#include <strings.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <ctime>

#include "tools/text.h"
#include "tools/url.h"

namespace tool {

namespace {

constexpr const char* TIMES[] = {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M"};

// A check of CLI11: an empty variable of a shell is no value.
auto NotEmpty(const std::string& aWhat) {
    return [aWhat](const std::string& aText) { return aText.empty() ? aWhat + " is missing" : std::string(); };
}

// The time in the zone of the process.
bool ReadTime(const std::string& aText, int64_t& aUsec) {
    for (const char* pFormat : TIMES) {
        tm parts{};
        parts.tm_isdst = -1;
        const char* pEnd = strptime(aText.c_str(), pFormat, &parts);
        const time_t nTime = pEnd && *pEnd == 0 ? mktime(&parts) : -1;
        aUsec = int64_t{nTime} * 1000000;
        if (nTime >= 0)
            return true;
    }
    return false;
}

// aScript (in and out): a file becomes its URL.
std::string ReadScript(std::string& aScript) {
    if (aScript.find("://") != std::string::npos)
        return CheckUrl(aScript);
    char szPath[PATH_MAX];
    if (!realpath(aScript.c_str(), szPath))
        return "'" + aScript + "': " + SystemError(errno);
    aScript = std::string("file://") + szPath;
    return "";
}

}  // namespace

void DeclareProxy(CLI::App& aApp, Arguments& a) {
    CLI::Option* pProxy = aApp.add_option("--proxy", a.m_Proxy.m_strServers,
                                          "Proxy servers to use: the next one if one cannot be reached; http, https, socks4, "
                                          "socks4a or socks5 URIs without a password, or direct; system: those of the user's "
                                          "settings, see talvo proxy (the default of get)")
                              ->check(NotEmpty("a proxy server"))
                              ->option_text("URI[,URI...]");
    CLI::Option* pUser = aApp.add_option("--proxy-user", a.m_Proxy.m_strUser,
                                         "User at the first proxy server; the password is read from --proxy-password-file, "
                                         "TALVO_PROXY_PASSWORD or the terminal")
                             ->option_text("NAME")
                             ->needs(pProxy);
    aApp.add_option("--proxy-password-file", a.m_Proxy.m_strPasswordFile,
                    "File whose first line is the password of --proxy-user")
        ->option_text("FILE")
        ->needs(pUser);
    aApp.add_flag("--allow-ntlm", a.m_Proxy.m_bAllowNtlm, "Allow NTLM, an old scheme, if the proxy has no better one")
        ->needs(pProxy);
}

std::string CheckProxy(Arguments& a) {
    if (!a.m_Proxy.m_strServers.empty() && IsPath(a.m_Addr))
        return "--proxy needs a host, not '" + cm_address_text(a.m_Addr) + "'";
    return MakeRoute(a.m_Proxy);
}

void DeclareProxyLook(CLI::App& aApp, Arguments& a) {
    aApp.add_option("URL", a.m_vecUrls, "URLs whose routes are shown; without one the settings are shown")
        ->option_text("URL...");
    aApp.add_flag("--settings", a.m_bSettings, "Show each setting and its source");
    CLI::Option* pScript =
        aApp.add_option("--script", a.m_strScript, "Auto-configuration script to ask instead of the user's settings")
            ->check(NotEmpty("a file or URL"))
            ->option_text("FILE|URL")
            ->excludes(aApp.get_option("--settings"));
    aApp.add_option("--at", a.m_strAt, "Local time that the script gets instead of the present: 2026-12-31T23:59")
        ->check(NotEmpty("a time"))
        ->option_text("TIME")
        ->needs(pScript);
}

std::string CheckProxyLook(Arguments& a) {
    for (const std::string& strUrl : a.m_vecUrls) {
        const std::string strProblem = CheckUrl(strUrl);
        if (!strProblem.empty())
            return strProblem;
        if (strncasecmp(strUrl.c_str(), "file:", 5) == 0)
            return "'" + strUrl + "': a file URL has no proxy";
    }
    if (!a.m_strAt.empty() && !ReadTime(a.m_strAt, a.m_llAtUsec))
        return "--at: '" + a.m_strAt + "' is not a time such as 2026-12-31T23:59";
    if (a.m_vecUrls.empty() && !a.m_strScript.empty())
        return "--script needs a URL";
    a.m_bSettings = a.m_bSettings || a.m_vecUrls.empty();
    const std::string strScript = a.m_strScript.empty() ? "" : ReadScript(a.m_strScript);
    return strScript.empty() ? "" : "--script: " + strScript;
}

}  // namespace tool
