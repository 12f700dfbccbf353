// The option table of the UDP transport.
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>

#include "talvo/base/trace.h"
#include "talvo/transport/udp/transport_udp.h"

CmResult CCmTransportUdp::SetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    talvo::CDatagramPort* pPort = GetPort();
    const auto setInt = [pPort](int aName, int aValue) {
        if (!pPort || pPort->GetSocket().SetOption(SOL_SOCKET, aName, &aValue, sizeof aValue) == -1)
            return CM_ERROR_NETWORK_SOCKET_ERROR;
        return CM_OK;
    };
    switch (aCommand) {
    case CM_OPT_TRANSPORT_FD:
        return Detach_i(*static_cast<HANDLE*>(aArg));
    case CM_OPT_TRANSPORT_KEEPALIVE:
        return setInt(SO_KEEPALIVE, *static_cast<DWORD*>(aArg) > 0);  // the system takes it, and does nothing
    case CM_OPT_TRANSPORT_SNDBUF:
        return setInt(SO_SNDBUF, *static_cast<int*>(aArg));
    case CM_OPT_TRANSPORT_RCVBUF:
        return setInt(SO_RCVBUF, *static_cast<int*>(aArg));
    case CM_OPT_TRANSPORT_TOS:
        return pPort ? SetTos2Socket(pPort->GetSocket(), aArg) : CM_ERROR_NETWORK_SOCKET_ERROR;
    case CM_OPT_TRANSPORT_PAUSE_READING:
        return PauseReading_i(!!*static_cast<BOOL*>(aArg));
    case CM_OPT_TRANSPORT_LAYERED:
        return SetLayered_i(*static_cast<BOOL*>(aArg));
    default:
        CM_WARNING_TRACE_THIS("CCmTransportUdp::SetOption, unknow aCommand=" << aCommand << " aArg=" << aArg);
        return CM_ERROR_INVALID_ARG;
    }
}

CmResult CCmTransportUdp::GetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    talvo::CDatagramPort* pPort = GetPort();
    const auto getInt = [pPort, aArg](int aName) {
        int nLength = sizeof(int);
        if (!pPort || pPort->GetSocket().GetOption(SOL_SOCKET, aName, aArg, &nLength) == -1)
            return CM_ERROR_NETWORK_SOCKET_ERROR;
        return CM_OK;
    };
    switch (aCommand) {
    case CM_OPT_TRANSPORT_FIO_NREAD:
        if (pPort && pPort->GetSocket().Control(FIONREAD, aArg) == 0)
            return CM_OK;
        CM_WARNING_TRACE_THIS("CCmTransportUdp::GetOption, (CM_OPT_TRANSPORT_FIO_NREAD) failed! err=" << errno);
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    case CM_OPT_TRANSPORT_UNACKNOWLEDGED:
        *static_cast<DWORD*>(aArg) = 0;  // nobody acknowledges a datagram
        return CM_OK;
    case CM_OPT_TRANSPORT_FD:
        *static_cast<HANDLE*>(aArg) = GetHandle();
        return CM_OK;
    case CM_OPT_TRANSPORT_LOCAL_ADDR:
        if (pPort && pPort->GetSocket().GetLocalAddr(*static_cast<CCmInetAddr*>(aArg)) == 0)
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
    case CM_OPT_TRANSPORT_SNDBUF:
        return getInt(SO_SNDBUF);
    case CM_OPT_TRANSPORT_RCVBUF:
        return getInt(SO_RCVBUF);
    case CM_OPT_TRANSPORT_PAUSE_READING:
        *static_cast<BOOL*>(aArg) = m_bReadingPaused;
        return CM_OK;
    default:
        CM_WARNING_TRACE_THIS("CCmTransportUdp::GetOption, unknow aCommand=" << aCommand << " aArg=" << aArg);
        return CM_ERROR_INVALID_ARG;
    }
}
