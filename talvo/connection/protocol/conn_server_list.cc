#include "talvo/connection/protocol/conn_server_list.h"

#include <utility>

namespace talvo {

COpeningConn CConnServerList::Take(const CConnBase& aConn) {
    auto node = m_Connections.extract(&aConn);
    return node ? std::move(node.mapped()) : COpeningConn();
}

// Each is out before it hears of it, so that nothing it does can meet it here.
void CConnServerList::CancelAll() {
    while (!m_Connections.empty()) {
        const auto node = m_Connections.extract(m_Connections.begin());
        node.mapped().Cancel();
    }
}

}  // namespace talvo
