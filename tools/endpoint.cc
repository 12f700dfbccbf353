#include "tools/endpoint.h"

#include <arpa/inet.h>

#include <charconv>

namespace tool {

namespace {

constexpr std::string_view LETTERS = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";
constexpr std::string_view DIGITS_AND_DOTS = "0123456789.";

bool IsHostName(std::string_view aHost) {
    const bool bOnlyAllowed = aHost.find_first_not_of(std::string(LETTERS).append(DIGITS_AND_DOTS)) == std::string_view::npos;
    const bool bHasLetter = aHost.find_first_of(LETTERS) != std::string_view::npos;
    return bOnlyAllowed && bHasLetter && aHost.size() <= 253;
}

bool ParsePort(std::string_view aText, WORD& aPort) {
    const char* pEnd = aText.data() + aText.size();
    const auto [pStop, error] = std::from_chars(aText.data(), pEnd, aPort);
    return error == std::errc() && pStop == pEnd && aPort != 0;
}

}  // namespace

bool IsIpv4Literal(const std::string& aText) {
    in_addr address{};
    return inet_pton(AF_INET, aText.c_str(), &address) == 1;
}

bool IsHost(const std::string& aText) { return IsIpv4Literal(aText) || IsHostName(aText); }

std::string ParseEndpoint(std::string_view aText, Endpoint& aEndpoint) {
    const size_t colon = aText.rfind(':');
    const std::string strQuoted = "'" + std::string(aText) + "'";
    if (colon == std::string_view::npos)
        return strQuoted + " is not HOST:PORT";
    const std::string strHost(aText.substr(0, colon));
    if (!IsHost(strHost))
        return strQuoted + " names no host: it is neither an IPv4 address nor a name";
    if (!ParsePort(aText.substr(colon + 1), aEndpoint.m_wPort))
        return strQuoted + " needs a port from 1 to 65535 behind the colon";
    aEndpoint.m_strHost = strHost;
    return "";
}

std::string DescribeConnectFailure(const Endpoint& aEndpoint, CmResult aReason) {
    if (aReason == CM_ERROR_NETWORK_DNS_FAILURE)
        return "cannot resolve '" + aEndpoint.m_strHost + "': the name has no IPv4 address, or no server could be asked";
    return "cannot connect to " + aEndpoint.GetText() + ": nobody listens there or no answer came (" + cm_result_name(aReason) +
           ")";
}

std::string GetPeerText(ICmTransport& aTransport) {
    CCmInetAddr addr;
    if (aTransport.GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &addr) != CM_OK)
        return "an unknown peer";
    return addr.GetIpDisplayName() + ":" + std::to_string(addr.GetPort());
}

}  // namespace tool
