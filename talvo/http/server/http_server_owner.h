// The acceptor of an HTTP server, as its connections use it.
#pragma once

#include <string_view>

#include "talvo/http/server/channel_server.h"
#include "talvo/http/server/http_server_settings.h"

namespace talvo {

class CHttpServerConnection;

// The services of the acceptor to its connections. It outlives them.
class CHttpServerOwner {
public:
    virtual const CHttpServerSettings& GetSettings() const = 0;
    // Counts the looks at the clock, one a second.
    virtual CmDword GetLooks() const = 0;
    // The end of a head: "Date", "Connection", the empty line.
    virtual std::string_view GetTail(CmBool aKeepAlive) = 0;
    virtual void OnRequest(ICmChannelHttpServer& aChannel) = 0;
    // A request without a sink has been lost.
    virtual void OnRequestLost(CmResult aReason, ICmChannelHttpServer& aChannel) = 0;
    // The client of a request without a sink has ended its sending side.
    virtual void OnClientEnd(ICmChannelHttpServer& aChannel) = 0;
    // See ICmHttpRefusalSink.
    virtual void OnRefused(int aStatus, const CCmHttpRequestHead& aRequest, const CCmInetAddr& aPeer, CmDword aBytes) = 0;
    // The connection has ended: removes it.
    virtual void Remove(CHttpServerConnection& aConnection) = 0;

protected:
    ~CHttpServerOwner() = default;
};

}  // namespace talvo
