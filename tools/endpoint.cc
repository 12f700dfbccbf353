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
        return "'" + aText + "': port 0 is not a port to connect to";
    aEndpoint = {addr.GetIpDisplayName(), addr.GetPort()};
    return "";
}

std::string DescribeCause(const CCmFailure& aFailure, CmResult aReason) {
    return std::string(": ") + (aFailure ? aFailure.GetText() : cm_result_name(aReason));
}

std::string DescribeConnectFailure(const Endpoint& aEndpoint, ICmConnector& aConnector, CmResult aReason) {
    CCmFailure failure;
    if (ICmConnectOptions* pOptions = cm_get_connect_options(&aConnector))
        pOptions->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
    const std::string strWhat = aReason == CM_ERROR_NETWORK_DNS_FAILURE ? "cannot resolve '" + aEndpoint.m_strHost + "'"
                                                                        : "cannot connect to " + aEndpoint.GetText();
    return strWhat + DescribeCause(failure, aReason);
}

std::string DescribeEnd(ICmTransport& aTransport, CmResult aReason) {
    CCmFailure failure;
    const bool bKnown = aTransport.GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure) == CM_OK;
    return bKnown && !failure ? "was closed by the peer" : "broke" + DescribeCause(failure, aReason);
}

std::string GetPeerText(ICmTransport& aTransport) {
    CCmInetAddr addr;
    if (aTransport.GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &addr) != CM_OK)
        return "an unknown peer";
    return addr.GetIpDisplayName() + ":" + std::to_string(addr.GetPort());
}

}  // namespace tool
