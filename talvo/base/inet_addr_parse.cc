// CCmInetAddr::Parse: reads an endpoint that a person typed.
#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

#include "talvo/base/ascii.h"
#include "talvo/base/inet_addr.h"
#include "talvo/base/with_memory.h"

namespace {

constexpr size_t MAX_NAME_LENGTH = 253;
constexpr size_t MAX_LABEL_LENGTH = 63;
constexpr size_t MAX_PORT_DIGITS = 5;
constexpr std::string_view DIGITS = "0123456789";
constexpr std::string_view HEX_DIGITS = "0123456789abcdefABCDEF";
constexpr std::string_view LABEL_LETTERS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";

bool ConsistsOf(std::string_view aText, std::string_view aLetters) {
    return aText.find_first_not_of(aLetters) == std::string_view::npos;
}

// Decimal, octal, or hexadecimal behind 0x, as in the parts of an address for inet_addr().
bool IsNumber(std::string_view aLabel) {
    const bool bHex = aLabel.starts_with("0x") || aLabel.starts_with("0X");
    return bHex ? ConsistsOf(aLabel.substr(2), HEX_DIGITS) : ConsistsOf(aLabel, DIGITS);
}

// A text whose last label is a number could be read as an address ("1.2", "0x7f.1", "256.1.1.1"), so it is not a name.
bool IsHostName(std::string_view aHost) {
    if (aHost.ends_with('.'))
        aHost.remove_suffix(1);
    if (aHost.size() > MAX_NAME_LENGTH)
        return false;
    for (;;) {
        const size_t stEnd = std::min(aHost.find('.'), aHost.size());
        const std::string_view label = aHost.substr(0, stEnd);
        if (label.empty() || label.size() > MAX_LABEL_LENGTH || !ConsistsOf(label, LABEL_LETTERS))
            return false;
        if (stEnd == aHost.size())
            return !IsNumber(label);
        aHost.remove_prefix(stEnd + 1);
    }
}

std::optional<WORD> ParsePort(std::string_view aText) {
    if (aText.empty() || aText.size() > MAX_PORT_DIGITS || !ConsistsOf(aText, DIGITS))
        return std::nullopt;
    DWORD dwPort = 0;
    std::from_chars(aText.data(), aText.data() + aText.size(), dwPort);
    return dwPort <= UINT16_MAX ? std::optional(static_cast<WORD>(dwPort)) : std::nullopt;
}

CmResult Refuse(CCmString* aReason, const char* aText) {
    if (aReason)
        *aReason = aText;
    return CM_ERROR_INVALID_ARG;
}

constexpr std::string_view UNIX = "unix:";

// Otherwise "unix" is a host.
bool IsPath(std::string_view aText) {
    return aText.starts_with(UNIX) && (aText.find('/') != std::string_view::npos || aText.substr(UNIX.size()).starts_with('@'));
}

CmResult ParsePath(std::string_view aText, CCmInetAddr& aAddr, CCmString* aReason) {
    CmResult rv = CM_ERROR_INVALID_ARG;
    if (!talvo::has_control(aText))
        rv = aAddr.SetPath(CCmString(aText.substr(UNIX.size())).c_str());
    if (rv == CM_ERROR_INVALID_ARG || rv == CM_ERROR_NOT_AVAILABLE)
        return Refuse(aReason, "the path is not 1 to 107 bytes without control characters");
    return rv;
}

// aIp (out): a literal address, or none for a name. Returns the fault, or null.
const char* ParseHost(std::string_view aHost, talvo::CIpBytes& aIp) {
    if (aHost.starts_with('[') && aHost.ends_with(']')) {
        const std::string_view literal = aHost.substr(1, aHost.size() - 2);
        if (literal.find(':') == std::string_view::npos || !talvo::CIpBytes::Parse(literal.substr(0, literal.find('%')), aIp))
            return "the text in brackets is not an IPv6 address";
        return talvo::CIpBytes::Parse(literal, aIp) ? nullptr : "no interface of a link-local address follows the '%'";
    }
    if (aHost.find(':') != std::string_view::npos)
        return "an IPv6 address needs brackets: [HOST]:PORT";
    if (talvo::CIpBytes::Parse(aHost, aIp) || IsHostName(aHost))
        return nullptr;
    return "the host is neither an address nor a host name";
}

}  // namespace

CmResult CCmInetAddr::Parse(std::string_view aHostAndPort, CCmInetAddr& aAddr, CCmString* aReason) {
    CmResult rv = CM_OK;
    return talvo::WithMemory([&] { rv = Parse_i(aHostAndPort, aAddr, aReason); }) ? rv : CM_ERROR_OUT_OF_MEMORY;
}

CmResult CCmInetAddr::Parse_i(std::string_view aHostAndPort, CCmInetAddr& aAddr, CCmString* aReason) {
    if (IsPath(aHostAndPort))
        return ParsePath(aHostAndPort, aAddr, aReason);
    const size_t stColon = aHostAndPort.rfind(':');
    const size_t stBracket = aHostAndPort.rfind(']');
    if (stColon == std::string_view::npos || (stBracket != std::string_view::npos && stColon < stBracket))
        return Refuse(aReason, "there is no port: HOST:PORT is needed");
    const std::string_view host = aHostAndPort.substr(0, stColon);
    talvo::CIpBytes ip;
    if (const char* pFault = ParseHost(host, ip))
        return Refuse(aReason, pFault);
    const std::optional<WORD> port = ParsePort(aHostAndPort.substr(stColon + 1));
    if (!port && aHostAndPort.starts_with(UNIX))
        return Refuse(aReason, "a path contains a '/', as in unix:./NAME");
    if (!port)
        return Refuse(aReason, "the port is not a number from 0 to 65535");
    CCmInetAddr addr(ip, *port);
    if (!ip)
        addr.SetName_i(CCmString(host).c_str(), *port);
    aAddr = std::move(addr);
    return CM_OK;
}
