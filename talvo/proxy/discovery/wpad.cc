#include "talvo/proxy/discovery/wpad.h"

#include <unistd.h>

#include <algorithm>

#include "talvo/base/config.h"
#include "talvo/base/config_text.h"
#include "talvo/proxy/discovery/settings_file.h"

namespace talvo {

namespace {

constexpr size_t LONGEST_DOMAIN = 248;  // with "wpad."

BOOL IsDomain(std::string_view aText) {
    const auto isNameByte = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
    };
    return aText.size() <= LONGEST_DOMAIN && aText.find('.') != std::string_view::npos && !aText.starts_with('.') &&
           aText.find("..") == std::string_view::npos && std::ranges::all_of(aText, isNameByte);
}

// The first domain behind "domain" or "search".
std::string_view FindDomain(std::string_view aResolverText) {
    while (!aResolverText.empty()) {
        const size_t stEnd = std::min(aResolverText.find('\n'), aResolverText.size());
        const std::string_view line = TrimBlanks(aResolverText.substr(0, stEnd));
        aResolverText.remove_prefix(std::min(stEnd + 1, aResolverText.size()));
        const size_t stBlank = std::min(line.find_first_of(" \t"), line.size());
        const std::string_view domains = TrimBlanks(line.substr(stBlank));
        if ((line.substr(0, stBlank) == "domain" || line.substr(0, stBlank) == "search") && !domains.empty())
            return domains.substr(0, domains.find_first_of(" \t"));
    }
    return {};
}

}  // namespace

CCmString MakeWpadUrl(std::string_view aHostName, std::string_view aResolverText) {
    const size_t stDot = aHostName.find('.');
    CCmString strDomain = to_lower(stDot != std::string_view::npos ? aHostName.substr(stDot + 1) : FindDomain(aResolverText));
    if (strDomain.ends_with('.'))
        strDomain.pop_back();
    return IsDomain(strDomain) ? "http://wpad." + strDomain + "/wpad.dat" : CCmString();
}

CCmString FindWpadUrl() {
    char szName[256] = {};
    if (gethostname(szName, sizeof szName - 1) != 0)
        szName[0] = '\0';
    CSettingsFile resolver(get_string_param("Dns", "ResolverFile", "/etc/resolv.conf"));
    resolver.Read();
    return MakeWpadUrl(szName, resolver.GetText());
}

}  // namespace talvo
