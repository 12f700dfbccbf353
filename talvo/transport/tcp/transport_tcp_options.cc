// The option table of the TCP transport.
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>

#include "talvo/base/trace.h"
#include "talvo/transport/tcp/transport_tcp.h"

CmResult CCmTransportTcp::SetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    const auto setInt = [this](int aName, int aValue) {
        const int nRv = m_SocketTcp.SetOption(SOL_SOCKET, aName, &aValue, sizeof aValue);
        return nRv == 0 ? CM_OK : CM_ERROR_NETWORK_SOCKET_ERROR;
    };
    switch (aCommand) {
    case CM_OPT_TRANSPORT_FD:
        return Detach_i(*static_cast<HANDLE*>(aArg));
    case CM_OPT_TRANSPORT_KEEPALIVE: {
        const DWORD dwTime = *static_cast<DWORD*>(aArg);
        const CmResult rv = setInt(SO_KEEPALIVE, dwTime > 0);
        if (rv != CM_OK)
            CM_ERROR_TRACE_THIS("CCmTransportTcp::SetOption, SetOption(SO_KEEPALIVE) failed! dwTime=" << dwTime
                                                                                                      << " err=" << errno);
        return rv;
    }
    case CM_OPT_TRANSPORT_SNDBUF:
        return setInt(SO_SNDBUF, *static_cast<int*>(aArg));
    case CM_OPT_TRANSPORT_RCVBUF:
        return setInt(SO_RCVBUF, *static_cast<int*>(aArg));
    case CM_OPT_TRANSPORT_TOS:
        return SetTos2Socket(m_SocketTcp, aArg);
    case CM_OPT_TRANSPORT_PAUSE_READING:
        return PauseReading_i(*static_cast<BOOL*>(aArg));
    case CM_OPT_TRANSPORT_LAYERED:
        return SetLayered_i(*static_cast<BOOL*>(aArg));
    case CM_OPT_TRANSPORT_TELL_END:
        m_bTellEnd = m_bTellEnd || *static_cast<BOOL*>(aArg);
        return CM_OK;
    case CM_OPT_TRANSPORT_END_SENDING:
        return EndSending_i();
    case CM_OPT_TRANSPORT_READ_SIZE:
        return SetReadSize_i(*static_cast<DWORD*>(aArg));
    default:
        CM_WARNING_TRACE_THIS("CCmTransportTcp::SetOption, unknow aCommand=" << aCommand << " aArg=" << aArg);
        return CM_ERROR_INVALID_ARG;
    }
}

CmResult CCmTransportTcp::GetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    const auto getInt = [this, aArg](int aName) {
        int nLength = sizeof(int);
        const int nRv = m_SocketTcp.GetOption(SOL_SOCKET, aName, aArg, &nLength);
        return nRv == 0 ? CM_OK : CM_ERROR_NETWORK_SOCKET_ERROR;
    };
    switch (aCommand) {
    case CM_OPT_TRANSPORT_FIO_NREAD:
        if (m_SocketTcp.Control(FIONREAD, aArg) == 0)
            return CM_OK;
        CM_WARNING_TRACE_THIS("CCmTransportTcp::GetOption, (CM_OPT_TRANSPORT_FIO_NREAD) failed! err=" << errno);
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    case CM_OPT_TRANSPORT_UNACKNOWLEDGED:
        return m_SocketTcp.Control(SIOCOUTQ, aArg) == 0 ? CM_OK : CM_ERROR_NETWORK_SOCKET_ERROR;
    case CM_OPT_TRANSPORT_FD:
        *static_cast<HANDLE*>(aArg) = GetHandle();
        return CM_OK;
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
    case CM_OPT_TRANSPORT_SNDBUF:
        return getInt(SO_SNDBUF);
    case CM_OPT_TRANSPORT_RCVBUF:
        return getInt(SO_RCVBUF);
    case CM_OPT_TRANSPORT_READ_SIZE:
        *static_cast<DWORD*>(aArg) = m_dwReadSize;
        return CM_OK;
    case CM_OPT_TRANSPORT_PAUSE_READING:
        *static_cast<BOOL*>(aArg) = m_bReadingPaused;
        return CM_OK;
    default:
        CM_WARNING_TRACE_THIS("CCmTransportTcp::GetOption, unknow aCommand=" << aCommand << " aArg=" << aArg);
        return CM_ERROR_INVALID_ARG;
    }
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
