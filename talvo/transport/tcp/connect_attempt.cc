#include "talvo/transport/tcp/connect_attempt.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/trace.h"

namespace talvo {

namespace {

const CCmTimeValue RETRY(0, 10000);

}  // namespace

template <class TransportType>
CConnectAttemptT<TransportType>::~CConnectAttemptT() {
    Unregister_i();
}

template <class TransportType>
int CConnectAttemptT<TransportType>::Start(const CCmInetAddr& aAddr, const CCmInetAddr& aAddrLocal,
                                           const CSocketSettings& aSockets) {
    m_AddrPeer = aAddr;
    m_pTransport = static_cast<TransportType*>(MakeTcpTransport(m_pReactor, m_pMaker).Get());
    if (!m_pTransport) {
        errno = ENOMEM;
        return Failed_i("connect to", aAddr);
    }
    int nRv = Connect_i(aAddrLocal, aSockets);
    int nErr = errno;
    if (nRv != 1)
        Unregister_i();  // no report follows
    if (nRv == 0 && m_pMaker) {
        nRv = ShakeHands_i();
        nErr = errno;
    }
    if (nRv == -1)
        m_pTransport.Reset();
    errno = nErr;
    return nRv;
}

template <class TransportType>
int CConnectAttemptT<TransportType>::Connect_i(const CCmInetAddr& aAddrLocal, const CSocketSettings& aSockets) {
    CCmSocketTcp& peer = m_pTransport->GetPeer();
    const BOOL bAnyLocal = aAddrLocal == CCmInetAddr::s_InetAddrAny;
    if (!bAnyLocal && aAddrLocal.GetType() != m_AddrPeer.GetType()) {
        errno = EAFNOSUPPORT;  // otherwise it would depend on the families
        return Failed_i("connect to", m_AddrPeer);
    }
    if ((bAnyLocal ? peer.OpenFor(m_AddrPeer, SOCK_STREAM, FALSE) : peer.Open(FALSE, aAddrLocal)) == -1) {
        CM_ERROR_TRACE_THIS("CCmConnectorTcpT::Connect_i, Open() failed! laddr=" << aAddrLocal.GetIpDisplayName() << " lport="
                                                                                 << aAddrLocal.GetPort() << " err=" << errno);
        return bAnyLocal ? Failed_i("open a socket to", m_AddrPeer) : Failed_i("bind to", aAddrLocal);
    }
    if (peer.Enable(CCmIPCBase::NON_BLOCK) == -1) {
        CM_ERROR_TRACE_THIS("CCmConnectorTcpT::Connect_i, Enable(NON_BLOCK) failed! err=" << errno);
        return Failed_i("connect to", m_AddrPeer);
    }
    aSockets.ApplyTo(peer);
    m_pTransport->SetReadSize(aSockets.m_dwReadSize);
    m_pTransport->SetPeerAddr(m_AddrPeer);
    CM_INFO_TRACE_THIS("CCmConnectorTcpT::Connect_i, addr=" << m_AddrPeer.GetIpDisplayName() << " port=" << m_AddrPeer.GetPort()
                                                            << " laddr=" << aAddrLocal.GetIpDisplayName()
                                                            << " lport=" << aAddrLocal.GetPort() << " fd=" << GetHandle());
    if (m_AddrPeer.GetType() != AF_UNIX && m_pReactor->RegisterHandler(this, CONNECT_MASK) != CM_OK)
        return Failed_i("watch the connect to", m_AddrPeer);
    return ConnectSocket_i();
}

// Results as Start. At a path whose listener has no room the system does not wait, and it does not report room.
template <class TransportType>
int CConnectAttemptT<TransportType>::ConnectSocket_i() {
    if (connect(GetHandle(), reinterpret_cast<const sockaddr*>(m_AddrPeer.GetPtr()), m_AddrPeer.GetSize()) == 0)
        return 0;
    if (errno == EINPROGRESS || errno == EINTR)  // an interrupted connect continues in the background
        return 1;
    if (errno == EAGAIN && m_AddrPeer.GetType() == AF_UNIX && m_pReactor->ScheduleTimer(this, nullptr, RETRY, 1) == CM_OK)
        return 1;
    CM_ERROR_TRACE_THIS("CCmConnectorTcpT::Connect_i, connect() failed! addr=" << m_AddrPeer.GetIpDisplayName() << " port="
                                                                               << m_AddrPeer.GetPort() << "err=" << errno);
    return Failed_i("connect to", m_AddrPeer);
}

// Returns -1, and keeps errno.
template <class TransportType>
int CConnectAttemptT<TransportType>::Failed_i(const char* aVerb, const CCmInetAddr& aAddr) {
    m_Failure = CCmFailure(errno, aVerb, aAddr);
    return -1;
}

template <class TransportType>
CCmRefPtrT<TransportType> CConnectAttemptT<TransportType>::TakeTransport() {
    return std::move(m_pTransport);
}

template <class TransportType>
HANDLE CConnectAttemptT<TransportType>::GetHandle() const {
    return m_pTransport ? m_pTransport->GetPeer().GetHandle() : CM_INVALID_HANDLE;
}

// The system reports the result of the connect.
template <class TransportType>
int CConnectAttemptT<TransportType>::OnOutput(HANDLE) {
    int nErr = 0;
    int nLength = sizeof nErr;
    if (m_pTransport->GetPeer().GetOption(SOL_SOCKET, SO_ERROR, &nErr, &nLength) == -1)
        nErr = errno;
    Unregister_i();
    return nErr == 0 ? Connected_i() : Finished_i(nErr);
}

template <class TransportType>
void CConnectAttemptT<TransportType>::OnTimeout(const CCmTimeValue&, void*) {
    const int nRv = ConnectSocket_i();
    if (nRv == 0)
        Connected_i();
    else if (nRv == -1)
        m_Owner.OnAttemptDone(*this, errno);  // last, as below
}

template <class TransportType>
int CConnectAttemptT<TransportType>::Connected_i() {
    const int nRv = m_pMaker ? ShakeHands_i() : 0;
    if (nRv != 1)
        m_Owner.OnAttemptDone(*this, nRv == 0 ? 0 : errno);  // last, as below
    return 0;
}

// Results as Start.
template <class TransportType>
int CConnectAttemptT<TransportType>::ShakeHands_i() {
    m_pRun.reset(new (std::nothrow) CHandshakeRun(m_pReactor, *this, *m_pMaker, m_pTransport));
    if (m_pRun)
        return m_pRun->Start() ? HandshakeOver_i() : 1;
    errno = ENOMEM;
    return Failed_i("shake hands with", m_AddrPeer);
}

// 0, or -1 with an error in errno.
template <class TransportType>
int CConnectAttemptT<TransportType>::HandshakeOver_i() {
    m_Failure = m_pRun->GetFailure();
    if (!m_Failure)
        return 0;
    CM_WARNING_TRACE_THIS("CConnectAttemptT::HandshakeOver_i, the handshake has failed. why=" << m_Failure.ToString());
    errno = m_Failure.GetErrno() != 0 ? m_Failure.GetErrno() : EPROTO;
    return -1;
}

template <class TransportType>
void CConnectAttemptT<TransportType>::OnHandshakeDone(CHandshakeRun&) {
    const int nRv = HandshakeOver_i();
    m_Owner.OnAttemptDone(*this, nRv == 0 ? 0 : errno);  // last, as below
}

template <class TransportType>
int CConnectAttemptT<TransportType>::OnClose(HANDLE, long) {
    return Finished_i(ECONNABORTED);
}

template <class TransportType>
int CConnectAttemptT<TransportType>::Finished_i(int aError) {
    if (aError != 0) {
        m_Failure = CCmFailure(aError, "connect to", m_AddrPeer);
        CM_WARNING_TRACE_THIS("CCmConnectorTcpT::OnOutput, connect() failed! addr="
                              << m_AddrPeer.GetIpDisplayName() << " port=" << m_AddrPeer.GetPort() << " err=" << aError);
    }
    m_Owner.OnAttemptDone(*this, aError);  // last: the owner deletes this attempt
    return 0;
}

template <class TransportType>
void CConnectAttemptT<TransportType>::Unregister_i() {
    m_pReactor->CancelTimer(this);
    if (m_pTransport)
        m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK);
}

template class CConnectAttemptT<CCmTransportTcp>;

}  // namespace talvo
