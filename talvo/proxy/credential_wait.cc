#include "talvo/proxy/credential_wait.h"

#include "talvo/proxy/credential_desk.h"

namespace talvo {

CmResult CCredentialWait::StartTimer(int64_t aUsec) {
    return m_Timer.Schedule(this, CCmTimeValue(static_cast<long>(aUsec / 1000000), static_cast<long>(aUsec % 1000000)), 1);
}

// The sink may do anything inside.
CmResult CCredentialWait::OnEventFire() {
    ICmProxyCredentialsSink* pSink = m_Desk.Remove(*this);
    m_Timer.Cancel();
    if (pSink)
        pSink->OnProxyCredentials(m_Result, m_Credentials);
    return CM_OK;
}

// Without OnEventFire the thread has ended.
void CCredentialWait::OnDestorySelf() {
    m_Desk.Remove(*this);
    delete this;
}

void CCredentialWait::OnTimer(CCmTimerWrapperID*) {
    ICmProxyCredentialsSink* pSink = m_Desk.RemoveUnanswered(*this);
    if (!pSink)
        return;  // the answer is on its way
    pSink->OnProxyCredentials(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, {});
    delete this;
}

}  // namespace talvo
