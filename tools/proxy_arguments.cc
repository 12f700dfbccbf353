#include "tools/proxy_arguments.h"

#include <CLI/CLI.hpp>

namespace tool {

void DeclareProxy(CLI::App& aApp, Arguments& a) {
    CLI::Option* pProxy = aApp.add_option("--proxy", a.m_Proxy.m_strServers,
                                          "Proxy servers to use: the next one if one cannot be reached; http, https, socks4, "
                                          "socks4a or socks5 URIs without a password, or direct")
                              ->check([](const std::string& aText) { return aText.empty() ? "a proxy server is missing" : ""; })
                              ->option_text("URI[,URI...]");
    aApp.add_option("--proxy-user", a.m_Proxy.m_strUser,
                    "User at the first proxy server; the password is read from the terminal or TALVO_PROXY_PASSWORD")
        ->option_text("NAME")
        ->needs(pProxy);
    aApp.add_flag("--allow-ntlm", a.m_Proxy.m_bAllowNtlm, "Allow NTLM, an old scheme, if the proxy has no better one")
        ->needs(pProxy);
}

std::string CheckProxy(Arguments& a) {
    if (!a.m_Proxy.m_strServers.empty() && IsPath(a.m_Addr))
        return "--proxy needs a host, not '" + cm_address_text(a.m_Addr) + "'";
    return MakeRoute(a.m_Proxy);
}

}  // namespace tool
