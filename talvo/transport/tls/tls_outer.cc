#include "talvo/transport/tls/tls_outer.h"

#include <sys/uio.h>

#include <cerrno>

#include "talvo/transport/would_block.h"

namespace talvo {

int CTlsOuter::RecvSealed(char* aBuf, DWORD aLen) {
    DWORD dwRead = 0;
    const CTlsSession::EResult result = m_pSession->Read(aBuf, aLen, dwRead, m_bMore);
    if (dwRead > 0)
        return static_cast<int>(dwRead);
    return result == CTlsSession::WANT_READ ? WOULD_BLOCK : -1;
}

int CTlsOuter::SendSealed(const char* aBuf, DWORD aLen, BOOL) {
    const iovec piece{const_cast<char*>(aBuf), aLen};
    DWORD dwTaken = 0;
    if (m_pSession->Write(&piece, 1, dwTaken, TRUE) != CTlsSession::FAILED || dwTaken > 0)
        return static_cast<int>(dwTaken);
    errno = m_pSession->GetSendErrno() != 0 ? m_pSession->GetSendErrno() : EPROTO;
    return -1;
}

}  // namespace talvo
