#include "talvo/transport/tcp/connector_tcp.h"

#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

template <class TransportType>
std::unique_ptr<ACmConnectorInternal> CCmConnectorTcpT<TransportType>::Make(const CCmConnectorSettings& aSettings) {
    return std::unique_ptr<ACmConnectorInternal>(new (std::nothrow) CCmConnectorTcpT(aSettings));
}

template <class TransportType>
CCmConnectorTcpT<TransportType>::~CCmConnectorTcpT() {
    CCmConnectorTcpT::Close();
}

template <class TransportType>
int CCmConnectorTcpT<TransportType>::Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal) {
    Close();
    m_Failure = {};
    return WithMemory_i([&] {
        m_AddrPeer = aAddr;
        m_AddrLocal = aAddrLocal ? *aAddrLocal : CCmInetAddr::s_InetAddrAny;
        if (!talvo::CNameLookup::HasAddress(m_AddrLocal, m_Failure))
            return -1;
        if (!m_AddrPeer.IsResolved())
            return ConnectToName_i(m_AddrPeer.GetHostName());
        const BOOL bAddress = talvo::CNameLookup::HasAddress(m_AddrPeer, m_Failure);
        return bAddress ? ConnectTo_i({m_AddrPeer.GetIpAddrIn4Bytes()}) : -1;
    });
}

// Returns the result of aConnect; -1 if memory ran out in it, with no attempt in progress.
template <class TransportType>
template <class Callable>
int CCmConnectorTcpT<TransportType>::WithMemory_i(Callable aConnect) {
    int nRv = -1;
    if (talvo::WithMemory([&] { nRv = aConnect(); }))
        return nRv;
    Close();
    m_Failure = CCmFailure(ENOMEM, "connect to", m_AddrPeer);
    return -1;
}

template <class TransportType>
int CCmConnectorTcpT<TransportType>::ConnectToName_i(const CCmString& aName) {
    CCmRefPtrT<CCmDnsRecord> pRecord;
    const CmResult rv = m_Lookup.Start(aName, pRecord);
    if (rv == CM_ERROR_WOULD_BLOCK)
        return 1;
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    if (rv == CM_OK && pRecord->GetState() == CCmDnsRecord::RESOLVED)
        return ConnectTo_i(pRecord->GetAddresses());
    NameFailed_i(rv == CM_OK ? pRecord.Get() : nullptr, rv);
    return ReportLater_i(CM_ERROR_NETWORK_DNS_FAILURE);
}

template <class TransportType>
void CCmConnectorTcpT<TransportType>::NameFailed_i(const CCmDnsRecord* aRecord, CmResult aReason) {
    m_Failure = talvo::CNameLookup::FailureOf(aRecord, aReason, m_AddrPeer);
    CM_WARNING_TRACE_THIS("CCmConnectorTcpT::Connect, name not resolved. addr=" << m_AddrPeer.GetHostName()
                                                                                << " why=" << m_Failure.GetText());
}

template <class TransportType>
int CCmConnectorTcpT<TransportType>::ConnectTo_i(const std::vector<DWORD>& aAddresses) {
    std::vector<CCmInetAddr> addrs(aAddresses.size(), m_AddrPeer);
    for (size_t i = 0; i < addrs.size(); ++i)
        addrs[i].SetResolvedIpAddr(aAddresses[i]);
    const int nRv = m_Race.Start(std::move(addrs), m_AddrLocal, m_Sockets.WithConfiguration(), m_pTransport);
    if (nRv != 0) {
        m_Failure = m_Race.GetFailure();
        return nRv;
    }
    CM_WARNING_TRACE_THIS("CCmConnectorTcpT::Connect, connect return 0.");
    return ReportLater_i(CM_OK);
}

// The attempt is now in progress, so an immediate failure is no longer a refusal by Connect.
template <class TransportType>
void CCmConnectorTcpT<TransportType>::OnNameKnown(const CCmDnsRecord& aRecord) {
    if (aRecord.GetState() == CCmDnsRecord::FAILED) {
        NameFailed_i(&aRecord, CM_OK);
        Report_i(CM_ERROR_NETWORK_DNS_FAILURE);
    } else if (WithMemory_i([&] { return ConnectTo_i(aRecord.GetAddresses()); }) == -1) {
        Report_i(FailureResult_i());
    }
}

template <class TransportType>
int CCmConnectorTcpT<TransportType>::ReportLater_i(CmResult aReason) {
    const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, CCmTimeValue::s_tvZero, 1);
    if (rv != CM_OK && rv != CM_ERROR_FOUND) {
        Close();
        m_Failure = CCmFailure(ENOMEM, "connect to", m_AddrPeer);
        return -1;
    }
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
void CCmConnectorTcpT<TransportType>::OnRaceDone(CCmRefPtrT<TransportType> aTransport) {
    m_pTransport = std::move(aTransport);
    m_Failure = m_Race.GetFailure();
    Report_i(m_pTransport ? CM_OK : FailureResult_i());
}

template <class TransportType>
CmResult CCmConnectorTcpT<TransportType>::FailureResult_i() const {
    return m_Failure.GetErrno() == ENOMEM ? CM_ERROR_OUT_OF_MEMORY : CM_ERROR_NETWORK_CONNECT_ERROR;
}

// The last step of an attempt: the upper connector may delete this one.
template <class TransportType>
void CCmConnectorTcpT<TransportType>::Report_i(CmResult aReason) {
    const CCmRefPtrT<TransportType> pTransport = std::move(m_pTransport);
    m_Upper.OnConnectIndication(aReason, aReason == CM_OK ? pTransport.Get() : nullptr, this);
}

template <class TransportType>
void CCmConnectorTcpT<TransportType>::Close() {
    m_Lookup.Cancel();
    m_Race.Stop();
    if (m_bTimerArmed)
        m_pReactor->CancelTimer(this);
    m_bTimerArmed = FALSE;
    m_pTransport.Reset();
}

template class CCmConnectorTcpT<CCmTransportTcp>;
