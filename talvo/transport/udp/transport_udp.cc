#include "talvo/transport/udp/transport_udp.h"

#include <new>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/transport/datagram.h"
#include "talvo/transport/network_buffers.h"

namespace {

CCmLiveCounter s_Live("CCmTransportUdp");

constexpr size_t MAX_KEPT = talvo::CDatagramBuffers::BATCH;
constexpr DWORD KEPT_OVERHEAD = 128;  // cost of keeping a datagram besides its bytes

DWORD CostOf(const CCmMessageBlock& aData) { return aData.GetChainedLength() + KEPT_OVERHEAD; }

}  // namespace

CCmTransportUdp::CCmTransportUdp(ICmReactor* aReactor)
    : CCmTransportBase(aReactor), m_pOwnPort(new (std::nothrow) talvo::CDatagramPort(aReactor, *this, TRUE)) {
    ++s_Live;
}

CCmTransportUdp::CCmTransportUdp(ICmReactor* aReactor, talvo::CDatagramHub* aHub, const CCmInetAddr& aAddrPeer)
    : CCmTransportBase(aReactor), m_pHub(aHub), m_AddrPeer(aAddrPeer) {
    ++s_Live;
}

CCmTransportUdp::~CCmTransportUdp() {
    Close_t(CM_OK);
    --s_Live;
}

talvo::CDatagramPort* CCmTransportUdp::GetPort() const {
    if (m_pOwnPort)
        return m_pOwnPort.get();
    return m_pHub ? &m_pHub->GetPort() : nullptr;
}

HANDLE CCmTransportUdp::GetHandle() const {
    const talvo::CDatagramPort* pPort = GetPort();
    return pPort ? pPort->GetHandle() : CM_INVALID_HANDLE;
}

CmResult CCmTransportUdp::Open_t() {
    if (GetHandle() == CM_INVALID_HANDLE)
        return CM_ERROR_NOT_INITIALIZED;
    if (m_dwKept > 0)
        DeliverLater();
    return m_pOwnPort ? m_pOwnPort->Open() : CM_OK;
}

CmResult CCmTransportUdp::Close_t(CmResult) {
    while (m_dwKept > 0)
        TakeFirstKept();
    if (std::exchange(m_bDeliverDue, FALSE))
        m_pReactor->CancelTimer(this);
    if (m_pOwnPort)
        m_pOwnPort->Close();
    else if (const CCmRefPtrT<talvo::CDatagramHub> pHub = std::move(m_pHub))
        pHub->Forget(*this);
    m_bNeedOnSend = FALSE;
    return CM_OK;
}

CmResult CCmTransportUdp::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    m_Est.EnsureSingleThread();
    if (aPara)
        aPara->m_dwHaveSent = 0;
    if (GetHandle() == CM_INVALID_HANDLE) {
        CM_WARNING_TRACE_THIS("CCmTransportUdp::SendData, socket is invalid.");
        return CM_ERROR_NOT_INITIALIZED;
    }
    DWORD dwLength = 0;
    CmResult rv = talvo::CheckDatagram(aData, dwLength);
    if (rv != CM_OK)
        return rv;
    rv = m_pHub ? m_pHub->Send(*this, aData, dwLength) : m_pOwnPort->Send(aData, dwLength, nullptr);
    if (rv == CM_ERROR_PARTIAL_DATA)
        m_bNeedOnSend = TRUE;
    if (rv == CM_OK && aPara)
        aPara->m_dwHaveSent = dwLength;
    return rv;
}

void CCmTransportUdp::OnRoom() {
    if (std::exchange(m_bNeedOnSend, FALSE) && m_pSink)
        m_pSink->OnSend(this, nullptr);
}

void CCmTransportUdp::OnSilent() {
    NoteFailure_i(SILENCE);
    Close_t(CM_OK);
    if (ICmTransportSink* pSink = std::exchange(m_pSink, nullptr))
        pSink->OnDisconnect(CM_ERROR_NETWORK_SOCKET_CLOSE, this);
}

// Kept datagrams go first; any upcall may pause or close.
void CCmTransportUdp::Take(CCmMessageBlock& aData) {
    DeliverKept();
    if (CanDeliver())
        m_pSink->OnReceive(aData, this, nullptr);
    else if (GetHandle() != CM_INVALID_HANDLE)
        Keep(aData);
}

void CCmTransportUdp::DeliverKept() {
    while (m_dwKept > 0 && CanDeliver()) {
        const CCmChainPtr pFirst = TakeFirstKept();
        m_pSink->OnReceive(*pFirst, this, nullptr);
    }
}

void CCmTransportUdp::Keep(const CCmMessageBlock& aData) {
    const DWORD dwCost = CostOf(aData);
    if (m_pHub && (m_dwKept >= MAX_KEPT || !m_pHub->Keep(dwCost)))
        return;
    CCmChainPtr pKept(aData.DuplicateChained());
    if (pKept && m_Kept.Add(std::move(pKept))) {
        ++m_dwKept;
        return;
    }
    if (m_pHub)
        m_pHub->GiveBack(dwCost);
}

CCmChainPtr CCmTransportUdp::TakeFirstKept() {
    CCmChainPtr pFirst = m_Kept.TakeChain();
    --m_dwKept;
    if (m_pHub)
        m_pHub->GiveBack(CostOf(*pFirst));
    return pFirst;
}

// From a timer: no upcall comes from inside a call of the user.
void CCmTransportUdp::DeliverLater() {
    const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, CCmTimeValue::s_tvZero, 1);
    m_bDeliverDue = rv == CM_OK || rv == CM_ERROR_FOUND;  // if there is no timer, the next datagram delivers them
}

void CCmTransportUdp::OnTimeout(const CCmTimeValue&, void*) {
    m_bDeliverDue = FALSE;
    DeliverKept();
}

CmResult CCmTransportUdp::PauseReading_i(BOOL aPause) {
    if (m_bReadingPaused == aPause)
        return CM_OK;
    m_bReadingPaused = aPause;
    if (!aPause && m_pSink && m_dwKept > 0)
        DeliverLater();
    return m_pOwnPort ? m_pOwnPort->PauseReading(aPause) : CM_OK;
}

CmResult CCmTransportUdp::Detach_i(HANDLE aNewHandle) {
    if (aNewHandle != CM_INVALID_HANDLE)
        return CM_ERROR_INVALID_ARG;
    if (m_pOwnPort)
        m_pOwnPort->Detach();
    return Close_t(CM_OK);
}

CCmDatagramCounters CCmTransportUdp::GetCounters() const {
    const talvo::CDatagramPort* pPort = GetPort();
    return pPort ? pPort->GetCounters() : CCmDatagramCounters();
}
