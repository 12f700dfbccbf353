// A queue for data that a transport has not taken yet.
#pragma once

#include <deque>
#include <string_view>

#include "talvo/talvo.h"

namespace tool {

// Sends, and queues data in order until the transport's OnSend; messages stay separate. Used in the transport's thread.
class Outbox {
public:
    Outbox() = default;
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    // CM_OK: the transport has taken everything. CM_ERROR_PARTIAL_DATA: the rest is queued here for SendRest; send little more
    // until then. Any other result: the connection cannot be used any more.
    CmResult Send(ICmTransport& aTransport, CCmMessageBlock& aChain);
    CmResult Send(ICmTransport& aTransport, std::string_view aBytes);

    // Call it in OnSend. Results as Send.
    CmResult SendRest(ICmTransport& aTransport);

    void Clear() { m_Rest.clear(); }
    size_t GetCount() const { return m_Rest.size(); }  // pieces that wait

private:
    CmResult Keep(const CCmMessageBlock& aChain);

    std::deque<CCmChainPtr> m_Rest;
};

}  // namespace tool
