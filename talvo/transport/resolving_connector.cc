#include "talvo/transport/resolving_connector.h"

#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/destination_order.h"

namespace talvo {

int CResolvingConnector::Connect(const CCmInetAddr& aAddr, CCmInetAddr* aAddrLocal) {
    Close();
    m_Failure = {};
    m_bTried = FALSE;
    return WithMemory_i(aAddr, [&] {
        m_AddrPeer = aAddr;
        m_AddrLocal = aAddrLocal ? *aAddrLocal : CCmInetAddr::s_InetAddrAny;
        if (!CNameLookup::HasAddress(m_AddrLocal, m_Failure))
            return -1;
        if (!m_AddrPeer.IsResolved())
            return ConnectToName_i(m_AddrPeer.GetHostName());
        const BOOL bAddress = CNameLookup::HasAddress(m_AddrPeer, m_Failure);
        return bAddress ? ConnectTo_i({m_AddrPeer}) : -1;
    });
}

// Returns the result of aConnect; -1 if memory ran out in it, with no attempt in progress.
template <class Callable>
int CResolvingConnector::WithMemory_i(const CCmInetAddr& aAddr, Callable aConnect) {
    int nRv = -1;
    if (WithMemory([&] { nRv = aConnect(); }))
        return nRv;
    Close();
    m_Failure = CCmFailure(ENOMEM, "connect to", aAddr);
    return -1;
}

int CResolvingConnector::ConnectToName_i(const CCmString& aName) {
    CCmRefPtrT<CCmDnsRecord> pRecord;
    const CmResult rv = m_Lookup.Start(aName, pRecord);
    if (rv == CM_ERROR_WOULD_BLOCK)
        return 1;
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();
    if (rv == CM_OK && pRecord->GetState() == CCmDnsRecord::RESOLVED)
        return ConnectToRecord_i(*pRecord);
    NameFailed_i(rv == CM_OK ? pRecord.Get() : nullptr, rv);
    return ReportLater_i(CM_ERROR_NETWORK_DNS_FAILURE);
}

// 1: in progress, or more addresses may come.
int CResolvingConnector::ConnectToRecord_i(const CCmDnsRecord& aRecord) {
    const std::vector<CIpBytes> addresses = OrderDestinations(aRecord.GetAddresses());
    std::vector<CCmInetAddr> addrs(addresses.size(), m_AddrPeer);
    for (size_t i = 0; i < addrs.size(); ++i) {
        if (addrs[i].SetResolvedIpAddr(addresses[i]) != CM_OK)
            throw std::bad_alloc();
    }
    m_bTried = TRUE;
    const int nRv = ConnectTo_i(std::move(addrs));
    return nRv == -1 && m_Lookup.IsWaiting() ? 1 : nRv;
}

void CResolvingConnector::NameFailed_i(const CCmDnsRecord* aRecord, CmResult aReason) {
    m_Failure = CNameLookup::FailureOf(aRecord, aReason, m_AddrPeer);
    CM_WARNING_TRACE_THIS(m_pClass << "::Connect, name not resolved. addr=" << m_AddrPeer.GetHostName()
                                   << " why=" << m_Failure.GetText());
}

// The attempt is now in progress, so an immediate failure is no longer a refusal by Connect.
void CResolvingConnector::OnNameKnown(const CCmDnsRecord& aRecord) {
    const BOOL bFailed = aRecord.GetState() == CCmDnsRecord::FAILED;
    if (bFailed && !m_bTried) {
        NameFailed_i(&aRecord, CM_OK);
        Report_i(CM_ERROR_NETWORK_DNS_FAILURE);
    } else if (WithMemory_i(m_AddrPeer, [&] { return bFailed ? ConnectTo_i({}) : ConnectToRecord_i(aRecord); }) == -1) {
        ReportFailure_i();
    }
}

int CResolvingConnector::ReportLater_i(CmResult aReason) {
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

void CResolvingConnector::OnTimeout(const CCmTimeValue&, void*) {
    m_bTimerArmed = FALSE;
    Report_i(m_LaterReason);
}

void CResolvingConnector::ReportFailure_i() {
    if (m_Lookup.IsWaiting())
        return;
    Report_i(m_Failure.GetErrno() == ENOMEM ? CM_ERROR_OUT_OF_MEMORY : CM_ERROR_NETWORK_CONNECT_ERROR);
}

void CResolvingConnector::Report_i(CmResult aReason) {
    const CCmRefPtrT<CCmTransportBase> pTransport = std::move(m_pTransport);
    m_Upper.OnConnectIndication(aReason, aReason == CM_OK ? pTransport.Get() : nullptr, this);
}

void CResolvingConnector::Close() {
    m_Lookup.Cancel();
    if (std::exchange(m_bTimerArmed, FALSE))
        m_pReactor->CancelTimer(this);
    m_pTransport.Reset();
}

}  // namespace talvo
