// The exchange with DNS servers.
#pragma once

#include <memory>
#include <vector>

#include "talvo/transport/dns/dns_cache.h"
#include "talvo/transport/dns/dns_settings.h"

class ICmReactor;

namespace talvo {

// An answer and its name.
struct CDnsNamedAnswer {
    CCmString m_strName;
    CDnsAnswer m_Answer;
};

// Receives a channel's answers.
class IDnsChannelUser {
public:
    // The answers since the last call. Called from the reactor's loop, never inside Query. It may destroy the channel.
    virtual void OnDnsAnswers(std::vector<CDnsNamedAnswer> aAnswers) = 0;
    // Memory ran out, and a question has no answer. Called likewise.
    virtual void OnDnsNoMemory() = 0;

protected:
    virtual ~IDnsChannelUser() = default;
};

// Asks the servers of its settings for IPv4 addresses, with retries, search domains, and TCP after a truncated answer. It lives
// in one thread, whose reactor watches its sockets and runs its timer. Time-outs of servers use the system's monotonic clock.
// Settings and resolver file are read once, so a change needs a new channel.
class CDnsChannel {
public:
    CDnsChannel(ICmReactor& aReactor, IDnsChannelUser& aUser, const CDnsSettings& aSettings);
    // Drops the questions under way without a report.
    ~CDnsChannel();
    CDnsChannel(const CDnsChannel&) = delete;
    CDnsChannel& operator=(const CDnsChannel&) = delete;

    // One answer follows. FALSE: memory ran out, and no answer follows.
    BOOL Query(const CCmString& aName);

private:
    class CImpl;
    const std::unique_ptr<CImpl> m_pImpl;
};

}  // namespace talvo
