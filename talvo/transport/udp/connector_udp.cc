#include "talvo/transport/udp/connector_udp.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/trace.h"

template <class TransportType>
std::unique_ptr<ACmConnectorInternal> CCmConnectorUdpT<TransportType>::Make(const CCmConnectorSettings& aSettings) {
    return std::unique_ptr<ACmConnectorInternal>(new (std::nothrow) CCmConnectorUdpT(aSettings));
}

template <class TransportType>
int CCmConnectorUdpT<TransportType>::ConnectTo_i(std::vector<CCmInetAddr> aAddrs) {
    std::stable_partition(aAddrs.begin(), aAddrs.end(), [](const CCmInetAddr& addr) { return addr.GetType() == AF_INET; });
    for (CCmInetAddr& addr : aAddrs) {
        m_AddrPeer = std::move(addr);
        if (Connect_i() == -1)
            continue;
        StopLookUp_i();
        return 1;
    }
    return -1;
}

template <class TransportType>
int CCmConnectorUdpT<TransportType>::Connect_i() {
    CCmRefPtrT<TransportType> pTransport(new (std::nothrow) TransportType(m_pReactor));
    if (!pTransport || !pTransport->HasSocket()) {
        errno = ENOMEM;
        m_Failure = CCmFailure(ENOMEM, "connect to", m_AddrPeer);
        return -1;
    }
    CCmSocketUdp& socket = pTransport->GetPeer();
    const BOOL bAnyLocal = m_AddrLocal == CCmInetAddr::s_InetAddrAny;
    if (!bAnyLocal && m_AddrLocal.GetType() != m_AddrPeer.GetType()) {
        m_Failure = CCmFailure(EAFNOSUPPORT, "connect to", m_AddrPeer);
        errno = EAFNOSUPPORT;
        return -1;
    }
    if ((bAnyLocal ? socket.OpenFor(m_AddrPeer) : socket.Open(m_AddrLocal)) == -1 ||
        socket.Enable(CCmIPCBase::NON_BLOCK) == -1) {
        m_Failure = bAnyLocal ? CCmFailure(errno, "open a socket to", m_AddrPeer) : CCmFailure(errno, "bind to", m_AddrLocal);
        CM_ERROR_TRACE_THIS("CCmConnectorUdpT::Connect, m_Socket.Open() failed! addr="
                            << m_AddrLocal.GetIpDisplayName() << " port=" << m_AddrLocal.GetPort() << " err=" << errno);
        return -1;
    }
    m_Sockets.ApplyTo(socket);
    if (connect(socket.GetHandle(), reinterpret_cast<const sockaddr*>(m_AddrPeer.GetPtr()), m_AddrPeer.GetSize()) == -1) {
        const int nErr = errno;
        m_Failure = CCmFailure(nErr, "connect to", m_AddrPeer);
        CM_ERROR_TRACE_THIS("CCmConnectorUdpT::Connect, connect() failed! addr=" << m_AddrPeer.GetIpDisplayName() << " port="
                                                                                 << m_AddrPeer.GetPort() << " err=" << nErr);
        pTransport.Reset();
        errno = nErr;
        return -1;
    }
    CM_INFO_TRACE_THIS("CCmConnectorUdpT::Connect, connect() successful. addr="
                       << m_AddrPeer.GetIpDisplayName() << " port=" << m_AddrPeer.GetPort() << " fd=" << socket.GetHandle());
    pTransport->SetPeerAddr(m_AddrPeer);
    m_pTransport = pTransport;
    if (m_pReactor->RegisterHandler(this, CONNECT_MASK) == CM_OK)
        return 1;
    m_Failure = CCmFailure(errno, "watch the connect to", m_AddrPeer);
    m_pTransport.Reset();
    return -1;
}

template <class TransportType>
HANDLE CCmConnectorUdpT<TransportType>::GetHandle() const {
    return m_pTransport ? m_pTransport->GetHandle() : CM_INVALID_HANDLE;
}

template <class TransportType>
int CCmConnectorUdpT<TransportType>::OnOutput(HANDLE) {
    m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK);
    Report_i(CM_OK);
    return 0;
}

template <class TransportType>
int CCmConnectorUdpT<TransportType>::OnClose(HANDLE aFd, long aMask) {
    CM_ERROR_TRACE_THIS("CCmConnectorUdpT::OnClose, it's impossible! aFd=" << aFd << " aMask=" << aMask);
    return 0;
}

template <class TransportType>
void CCmConnectorUdpT<TransportType>::Close() {
    if (m_pTransport)
        m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK);
    CResolvingConnector::Close();
}

template class CCmConnectorUdpT<CCmTransportUdp>;
