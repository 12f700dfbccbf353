// Addresses as given on the command line, and in messages.
#pragma once

#include <string>

#include "talvo/talvo.h"
#include "tools/failure.h"

namespace tool {

// The functions that parse return "" or an error text.

// aAddr (out): the endpoint to connect to. aText is "HOST:PORT" with a port from 1 to 65535, and an IPv6 address in brackets,
// or "unix:PATH". A name stays pending.
std::string ParseEndpoint(const std::string& aText, CCmInetAddr& aAddr);

// aAddr (out): the address to connect from, an IPv4 or IPv6 address with any port, or with one ("192.0.2.7:4000").
std::string ParseLocal(const std::string& aText, CCmInetAddr& aAddr);

constexpr int NO_PORT = -1;

// aAddr (out): the address to listen on. aHost is an IPv4 or IPv6 address, or "localhost" for 127.0.0.1; with its port, or as
// "unix:PATH", it needs no aPort. "": all addresses of the machine.
std::string ParseListening(const std::string& aHost, int aPort, CCmInetAddr& aAddr);

// Likewise; aText is "ADDRESS:PORT" or "unix:PATH".
std::string ParseListenEndpoint(const std::string& aText, CCmInetAddr& aAddr);

// TRUE: an address, or a possible host name.
bool IsHost(const std::string& aText);

inline bool IsPath(const CCmInetAddr& aAddr) { return aAddr.GetType() == AF_UNIX; }

// Of a failed connect of aConnector; aReason is its result.
Failure DescribeConnectFailure(const CCmInetAddr& aAddr, ICmConnector& aConnector, CmResult aReason);

// Of the end of aConnection, such as "the connection to 192.0.2.7:7070". Call it in OnDisconnect.
Failure DescribeEnd(const std::string& aConnection, ICmTransport& aTransport, CmResult aReason);

// ": Connection refused", or the text of the result if the cause is unknown.
std::string DescribeCause(const CCmFailure& aFailure, CmResult aReason);

// The transport's peer, for messages.
std::string GetPeerText(ICmTransport& aTransport);

}  // namespace tool
