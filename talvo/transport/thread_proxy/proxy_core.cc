#include "talvo/transport/thread_proxy/proxy_core.h"

namespace talvo {

BOOL CProxyCore::Host_i() {
    if (!m_pSelf && m_pNetwork->Join(*this) == CM_OK)
        m_pSelf = this;
    return static_cast<bool>(m_pSelf);
}

void CProxyCore::Leave_i() {
    m_pNetwork->Leave(*this);
    m_pSelf.Reset();
}

}  // namespace talvo
