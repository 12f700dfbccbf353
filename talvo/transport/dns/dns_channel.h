// The exchange with DNS servers.
#pragma once

#include <memory>
#include <vector>

#include "talvo/transport/dns/dns_answer.h"
#include "talvo/transport/dns/dns_settings.h"

class ICmReactor;

namespace talvo {

// A question of a look-up, for its full name with that index.
struct CDnsQuestion {
    uint64_t m_ullLookUp = 0;
    size_t m_stFullName = 0;
};

struct CDnsReply {
    CDnsQuestion m_Question;
    BYTE m_byFamily;
    CDnsAnswer m_Answer;
};

// Receives a channel's replies.
class IDnsChannelUser {
public:
    // The replies since the last call. Called from the reactor's loop, never inside Query. It may destroy the channel.
    virtual void OnDnsReplies(std::vector<CDnsReply> aReplies) = 0;
    // Memory ran out, and a question has no reply. Called likewise.
    virtual void OnDnsNoMemory() = 0;

protected:
    virtual ~IDnsChannelUser() = default;
};

// Asks the servers of its settings for addresses of one family, with retries, and TCP after a truncated answer. It lives in one
// thread, whose reactor watches its sockets and runs its timer. Time-outs of servers use the system's monotonic clock. Settings
// and resolver file are read once, so a change needs a new channel.
class CDnsChannel {
public:
    CDnsChannel(ICmReactor& aReactor, IDnsChannelUser& aUser, const CDnsSettings& aSettings, BYTE aFamily);
    // Drops the questions under way without a report.
    ~CDnsChannel();
    CDnsChannel(const CDnsChannel&) = delete;
    CDnsChannel& operator=(const CDnsChannel&) = delete;

    // The full names to ask for in turn: aName itself and in each search domain, as the resolver file orders them.
    std::vector<CCmString> GetFullNames(const CCmString& aName) const;

    // One reply follows. FALSE: memory ran out, and no reply follows.
    BOOL Query(const CDnsQuestion& aQuestion, const CCmString& aFullName);

private:
    class CImpl;
    const std::unique_ptr<CImpl> m_pImpl;
};

}  // namespace talvo
