// The option table of the TCP transport.
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/rest_option.h"
#include "talvo/transport/tcp/transport_tcp.h"

CmResult CCmTransportTcp::SetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    switch (aCommand) {
    case CM_OPT_TRANSPORT_FD:
        return Detach_i(*static_cast<HANDLE*>(aArg));
    case CM_OPT_TRANSPORT_PAUSE_READING:
        return PauseReading_i(*static_cast<BOOL*>(aArg));
    case CM_OPT_TRANSPORT_LAYERED:
        return SetLayered_i(*static_cast<BOOL*>(aArg));
    case talvo::OPT_REST_BEFORE_FAILURE:
        m_bRestFirst = !!*static_cast<BOOL*>(aArg);
        return CM_OK;
    case CM_OPT_TRANSPORT_TELL_END:
        return SetTellEnd_i(*static_cast<BOOL*>(aArg));
    case CM_OPT_TRANSPORT_END_SENDING:
        return EndSending_i(*static_cast<BOOL*>(aArg));
    case CM_OPT_TRANSPORT_READ_SIZE:
        return SetReadSize_i(*static_cast<DWORD*>(aArg));
    default:
        return SetSocketOption_i("CCmTransportTcp", &m_SocketTcp, aCommand, aArg);
    }
}

CmResult CCmTransportTcp::GetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    switch (aCommand) {
    case CM_OPT_TRANSPORT_UNACKNOWLEDGED:
        return GetUnacknowledged_i(*static_cast<DWORD*>(aArg));
    case CM_OPT_TRANSPORT_FIO_NREAD: {
        const CmResult rv = GetSocketOption_i("CCmTransportTcp", &m_SocketTcp, aCommand, aArg);
        if (rv == CM_OK)
            *static_cast<int*>(aArg) += static_cast<int>(GetHeld_i());
        return rv;
    }
    case CM_OPT_TRANSPORT_LOCAL_ADDR:
        return GetLocalAddr_i(*static_cast<CCmInetAddr*>(aArg));
    case CM_OPT_TRANSPORT_PEER_ADDR:
        return GetPeerAddr_i(*static_cast<CCmInetAddr*>(aArg));
    case CM_OPT_TRANSPORT_LAST_FAILURE: {
        CCmInetAddr addrPeer;
        GetPeerAddr_i(addrPeer);
        *static_cast<CCmFailure*>(aArg) = GetFailure_i(addrPeer);
        return CM_OK;
    }
    case CM_OPT_TRANSPORT_SOCK_ALIVE:
        return IsAlive_i(*static_cast<BOOL*>(aArg));
    case CM_OPT_TRANSPORT_TRAN_TYPE:
        *static_cast<DWORD*>(aArg) = CM_TRANSPORT_TYPE_TCP;
        return CM_OK;
    case CM_OPT_TRANSPORT_ROUTE: {
        auto& strRoute = *static_cast<CCmString*>(aArg);
        return talvo::WithMemory([&] { strRoute = m_pRoute ? *m_pRoute : "direct://"; }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
    }
    case CM_OPT_TRANSPORT_PEER_CREDENTIALS:
        return GetPeerCredentials_i(*static_cast<ucred*>(aArg));
    case CM_OPT_TRANSPORT_READ_SIZE:
        *static_cast<DWORD*>(aArg) = m_dwReadSize;
        return CM_OK;
    case CM_OPT_TRANSPORT_PAUSE_READING:
        *static_cast<BOOL*>(aArg) = m_bReadingPaused;
        return CM_OK;
    default:
        return GetSocketOption_i("CCmTransportTcp", &m_SocketTcp, aCommand, aArg);
    }
}

CmResult CCmTransportTcp::GetUnacknowledged_i(DWORD& aBytes) {
    if (GetHandle() != CM_INVALID_HANDLE) {
        aBytes = 0;
        // The peer's system is this one. It counts what the peer has not read, with its own overhead.
        if (!m_AddrPeer.IsPath() && m_SocketTcp.Control(SIOCOUTQ, &aBytes) != 0)
            return CM_ERROR_NETWORK_SOCKET_ERROR;
        aBytes += GetUnsent_i();
        return CM_OK;
    }
    if (m_dwLost == 0)
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    aBytes = m_dwLost;
    return CM_OK;
}

CmResult CCmTransportTcp::GetLocalAddr_i(CCmInetAddr& aAddr) {
    CCmInetAddr addr;
    if (!m_AddrLocal.Load(addr) && m_SocketTcp.GetLocalAddr(addr) != 0) {
        CM_WARNING_TRACE_THIS("CCmTransportTcp::GetOption, (CM_OPT_TRANSPORT_LOCAL_ADDR) failed! err=" << errno);
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    }
    m_AddrLocal.Store(addr);
    aAddr = addr;
    return CM_OK;
}

CmResult CCmTransportTcp::GetPeerAddr_i(CCmInetAddr& aAddr) {
    CCmInetAddr addr;
    if (!m_AddrPeer.Load(addr) && m_SocketTcp.GetRemoteAddr(addr) != 0) {
        CM_WARNING_TRACE_THIS("CCmTransportTcp::GetOption, (CM_OPT_TRANSPORT_PEER_ADDR) failed! err=" << errno);
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    }
    m_AddrPeer.Store(addr);
    aAddr = addr;
    return CM_OK;
}

// The system also answers for other sockets, with an invalid user.
CmResult CCmTransportTcp::GetPeerCredentials_i(ucred& aPeer) const {
    if (!m_AddrPeer.IsPath())
        return CM_ERROR_INVALID_ARG;
    int nLength = sizeof aPeer;
    const int nRv = m_SocketTcp.GetOption(SOL_SOCKET, SO_PEERCRED, &aPeer, &nLength);
    return nRv == 0 ? CM_OK : CM_ERROR_NETWORK_SOCKET_ERROR;
}
