// The connections of an acceptor whose opening has not ended.
#pragma once

#include <unordered_map>

#include "talvo/base/with_memory.h"
#include "talvo/connection/protocol/opening_conn.h"

namespace talvo {

// Holds a reference to each. Constant time for any number of them. Network thread only.
class TALVO_API CConnServerList {
public:
    CConnServerList() = default;
    CConnServerList(const CConnServerList&) = delete;
    CConnServerList& operator=(const CConnServerList&) = delete;

    // Has no effect for a connection in the list. FALSE: memory ran out.
    CmBool Add(const COpeningConn& aOpening) {
        return WithMemory([&] { m_Connections.emplace(aOpening.m_pConn.Get(), aOpening); });
    }

    // Removes a connection; empty: it is not in the list.
    COpeningConn Take(const CConnBase& aConn);

    // Cancels and releases them all.
    void CancelAll();

private:
    std::unordered_map<const CConnBase*, COpeningConn> m_Connections;
};

}  // namespace talvo
