// The conversation with DNS servers.
#pragma once

#include <memory>
#include <vector>

#include "talvo/transport/dns/dns_cache.h"
#include "talvo/transport/dns/dns_settings.h"

class ICmReactor;

namespace talvo {

// An answer and the name it belongs to.
struct CDnsNamedAnswer {
    CCmString m_strName;
    CDnsAnswer m_Answer;
};

// To whom a channel reports.
class IDnsChannelUser {
public:
    // What has come since the last call. From the reactor's loop, never from inside Query; may destroy the channel.
    virtual void OnDnsAnswers(std::vector<CDnsNamedAnswer> aAnswers) = 0;
    // Memory ran out, and some question has no answer. Likewise.
    virtual void OnDnsNoMemory() = 0;

protected:
    virtual ~IDnsChannelUser() = default;
};

// Asks the servers of its settings for IPv4 addresses, with retries, search domains, and TCP where an answer is cut short. It
// lives in one thread: the reactor watches its sockets and keeps its time. Time-outs of servers run on the system's monotonic
// clock. Settings and resolver file are read once, so a change takes a new channel.
class CDnsChannel {
public:
    CDnsChannel(ICmReactor& aReactor, IDnsChannelUser& aUser, const CDnsSettings& aSettings);
    // Drops what is under way, without a word.
    ~CDnsChannel();
    CDnsChannel(const CDnsChannel&) = delete;
    CDnsChannel& operator=(const CDnsChannel&) = delete;

    // One answer follows. FALSE: memory ran out, and none does.
    BOOL Query(const CCmString& aName);

private:
    class CImpl;
    const std::unique_ptr<CImpl> m_pImpl;
};

}  // namespace talvo
