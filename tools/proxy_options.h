// The options of proxies on the command line, and the route that they describe.
#pragma once

#include <string>

#include "talvo/talvo.h"

namespace tool {

struct ProxyOptions {
    std::string m_strServers;       // --proxy, or ""
    std::string m_strUser;          // --proxy-user, or ""
    std::string m_strPasswordFile;  // --proxy-password-file, or ""
    bool m_bAllowNtlm = false;      // --allow-ntlm
    bool m_bSystem = false;         // from these: "system", the proxies of the user's settings
    CCmProxyRoute m_Route;          // from these; empty: no proxy, or m_bSystem
};

// Reads the servers, and the password of the user, which belongs to the first server that is not "direct". Returns "" or an
// error text without credentials.
std::string MakeRoute(ProxyOptions& aOptions);

}  // namespace tool
