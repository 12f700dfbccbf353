#include "talvo/transport/connector_tcp.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>

#include "talvo/base/trace.h"

namespace {

constexpr DWORD NO_ADDRESS = 0xFFFFFFFF;  // what resolving gives for a name that is known to have none

}  // namespace

template <class TransportType>
ACmConnectorInternal* CCmConnectorTcpT<TransportType>::Make(ICmReactor* aReactor, ACmConnectorUpper& aUpper) {
    return new (std::nothrow) CCmConnectorTcpT(aReactor, aUpper);
}

template <class TransportType>
CCmConnectorTcpT<TransportType>::~CCmConnectorTcpT() {
    CCmConnectorTcpT::Close();
}

template <class TransportType>
int CCmConnectorTcpT<TransportType>::Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal) {
    m_AddrPeer = aAddr;
    m_AddrLocal = aAddrLocal ? *aAddrLocal : CCmInetAddr::s_InetAddrAny;
    if (!m_AddrPeer.IsResolved()) {
        const CCmString strName = m_AddrPeer.GetHostName();
        if (m_AddrPeer.TryResolve() != CM_OK || m_AddrPeer.GetIpAddrIn4Bytes() == NO_ADDRESS) {
            CM_WARNING_TRACE_THIS("CCmConnectorTcpT::Connect, name not resolved. addr=" << strName);
            return ReportLater_i(CM_ERROR_NETWORK_DNS_FAILURE);
        }
    }
    m_pTransport = new (std::nothrow) TransportType(m_pReactor);
    const int nRv = m_pTransport ? Connect_i(*m_pTransport, m_AddrPeer) : -1;
    if (nRv == 0) {
        CM_WARNING_TRACE_THIS("CCmConnectorTcpT::Connect, connect return 0.");
        return ReportLater_i(CM_OK);
    }
    if (nRv == -1) {
        const int nErr = errno;
        Close();
        errno = nErr;
    }
    return nRv;
}

template <class TransportType>
int CCmConnectorTcpT<TransportType>::Connect_i(TransportType& aTransport, const CCmInetAddr& aAddr) {
    CCmSocketTcp& peer = aTransport.GetPeer();
    const BOOL bAnyLocal = m_AddrLocal == CCmInetAddr::s_InetAddrAny;
    if ((bAnyLocal ? peer.Open(FALSE) : peer.Open(FALSE, m_AddrLocal)) == -1) {
        CM_ERROR_TRACE_THIS("CCmConnectorTcpT::Connect_i, Open() failed! laddr=" << m_AddrLocal.GetIpDisplayName() << " lport="
                                                                                 << m_AddrLocal.GetPort() << " err=" << errno);
        return -1;
    }
    if (peer.Enable(CCmIPCBase::NON_BLOCK) == -1) {
        CM_ERROR_TRACE_THIS("CCmConnectorTcpT::Connect_i, Enable(NON_BLOCK) failed! err=" << errno);
        return -1;
    }
    CM_INFO_TRACE_THIS("CCmConnectorTcpT::Connect_i, addr=" << aAddr.GetIpDisplayName() << " port=" << aAddr.GetPort()
                                                            << " laddr=" << m_AddrLocal.GetIpDisplayName()
                                                            << " lport=" << m_AddrLocal.GetPort() << " fd=" << GetHandle());
    if (m_pReactor->RegisterHandler(this, CONNECT_MASK) != CM_OK)
        return -1;
    if (connect(GetHandle(), reinterpret_cast<const sockaddr*>(aAddr.GetPtr()), aAddr.GetSize()) == 0)
        return 0;
    if (errno == EINPROGRESS || errno == EINTR)  // an interrupted connect goes on in the background
        return 1;
    CM_ERROR_TRACE_THIS("CCmConnectorTcpT::Connect_i, connect() failed! addr=" << aAddr.GetIpDisplayName() << " port="
                                                                               << aAddr.GetPort() << "err=" << errno);
    return -1;
}

template <class TransportType>
int CCmConnectorTcpT<TransportType>::ReportLater_i(CmResult aReason) {
    const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, CCmTimeValue::s_tvZero, 1);
    if (rv != CM_OK && rv != CM_ERROR_FOUND)
        return -1;
    if (m_pTransport)
        m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK);  // the timer reports, the readiness must not
    m_bTimerArmed = TRUE;
    m_LaterReason = aReason;
    return 0;
}

template <class TransportType>
void CCmConnectorTcpT<TransportType>::OnTimeout(const CCmTimeValue&, void*) {
    m_bTimerArmed = FALSE;
    Report_i(m_LaterReason);
}

template <class TransportType>
HANDLE CCmConnectorTcpT<TransportType>::GetHandle() const {
    return m_pTransport ? m_pTransport->GetPeer().GetHandle() : CM_INVALID_HANDLE;
}

// The system says how the connect ended.
template <class TransportType>
int CCmConnectorTcpT<TransportType>::OnOutput(HANDLE) {
    int nErr = 0;
    int nLength = sizeof nErr;
    if (m_pTransport->GetPeer().GetOption(SOL_SOCKET, SO_ERROR, &nErr, &nLength) == -1)
        nErr = errno;
    m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK);
    return Finished_i(nErr);
}

template <class TransportType>
int CCmConnectorTcpT<TransportType>::OnClose(HANDLE, long) {
    return Finished_i(ECONNABORTED);
}

template <class TransportType>
int CCmConnectorTcpT<TransportType>::Finished_i(int aError) {
    if (aError != 0) {
        CM_WARNING_TRACE_THIS("CCmConnectorTcpT::OnOutput, connect() failed! addr="
                              << m_AddrPeer.GetIpDisplayName() << " port=" << m_AddrPeer.GetPort() << " err=" << aError);
        m_pTransport.Reset();
    }
    Report_i(aError == 0 ? CM_OK : CM_ERROR_NETWORK_CONNECT_ERROR);
    return 0;
}

// The last thing of an attempt: the upper connector may delete this one.
template <class TransportType>
void CCmConnectorTcpT<TransportType>::Report_i(CmResult aReason) {
    const CCmRefPtrT<TransportType> pTransport = std::move(m_pTransport);
    m_Upper.OnConnectIndication(aReason, aReason == CM_OK ? pTransport.Get() : nullptr, this);
}

template <class TransportType>
void CCmConnectorTcpT<TransportType>::Close() {
    const BOOL bReactor = ICmReactor::IsAlive(m_pReactor);
    if (m_bTimerArmed && bReactor)
        m_pReactor->CancelTimer(this);
    m_bTimerArmed = FALSE;
    if (!m_pTransport)
        return;
    if (bReactor)
        m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK);
    m_pTransport.Reset();
}

template class CCmConnectorTcpT<CCmTransportTcp>;
