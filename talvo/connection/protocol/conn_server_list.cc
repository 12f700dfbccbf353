#include "talvo/connection/protocol/conn_server_list.h"

#include <utility>

namespace talvo {

COpeningConn CConnServerList::Take(const CConnBase& aConn) {
    auto node = m_Connections.extract(&aConn);
    return node ? std::move(node.mapped()) : COpeningConn();
}

// Each is removed before its call, so that the call cannot find it in the list.
void CConnServerList::CancelAll() {
    while (!m_Connections.empty()) {
        const auto node = m_Connections.extract(m_Connections.begin());
        node.mapped().Cancel();
    }
}

}  // namespace talvo
