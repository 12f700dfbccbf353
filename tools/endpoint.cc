#include "tools/endpoint.h"

namespace tool {

bool IsHost(const std::string& aText) {
    CCmInetAddr addr;
    return CCmInetAddr::Parse(aText + ":0", addr) == CM_OK;
}

bool IsIpv4Literal(const std::string& aText) {
    CCmInetAddr addr;
    return CCmInetAddr::Parse(aText + ":0", addr) == CM_OK && addr.IsResolved();
}

std::string ParseEndpoint(const std::string& aText, Endpoint& aEndpoint) {
    CCmInetAddr addr;
    std::string strReason;
    if (CCmInetAddr::Parse(aText, addr, &strReason) != CM_OK)
        return "'" + aText + "': " + strReason;
    if (addr.GetPort() == 0)
        return "'" + aText + "': there is nothing to connect to at port 0";
    aEndpoint = {addr.GetIpDisplayName(), addr.GetPort()};
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
