#include "talvo/transport/udp/datagram_hub.h"

#include <algorithm>
#include <new>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/trace.h"
#include "talvo/transport/udp/transport_udp.h"

namespace talvo {

namespace {

constexpr int MAX_FORGOTTEN_A_PASS = 256;  // the rest follows after other events

CPeerKey KeyOf(const CCmInetAddr& aAddr) { return CPeerKey::Of(*reinterpret_cast<const sockaddr*>(aAddr.GetPtr())); }

}  // namespace

CDatagramHub::~CDatagramHub() {
    if (m_bIdleTimer)
        m_pReactor->CancelTimer(this);
}

CmResult CDatagramHub::StartListen(ICmAcceptorConnectorSink* aSink, ICmAcceptorConnectorId* aId) {
    const CmResult rv = m_Port.Open();
    if (rv != CM_OK)
        return rv;
    m_pSink = aSink;
    m_pId = aId;
    return CM_OK;
}

void CDatagramHub::StopListen() {
    m_pSink = nullptr;
    m_pId = nullptr;
    if (m_Peers.GetCount() == 0)
        m_Port.Close();
}

void CDatagramHub::SetPeerIdleTime(const CCmTimeValue& aIdle) {
    m_llIdleUsec = std::max<int64_t>(aIdle.GetTotalInUsec(), 0);
    ArmIdleTimer();
}

void CDatagramHub::OnDatagram(CCmMessageBlock& aData, const sockaddr& aFrom) {
    const CPeerKey key = CPeerKey::Of(aFrom);
    CPeers::CPeer* pPeer = m_Peers.Find(key);
    if (!pPeer) {
        OnStranger(aData, aFrom, key);
        return;
    }
    m_Peers.Touch(*pPeer, m_Port.GetReceivedUsec());
    pPeer->Get()->Take(aData);
}

// If the sink keeps no reference, no state of the peer remains.
void CDatagramHub::OnStranger(CCmMessageBlock& aData, const sockaddr& aFrom, const CPeerKey& aKey) {
    if (!m_pSink || m_Peers.GetCount() >= m_dwMaxPeers) {
        m_Port.CountDropped();
        if (m_pSink)
            TraceLimit();
        return;
    }
    CCmInetAddr addrPeer;
    const BOOL bAddr = cm_from_sockaddr(&aFrom, sizeof(sockaddr_in6), addrPeer) == CM_OK;
    const CCmRefPtrT<CCmTransportUdp> pTransport(bAddr ? new (std::nothrow) CCmTransportUdp(m_pReactor, this, addrPeer)
                                                       : nullptr);
    const BOOL bAdded = pTransport && m_Peers.Add(aKey, pTransport.Get(), m_Port.GetReceivedUsec());
    if (!m_bIdleTimer)
        ArmIdleTimer();  // re-armed if memory ran out for it: idle peers hold memory that a new one needs
    if (!bAdded) {
        m_Port.CountDropped();
        return;
    }
    CM_INFO_TRACE_THIS("CDatagramHub::OnStranger, addr=" << addrPeer.GetIpDisplayName() << " port=" << addrPeer.GetPort()
                                                         << " pTrans=" << static_cast<const void*>(pTransport.Get()));
    m_pSink->OnConnectIndication(CM_OK, pTransport.Get(), m_pId);
    if (pTransport->GetReference() > 1)
        pTransport->Take(aData);
}

void CDatagramHub::TraceLimit() {
    if (m_TracePace.IsDue())
        CM_WARNING_TRACE_THIS("CDatagramHub::OnStranger, too many peers. m_dwMaxPeers=" << m_dwMaxPeers);
}

CmResult CDatagramHub::Send(CCmTransportUdp& aTransport, CCmMessageBlock& aData, DWORD aLength) {
    const CmResult rv = m_Port.Send(aData, aLength, &aTransport.GetPeerAddr());
    if (rv != CM_ERROR_PARTIAL_DATA || aTransport.IsWaitingForRoom())
        return rv;
    return WithMemory([&] { m_Refused.push_back(&aTransport); }) ? rv : CM_ERROR_OUT_OF_MEMORY;
}

// Each once. If one fills the socket again, the others wait; one that is refused again goes to the end of the queue.
void CDatagramHub::OnWritable() {
    for (size_t stTurns = m_Refused.size(); stTurns > 0 && !m_Refused.empty(); --stTurns) {
        if (m_Port.IsFull()) {
            m_Port.NotifyWhenWritable();
            return;
        }
        CCmTransportUdp* pTransport = m_Refused.front();
        m_Refused.pop_front();
        pTransport->OnRoom();
    }
}

void CDatagramHub::OnBroken(int) { CM_ERROR_TRACE_THIS("CDatagramHub::OnBroken, it's impossible!"); }

void CDatagramHub::Forget(CCmTransportUdp& aTransport) {
    m_Peers.Remove(KeyOf(aTransport.GetPeerAddr()));
    if (aTransport.IsWaitingForRoom())
        std::erase(m_Refused, &aTransport);
    if (!m_pSink && m_Peers.GetCount() == 0)
        m_Port.Close();
}

BOOL CDatagramHub::Keep(DWORD aBytes) {
    if (m_ullKeptBytes + aBytes > MAX_KEPT_BYTES) {
        m_Port.CountDropped();
        return FALSE;
    }
    m_ullKeptBytes += aBytes;
    return TRUE;
}

// For the peer with the longest silence. A datagram from it does not change the timer: when the timer fires, it is re-armed for
// the peer with the longest silence then.
void CDatagramHub::ArmIdleTimer() {
    CPeers::CPeer* pPeer = m_Peers.GetSilent();
    if (m_llIdleUsec == 0 || !pPeer)
        return;
    const int64_t llLeft = CPeers::GetHeardUsec(*pPeer) + m_llIdleUsec - CCmClock::GetTimeOfDayUsec();
    const CCmTimeValue tvLeft = CCmTimeValue::FromUsec(std::max<int64_t>(llLeft, 0));
    const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, tvLeft, 1);
    m_bIdleTimer = rv == CM_OK || rv == CM_ERROR_FOUND;
}

void CDatagramHub::OnTimeout(const CCmTimeValue&, void*) {
    m_bIdleTimer = FALSE;
    const int64_t llSince = CCmClock::GetTimeOfDayUsec() - m_llIdleUsec;
    for (int i = 0; i < MAX_FORGOTTEN_A_PASS && m_llIdleUsec > 0; ++i) {
        CPeers::CPeer* pPeer = m_Peers.GetSilent();
        if (!pPeer || CPeers::GetHeardUsec(*pPeer) > llSince)
            break;
        pPeer->Get()->OnSilent();
    }
    ArmIdleTimer();
}

}  // namespace talvo
