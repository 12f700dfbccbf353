// What a transport has not taken yet.
#pragma once

#include <deque>
#include <string_view>

#include "talvo/talvo.h"

namespace tool {

// Sends, and keeps in order what has to wait for the transport's OnSend; a message stays a message. Used in the transport's
// thread.
class Outbox {
public:
    Outbox() = default;
    ~Outbox() { Clear(); }
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    // CM_OK: the transport has taken everything. CM_ERROR_PARTIAL_DATA: the rest is kept here and goes out by SendRest; be slow
    // with more until it has. Any other: the connection cannot be used any more.
    CmResult Send(ICmTransport& aTransport, CCmMessageBlock& aChain);
    CmResult Send(ICmTransport& aTransport, std::string_view aBytes);

    // From OnSend; results as Send.
    CmResult SendRest(ICmTransport& aTransport);

    void Clear();

private:
    CmResult Keep(const CCmMessageBlock& aChain);

    std::deque<CCmMessageBlock*> m_Rest;  // owned
};

}  // namespace tool
