#include "tools/url.h"

#include <algorithm>
#include <string_view>

#include "talvo/talvo.h"

namespace tool {

namespace {

// aTaken: aUrl has parsed it.
std::string CheckAuthority(const CCmHttpUrl& aUrl, bool aTaken, std::string_view aAuthority) {
    if (aAuthority.find('@') != std::string_view::npos)
        return "a URL must not contain user information; use --user";
    const size_t stColon = std::min(aAuthority.find(':', aAuthority.find(']') + 1), aAuthority.size());
    std::string strHost(aAuthority.substr(0, stColon));
    if (strHost.find_first_of("[]") != std::string::npos) {
        if (!aTaken)
            return "the text in brackets is not an IPv6 address";
        const bool bIpv4 = aUrl.GetHostName().find(':') == std::string::npos;
        strHost = bIpv4 ? aUrl.GetHostName() : "[" + aUrl.GetHostName() + "]";
    }
    const std::string strPort = stColon < aAuthority.size() ? std::string(aAuthority.substr(stColon)) : ":80";
    CCmInetAddr addr;
    std::string strReason;
    if (CCmInetAddr::Parse(strHost + strPort, addr, &strReason) != CM_OK)
        return strReason;
    return addr.GetPort() == 0 ? "the port is not a number from 1 to 65535" : "";
}

// TRUE: a request line cannot contain it.
bool IsBlankOrControl(char aLetter) {
    const auto cLetter = static_cast<unsigned char>(aLetter);
    return cLetter <= ' ' || cLetter == 0x7F;
}

std::string CheckParts(const CCmHttpUrl& aUrl, bool aTaken, std::string_view aAuthority, std::string_view aRest) {
    if (aUrl.GetScheme() == "file")
        return aRest.starts_with('/') && (aAuthority.empty() || aAuthority == "localhost")
                   ? ""
                   : "a file URL begins with file:/// and the path";
    if (!aRest.empty() && aRest.front() != '/')
        return "a '/' is missing between the host and the '" + std::string(aRest.substr(0, 1)) + "'";
    if (std::any_of(aRest.begin(), aRest.end(), IsBlankOrControl))
        return "it contains a blank or a control character; write '%20' for a blank";
    return CheckAuthority(aUrl, aTaken, aAuthority);
}

}  // namespace

std::string CheckUrl(const std::string& aUrl) {
    const std::string strQuoted = "'" + aUrl + "'";
    CCmHttpUrl url;
    const bool bTaken = url.Init(aUrl);
    if (url.GetScheme().empty())
        return strQuoted + " is not a URL that begins with http://, https:// or file://";
    const std::string_view rest = std::string_view(aUrl).substr(aUrl.find("://") + 3);
    const size_t stAuthority = std::min(rest.find_first_of("/?#"), rest.size());
    const std::string strFault = CheckParts(url, bTaken, rest.substr(0, stAuthority), rest.substr(stAuthority));
    if (!strFault.empty())
        return strQuoted + ": " + strFault;
    return bTaken ? "" : strQuoted + " has no host";
}

bool IsOrigin(const std::string& aText) {
    constexpr const char* LETTERS = "abcdefghijklmnopqrstuvwxyz0123456789";
    const size_t stScheme = aText.find("://");
    if (stScheme == std::string::npos)
        return aText == "*" || aText == "null";
    const std::string strScheme = aText.substr(0, stScheme);
    const std::string strHost = aText.substr(stScheme + 3);
    if (strScheme.find_first_not_of(LETTERS + std::string("+.-")) != std::string::npos || strHost.empty() ||
        strHost.find_first_not_of(LETTERS + std::string("._-[]:")) != std::string::npos)
        return false;
    const bool bWeb = strScheme == "http" || strScheme == "https";
    return !bWeb || (!strHost.ends_with(strScheme == "http" ? ":80" : ":443") && CheckUrl(aText).empty());
}

}  // namespace tool
