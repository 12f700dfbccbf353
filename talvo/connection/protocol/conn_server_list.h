// The connections of an acceptor whose opening has not ended.
#pragma once

#include <unordered_map>

#include "talvo/base/with_memory.h"
#include "talvo/connection/protocol/opening_conn.h"

namespace talvo {

// Keeps a reference on each. Constant time, however many there are. Network thread only.
class TALVO_API CConnServerList {
public:
    CConnServerList() = default;
    CConnServerList(const CConnServerList&) = delete;
    CConnServerList& operator=(const CConnServerList&) = delete;

    // Nothing happens for a connection that it holds. FALSE: memory ran out.
    BOOL Add(const COpeningConn& aOpening) {
        return WithMemory([&] { m_Connections.emplace(aOpening.m_pConn.Get(), aOpening); });
    }

    // Takes a connection out; empty: it is not here.
    COpeningConn Take(const CConnBase& aConn);

    // Cancels them all, and lets go of them.
    void CancelAll();

private:
    std::unordered_map<const CConnBase*, COpeningConn> m_Connections;
};

}  // namespace talvo
