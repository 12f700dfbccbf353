// The option table of the UDP transport.
#include <cerrno>

#include "talvo/base/trace.h"
#include "talvo/transport/udp/transport_udp.h"

CCmSocketBase* CCmTransportUdp::GetSocket_i() const {
    talvo::CDatagramPort* pPort = GetPort();
    return pPort ? &pPort->GetSocket() : nullptr;
}

CmResult CCmTransportUdp::SetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    switch (aCommand) {
    case CM_OPT_TRANSPORT_FD:
        return Detach_i(*static_cast<HANDLE*>(aArg));
    case CM_OPT_TRANSPORT_PAUSE_READING:
        return PauseReading_i(!!*static_cast<BOOL*>(aArg));
    case CM_OPT_TRANSPORT_LAYERED:
        return SetLayered_i(*static_cast<BOOL*>(aArg));
    default:
        return SetSocketOption_i("CCmTransportUdp", GetSocket_i(), aCommand, aArg);
    }
}

CmResult CCmTransportUdp::GetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    CCmSocketBase* pSocket = GetSocket_i();
    switch (aCommand) {
    case CM_OPT_TRANSPORT_UNACKNOWLEDGED:
        *static_cast<DWORD*>(aArg) = 0;  // UDP has no acknowledgements
        return CM_OK;
    case CM_OPT_TRANSPORT_LOCAL_ADDR:
        if (pSocket && pSocket->GetLocalAddr(*static_cast<CCmInetAddr*>(aArg)) == 0)
            return CM_OK;
        CM_WARNING_TRACE_THIS("CCmTransportUdp::GetOption, (CM_OPT_TRANSPORT_LOCAL_ADDR) failed! err=" << errno);
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    case CM_OPT_TRANSPORT_PEER_ADDR:
        *static_cast<CCmInetAddr*>(aArg) = m_AddrPeer;
        return CM_OK;
    case CM_OPT_TRANSPORT_LAST_FAILURE:
        *static_cast<CCmFailure*>(aArg) = GetFailure_i(m_AddrPeer);
        return CM_OK;
    case CM_OPT_TRANSPORT_SOCK_ALIVE:
        *static_cast<BOOL*>(aArg) = GetHandle() != CM_INVALID_HANDLE;
        return *static_cast<BOOL*>(aArg) ? CM_OK : CM_ERROR_NOT_INITIALIZED;
    case CM_OPT_TRANSPORT_TRAN_TYPE:
        *static_cast<DWORD*>(aArg) = CM_TRANSPORT_TYPE_UDP;
        return CM_OK;
    case CM_OPT_TRANSPORT_PAUSE_READING:
        *static_cast<BOOL*>(aArg) = m_bReadingPaused;
        return CM_OK;
    default:
        return GetSocketOption_i("CCmTransportUdp", pSocket, aCommand, aArg);
    }
}
