// HOST:PORT as it is typed.
#pragma once

#include <string>

#include "talvo/talvo.h"

namespace tool {

struct Endpoint {
    std::string m_strHost;
    WORD m_wPort = 0;

    std::string GetText() const { return m_strHost + ":" + std::to_string(m_wPort); }
    CCmInetAddr GetInetAddr() const { return CCmInetAddr(m_strHost.c_str(), m_wPort); }
};

// Four decimal numbers of 0 to 255, without leading zeros: the one form that everybody reads alike.
bool IsIpv4Literal(const std::string& aText);

// An IPv4 literal or what may be a host name.
bool IsHost(const std::string& aText);

// An IPv4 literal or a host name, a colon and a port from 1 to 65535. What is wrong with it, or "" and aEndpoint is filled.
std::string ParseEndpoint(const std::string& aText, Endpoint& aEndpoint);

// One line on a connect of aConnector's that ended with aReason.
std::string DescribeConnectFailure(const Endpoint& aEndpoint, ICmConnector& aConnector, CmResult aReason);

// How a connection came to its end, for behind "the connection ...": "was closed by the peer" or "broke: ...". In OnDisconnect.
std::string DescribeEnd(ICmTransport& aTransport, CmResult aReason);

// ": Connection refused", or the result's name if no more is known.
std::string DescribeCause(const CCmFailure& aFailure, CmResult aReason);

// The transport's peer, for messages.
std::string GetPeerText(ICmTransport& aTransport);

}  // namespace tool
