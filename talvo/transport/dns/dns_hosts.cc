#include "talvo/transport/dns/dns_hosts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "talvo/base/ascii.h"
#include "talvo/base/read_text.h"
#include "talvo/base/with_memory.h"

namespace talvo {

namespace {

constexpr std::string_view BLANKS = " \t\r\v\f";
constexpr std::string_view LOCALHOST = "localhost";

// Removes the next word from aLine and returns it; empty at the end.
std::string_view TakeWord(std::string_view& aLine) {
    aLine.remove_prefix(std::min(aLine.find_first_not_of(BLANKS), aLine.size()));
    const std::string_view strWord = aLine.substr(0, aLine.find_first_of(BLANKS));
    aLine.remove_prefix(strWord.size());
    return strWord;
}

std::string_view WithoutDot(std::string_view aName) {
    if (aName.ends_with('.'))
        aName.remove_suffix(1);
    return aName;
}

BOOL IsLocalhost(std::string_view aName) { return aName == LOCALHOST || aName.ends_with(".localhost"); }

BOOL IsRegular(HANDLE aFd) {
    struct stat status {};
    return fstat(aFd, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

CmResult CDnsHosts::Load(const CCmString& aPath) {
    m_Names.clear();
    const HANDLE fd = open(aPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd == CM_INVALID_HANDLE)
        return CM_ERROR_NOT_FOUND;
    std::optional<CCmString> strText;
    const BOOL bMemory = !IsRegular(fd) || WithMemory([&] { strText = ReadText(fd, MAX_FILE_LENGTH); });
    close(fd);
    if (!strText)
        return bMemory ? CM_ERROR_NOT_FOUND : CM_ERROR_OUT_OF_MEMORY;
    return WithMemory([&] { Parse(*strText); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

void CDnsHosts::Parse(std::string_view aText) {
    m_Names.clear();
    while (!aText.empty()) {
        const size_t nEnd = std::min(aText.find('\n'), aText.size());
        ParseLine_i(aText.substr(0, nEnd));
        aText.remove_prefix(std::min(nEnd + 1, aText.size()));
    }
}

void CDnsHosts::ParseLine_i(std::string_view aLine) {
    aLine = aLine.substr(0, aLine.find('#'));
    CIpBytes address;
    if (!CIpBytes::Parse(TakeWord(aLine), address))
        return;
    for (std::string_view strName = TakeWord(aLine); !strName.empty(); strName = TakeWord(aLine)) {
        std::vector<CIpBytes>& addresses = m_Names[to_lower(WithoutDot(strName))];
        if (std::find(addresses.begin(), addresses.end(), address) == addresses.end())
            addresses.push_back(address);
    }
}

const std::vector<CIpBytes>* CDnsHosts::Find(std::string_view aName) const {
    const auto found = m_Names.find(CCmString(WithoutDot(aName)));
    return found != m_Names.end() ? &found->second : FindBuiltIn(aName);
}

const std::vector<CIpBytes>* CDnsHosts::FindBuiltIn(std::string_view aName) {
    static const std::vector<CIpBytes>& s_Loopback =
        *new std::vector<CIpBytes>{CIpBytes::OfIpv6(in6addr_loopback), CIpBytes::OfIpv4(htonl(INADDR_LOOPBACK))};
    return IsLocalhost(WithoutDot(aName)) ? &s_Loopback : nullptr;
}

}  // namespace talvo
