#include "talvo/proxy/proxy_wire.h"

#include <sys/uio.h>

#include "talvo/transport/would_block.h"

namespace talvo {

namespace {

int CountOf(CTlsSession::EResult aResult, DWORD aRead) {
    if (aRead > 0)
        return static_cast<int>(aRead);
    return aResult == CTlsSession::WANT_READ ? WOULD_BLOCK : -1;
}

}  // namespace

int CProxyWire::Peek(char* aBuf, DWORD aLen) {
    if (!m_pTls)
        return m_Transport.Peek_i(aBuf, aLen);
    DWORD dwRead = 0;
    const CTlsSession::EResult result = m_pTls->GetOuter()->Peek(aBuf, aLen, dwRead);
    return CountOf(result, dwRead);
}

int CProxyWire::Recv(char* aBuf, DWORD aLen) {
    if (!m_pTls)
        return m_Transport.Recv_i(aBuf, aLen);
    DWORD dwRead = 0;
    BOOL bMore = FALSE;
    const CTlsSession::EResult result = m_pTls->GetOuter()->Read(aBuf, aLen, dwRead, bMore);
    return CountOf(result, dwRead);
}

int CProxyWire::Send(const char* aBuf, DWORD aLen) {
    if (!m_pTls)
        return m_Transport.Send_i(aBuf, aLen);
    const iovec piece{const_cast<char*>(aBuf), aLen};
    DWORD dwTaken = 0;
    const CTlsSession::EResult result = m_pTls->GetOuter()->Write(&piece, 1, dwTaken);
    return result == CTlsSession::FAILED ? -1 : static_cast<int>(dwTaken);
}

BOOL CProxyWire::HasUnsent() { return m_pTls && m_pTls->GetOuter()->Flush(FALSE) == CTlsSession::WANT_WRITE; }

// The transport of type 1 has no other session than that with the proxy.
void CProxyWire::OnTunnel() {
    DWORD dwType = 0;
    if (m_pTls && m_pTls->GetOption(CM_OPT_TRANSPORT_TRAN_TYPE, &dwType) == CM_OK && dwType == CM_TRANSPORT_TYPE_TCP)
        m_pTls->UseOuter();
}

}  // namespace talvo
