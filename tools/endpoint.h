// HOST:PORT as given on the command line.
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

// TRUE: four decimal numbers of 0 to 255 without leading zeros. Every program reads this form alike.
bool IsIpv4Literal(const std::string& aText);

// TRUE: an IPv4 literal, or a possible host name.
bool IsHost(const std::string& aText);

// aEndpoint (out): an IPv4 literal or a host name, a colon and a port from 1 to 65535. Returns "" or an error text.
std::string ParseEndpoint(const std::string& aText, Endpoint& aEndpoint);

// One line on a failed connect of aConnector; aReason is its result.
std::string DescribeConnectFailure(const Endpoint& aEndpoint, ICmConnector& aConnector, CmResult aReason);

// For the end of "the connection ...": "was closed by the peer" or "broke: ...". Call it in OnDisconnect.
std::string DescribeEnd(ICmTransport& aTransport, CmResult aReason);

// ": Connection refused", or the result's name if the cause is unknown.
std::string DescribeCause(const CCmFailure& aFailure, CmResult aReason);

// The transport's peer, for messages.
std::string GetPeerText(ICmTransport& aTransport);

}  // namespace tool
