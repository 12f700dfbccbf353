#include "tools/proxy_options.h"

#include <cstring>

#include "tools/password.h"

namespace tool {

namespace {

constexpr const char* PASSWORD_VARIABLE = "TALVO_PROXY_PASSWORD";

// An argument with an "@" is not repeated: it may contain a password.
std::string ReadServer(const std::string& aText, CCmProxyServer& aServer) {
    if (aText.find('@') != std::string::npos)
        return "--proxy: other users can see a password in an argument; use --proxy-user";
    CCmProxyRoute route;
    if (CCmProxyRoute::FromUris(aText, route) != CM_OK)
        return "--proxy: '" + aText + "' is no proxy server";
    aServer = route.GetServers()[0];
    return "";
}

std::string AddServer(const CCmProxyServer& aServer, CCmProxyRoute& aRoute) {
    switch (aRoute.Add(aServer)) {
    case CM_OK:
        return "";
    case CM_ERROR_NOT_AVAILABLE:
        return "--proxy: at most " + std::to_string(CCmProxyRoute::MOST_SERVERS) + " servers";
    default:
        return "out of memory";
    }
}

// aUser (in and out): "" when a server has the credentials.
std::string AddCredentials(std::string& aUser, const std::string& aFile, CCmProxyServer& aServer) {
    if (aUser.empty() || aServer.IsDirect())
        return "";
    std::string strPassword;
    const std::string strPrompt = "Password of " + aUser + " at " + aServer.GetText() + ": ";
    const std::string strProblem =
        ReadPassword({"--proxy-user", "--proxy-password-file", aFile, PASSWORD_VARIABLE, strPrompt}, strPassword);
    const CmResult rv = strProblem.empty() ? aServer.SetCredentials(aUser, strPassword) : CM_OK;
    explicit_bzero(strPassword.data(), strPassword.size());
    aUser.clear();
    if (!strProblem.empty())
        return strProblem;
    return rv == CM_OK ? "" : "--proxy-user: the name or the password has characters that cannot be sent";
}

}  // namespace

std::string MakeRoute(ProxyOptions& aOptions) {
    if (aOptions.m_bAllowNtlm)
        cm_proxy_allow_ntlm(1);
    if (aOptions.m_strUser.find(':') != std::string::npos)
        return std::string("--proxy-user takes a name only; the password is read from the terminal or ") + PASSWORD_VARIABLE;
    std::string strUser = aOptions.m_strUser;
    aOptions.m_bSystem = aOptions.m_strServers == "system";
    if (aOptions.m_bSystem)
        return strUser.empty() ? "" : "--proxy-user needs the name of a proxy server in --proxy";
    std::string strProblem;
    for (size_t stAt = 0; stAt <= aOptions.m_strServers.size() && !aOptions.m_strServers.empty();) {
        const size_t stEnd = std::min(aOptions.m_strServers.find(',', stAt), aOptions.m_strServers.size());
        CCmProxyServer server;
        strProblem = ReadServer(aOptions.m_strServers.substr(stAt, stEnd - stAt), server);
        if (strProblem.empty())
            strProblem = AddCredentials(strUser, aOptions.m_strPasswordFile, server);
        if (strProblem.empty())
            strProblem = AddServer(server, aOptions.m_Route);
        if (!strProblem.empty())
            return strProblem;
        stAt = stEnd + 1;
    }
    return strUser.empty() ? "" : "--proxy-user needs a proxy server in --proxy";
}

}  // namespace tool
