#include "talvo/transport/udp/connector_udp.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

template <class TransportType>
std::unique_ptr<ACmConnectorInternal> CCmConnectorUdpT<TransportType>::Make(const CCmConnectorSettings& aSettings) {
    return std::unique_ptr<ACmConnectorInternal>(new (std::nothrow) CCmConnectorUdpT(aSettings));
}

template <class TransportType>
int CCmConnectorUdpT<TransportType>::Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal) {
    Close();
    m_Failure = {};
    int nRv = -1;
    const BOOL bMemory = talvo::WithMemory([&] {
        m_AddrPeer = aAddr;
        m_AddrLocal = aAddrLocal ? *aAddrLocal : CCmInetAddr::s_InetAddrAny;
        if (!talvo::CNameLookup::HasAddress(m_AddrLocal, m_Failure))
            return;
        if (!m_AddrPeer.IsResolved())
            nRv = ConnectToName_i(m_AddrPeer.GetHostName());
        else if (talvo::CNameLookup::HasAddress(m_AddrPeer, m_Failure))
            nRv = Connect_i();
    });
    if (bMemory)
        return nRv;
    Close();
    m_Failure = CCmFailure(ENOMEM, "connect to", aAddr);
    return -1;
}

template <class TransportType>
int CCmConnectorUdpT<TransportType>::ConnectToName_i(const CCmString& aName) {
    CCmRefPtrT<CCmDnsRecord> pRecord;
    const CmResult rv = m_Lookup.Start(aName, pRecord);
    if (rv == CM_ERROR_WOULD_BLOCK)
        return 1;
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    if (rv == CM_OK && pRecord->GetState() == CCmDnsRecord::RESOLVED)
        return ConnectToAny_i(pRecord->GetAddresses());
    return NameFailed_i(rv == CM_OK ? pRecord.Get() : nullptr, rv);
}

template <class TransportType>
int CCmConnectorUdpT<TransportType>::ConnectToAny_i(const std::vector<DWORD>& aAddresses) {
    for (const DWORD dwAddress : aAddresses) {
        m_AddrPeer.SetResolvedIpAddr(dwAddress);
        if (Connect_i() != -1)
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
    if (socket.Open(m_AddrLocal) == -1 || socket.Enable(CCmIPCBase::NON_BLOCK) == -1) {
        m_Failure = CCmFailure(errno, "bind to", m_AddrLocal);
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
    m_pTransport = std::move(pTransport);
    if (m_pReactor->RegisterHandler(this, CONNECT_MASK) == CM_OK)
        return 1;
    m_Failure = CCmFailure(errno, "watch the connect to", m_AddrPeer);
    m_pTransport.Reset();
    return -1;
}

template <class TransportType>
int CCmConnectorUdpT<TransportType>::NameFailed_i(const CCmDnsRecord* aRecord, CmResult aReason) {
    m_Failure = talvo::CNameLookup::FailureOf(aRecord, aReason, m_AddrPeer);
    CM_WARNING_TRACE_THIS("CCmConnectorUdpT::Connect, name not resolved. addr=" << m_AddrPeer.GetHostName()
                                                                                << " why=" << m_Failure.GetText());
    const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, CCmTimeValue::s_tvZero, 1);
    m_bTimerArmed = rv == CM_OK || rv == CM_ERROR_FOUND;
    return m_bTimerArmed ? 1 : -1;
}

template <class TransportType>
void CCmConnectorUdpT<TransportType>::OnTimeout(const CCmTimeValue&, void*) {
    m_bTimerArmed = FALSE;
    Report_i(CM_ERROR_NETWORK_DNS_FAILURE);
}

// The attempt is now in progress, so an immediate failure is no longer a refusal by Connect.
template <class TransportType>
void CCmConnectorUdpT<TransportType>::OnNameKnown(const CCmDnsRecord& aRecord) {
    if (aRecord.GetState() == CCmDnsRecord::FAILED)
        NameFailed_i(&aRecord, CM_OK);
    else if (ConnectToAny_i(aRecord.GetAddresses()) == -1)
        Report_i(m_Failure.GetErrno() == ENOMEM ? CM_ERROR_OUT_OF_MEMORY : CM_ERROR_NETWORK_CONNECT_ERROR);
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

// The last step of an attempt: the upper connector may delete this one.
template <class TransportType>
void CCmConnectorUdpT<TransportType>::Report_i(CmResult aReason) {
    const CCmRefPtrT<TransportType> pTransport = std::move(m_pTransport);
    m_Upper.OnConnectIndication(aReason, pTransport.Get(), this);
}

template <class TransportType>
void CCmConnectorUdpT<TransportType>::Close() {
    m_Lookup.Cancel();
    if (std::exchange(m_bTimerArmed, FALSE))
        m_pReactor->CancelTimer(this);
    if (m_pTransport)
        m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK);
    m_pTransport.Reset();
}

template class CCmConnectorUdpT<CCmTransportUdp>;
