#include "tools/endpoint.h"

#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tool {

namespace {

std::string Quote(const std::string& aText) { return "'" + aText + "': "; }

// TRUE: the text needs no further port.
bool IsWhole(const std::string& aHost) {
    const size_t stColon = aHost.find(':');
    if (aHost.starts_with('['))
        return aHost.find("]:") != std::string::npos;
    return aHost.starts_with("unix:") || (stColon != std::string::npos && stColon == aHost.rfind(':'));
}

std::string WithPort(const std::string& aHost, int aPort) {
    const bool bBare = aHost.find(':') != std::string::npos && !aHost.starts_with('[');
    return (bBare ? "[" + aHost + "]" : aHost) + ":" + std::to_string(aPort);
}

std::string DescribeRefusal(const CCmInetAddr& aAddr, CmResult aReason) {
    switch (aReason) {
    case CM_ERROR_NETWORK_DNS_FAILURE:
        return "cannot resolve '" + aAddr.GetIpDisplayName() + "'";
    case CM_ERROR_NETWORK_TLS_CERTIFICATE:
        return "the certificate of " + cm_address_text(aAddr) + " is refused";
    case CM_ERROR_NETWORK_TLS_HANDSHAKE:
        return "cannot agree on TLS with " + cm_address_text(aAddr);
    case CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE:
        return "no proxy server connects to " + cm_address_text(aAddr);
    default:
        return "cannot connect to " + cm_address_text(aAddr);
    }
}

// A socket of IPv6 also takes IPv4, but a machine may be without IPv6.
const char* GetAnyAddress() {
    const int nFd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (nFd == -1)
        return "0.0.0.0";
    close(nFd);
    return "::";
}

std::string JudgeListening(const std::string& aText, CCmInetAddr& aAddr) {
    std::string strReason;
    if (CCmInetAddr::Parse(aText, aAddr, &strReason) != CM_OK)
        return strReason;
    if (aAddr.IsResolved())
        return "";
    // Other names may stand for several addresses, or for one of another machine.
    if (strcasecmp(aAddr.GetIpDisplayName().c_str(), "localhost") == 0)
        return CCmInetAddr::Parse(WithPort("127.0.0.1", aAddr.GetPort()), aAddr, &strReason) == CM_OK ? "" : strReason;
    return "a name other than localhost, but an address is needed";
}

}  // namespace

std::string ParseEndpoint(const std::string& aText, CCmInetAddr& aAddr) {
    std::string strReason;
    if (CCmInetAddr::Parse(aText, aAddr, &strReason) != CM_OK)
        return Quote(aText) + strReason;
    return aAddr.GetPort() == 0 && !IsPath(aAddr) ? Quote(aText) + "port 0 is not a port to connect to" : "";
}

std::string ParseLocal(const std::string& aText, CCmInetAddr& aAddr) {
    const std::string strProblem = JudgeListening(IsWhole(aText) ? aText : WithPort(aText, 0), aAddr);
    if (!strProblem.empty())
        return Quote(aText) + strProblem;
    return IsPath(aAddr) ? Quote(aText) + "a path, but an IP address is needed" : "";
}

std::string ParseListening(const std::string& aHost, int aPort, CCmInetAddr& aAddr) {
    const bool bWhole = IsWhole(aHost);
    if (bWhole == (aPort != NO_PORT))
        return bWhole ? "--port: --host has a port or a path already" : "--port is required";
    const std::string strHost = aHost.empty() ? GetAnyAddress() : aHost;
    const std::string strProblem = JudgeListening(bWhole ? strHost : WithPort(strHost, aPort), aAddr);
    return strProblem.empty() ? "" : "--host: " + Quote(aHost) + strProblem;
}

std::string ParseListenEndpoint(const std::string& aText, CCmInetAddr& aAddr) {
    const std::string strProblem = JudgeListening(aText, aAddr);
    return strProblem.empty() ? "" : Quote(aText) + strProblem;
}

bool IsHost(const std::string& aText) {
    CCmInetAddr addr;
    return CCmInetAddr::Parse(WithPort(aText, 0), addr) == CM_OK;
}

std::string DescribeCause(const CCmFailure& aFailure, CmResult aReason) {
    return ": " + (aFailure ? std::string(aFailure.GetText()) : DescribeResult(aReason));
}

Failure DescribeConnectFailure(const CCmInetAddr& aAddr, ICmConnector& aConnector, CmResult aReason) {
    CCmFailure failure;
    if (ICmConnectOptions* pOptions = cm_get_connect_options(&aConnector))
        pOptions->GetOption(CM_OPT_CONNECT_FAILURE, &failure);
    const ECause cause = GetCause(aReason, failure);
    return {cause == CAUSE_OTHER || cause == CAUSE_BROKEN ? CAUSE_CONNECT : cause,
            DescribeRefusal(aAddr, aReason) + DescribeCause(failure, aReason)};
}

Failure DescribeEnd(const std::string& aConnection, ICmTransport& aTransport, CmResult aReason) {
    CCmFailure failure;
    const bool bKnown = aTransport.GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure) == CM_OK;
    if (bKnown && !failure)
        return {CAUSE_BROKEN, aConnection + " was closed by the peer"};
    const ECause cause = GetCause(aReason, failure);
    const bool bCut = aReason == CM_ERROR_NETWORK_TLS_CUT;
    return {cause == CAUSE_OTHER ? CAUSE_BROKEN : cause,
            aConnection + (bCut ? " broke, and the stream was cut" : " broke") + DescribeCause(failure, aReason)};
}

// The client of a Unix socket has no path.
std::string GetPeerText(ICmTransport& aTransport) {
    CCmInetAddr addr;
    if (aTransport.GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &addr) != CM_OK)
        return "an unknown peer";
    ucred process{};
    if (IsPath(addr) && aTransport.GetOption(CM_OPT_TRANSPORT_PEER_CREDENTIALS, &process) == CM_OK)
        return "process " + std::to_string(process.pid);
    return cm_address_text(addr);
}

}  // namespace tool
