// The half in the network thread; transport_proxy_core_user.cc has the user's half.
#include "talvo/transport/thread_proxy/transport_proxy_core.h"

#include <limits>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/event/thread_linger.h"
#include "talvo/event/thread_manager.h"
#include "talvo/transport/connection_type.h"
#include "talvo/transport/rest_option.h"
#include "talvo/transport/socket_settings.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CCmTransportThreadProxy");

constexpr DWORD REPORT_SENT_STEP = 64 * 1024;  // bytes: a lock a message is expensive, one a batch is slow
constexpr uint64_t LOOK_STEP = 1 << 20;        // bytes between two checks of the socket's buffers
constexpr const char* THREAD_ENDED = "the network thread has ended";
constexpr const char* CUT_OFF = "not all was sent when the time was over";
constexpr const char* OUT_OF_MEMORY = "out of memory";
constexpr long LINGER_LOOK_USEC = 10000;  // interval of the checks for a complete acknowledgement

}  // namespace

CTransportProxyCore::CTransportProxyCore(ICmTransport* aTransport, CCmThreadLink& aUser, CCmThreadLink& aNetwork, DWORD aType)
    : CProxyCore(aUser, aNetwork), m_dwType(aType), m_Lane(aType), m_pTransport(aTransport) {
    ++s_Live;
}

CTransportProxyCore::~CTransportProxyCore() { --s_Live; }

void CTransportProxyCore::Start(ICmTransport* aProxy) {
    m_pProxy = aProxy;
    ReadAddresses_i();
    BOOL bYes = TRUE;
    m_pTransport->SetOption(CM_OPT_TRANSPORT_LAYERED, &bYes);
    if (!CConnectionType(m_dwTransportType).IsOverDatagrams())
        m_pTransport->SetOption(OPT_REST_BEFORE_FAILURE, &bYes);
    if (!Host_i()) {
        LostHere_i(CM_ERROR_NETWORK_SOCKET_CLOSE, THREAD_ENDED);
        return;
    }
    if (m_Lane->IsStream())
        AskForLargeReads(*m_pTransport);
    m_Lane->ReadOptions(*m_pTransport);
    m_Batch.m_Waiting.SetFraming(m_Lane->GetFraming());
    m_SendQueue.SetFraming(m_Lane->GetFraming());
    m_ReceiveQueue.SetFraming(m_Lane->GetFraming());
    m_Delivering.SetFraming(m_Lane->GetFraming());
    ICmReconnectSink* pReconnectSink = this;
    if (CConnectionType(m_dwType).Has(CConnectionType::RELIABLE))
        m_pTransport->SetOption(CM_OPT_TRANSPORT_RECONNECT_SINK, &pReconnectSink);
    if (m_Lane->IsMessages())
        Open_i();
}

void CTransportProxyCore::ReadAddresses_i() {
    CCmInetAddr addr;
    if (m_pTransport->GetOption(CM_OPT_TRANSPORT_LOCAL_ADDR, &addr) == CM_OK)
        m_LocalAddr.Store(addr);
    if (m_pTransport->GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &addr) == CM_OK)
        m_PeerAddr.Store(addr);
    DWORD dwType = 0;
    if (m_pTransport->GetOption(CM_OPT_TRANSPORT_TRAN_TYPE, &dwType) == CM_OK)
        m_dwTransportType = dwType | CConnectionType(m_dwType).GetThreadFlag();
}

// Checks from time to time the size of the socket's buffers, half of which is payload, because the system grows them. A queue
// smaller than the bandwidth-delay product would limit a long path.
void CTransportProxyCore::Moved_i(uint64_t aBytes) {
    m_ullMoved += aBytes;
    if (m_ullMoved < LOOK_STEP || CConnectionType(m_dwTransportType).IsOverDatagrams() || !m_pTransport)
        return;
    m_ullMoved = 0;
    int nBytes = 0;
    if (m_pTransport->GetOption(CM_OPT_TRANSPORT_SNDBUF, &nBytes) == CM_OK)
        m_SendQueue.GrowLimit(static_cast<DWORD>(nBytes / 2));
    if (m_pTransport->GetOption(CM_OPT_TRANSPORT_RCVBUF, &nBytes) == CM_OK)
        m_ReceiveQueue.GrowLimit(static_cast<DWORD>(nBytes / 2));
}

void CTransportProxyCore::Open_i() {
    if (!m_pTransport)
        return;
    m_bOpened = TRUE;
    const CmResult rv = m_pTransport->OpenWithSink(this);
    if (rv == CM_OK && m_pTransport)
        m_Lane->SetFrameSink(this);
    else if (rv != CM_OK)
        LostHere_i(rv, "the connection could not be opened");
}

void CTransportProxyCore::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    if (m_pLingerTimers)
        return;
    BOOL bStop = FALSE;
    const DWORD dwLength = aData.GetChainedLength();
    const CmResult rv = m_ReceiveQueue.Push(aData, dwLength, m_Lane->IsMessages(), bStop);
    if (rv == CM_OK || !m_Lane->IsDatagrams())
        Received_i(rv, dwLength, 1, bStop);
}

void CTransportProxyCore::OnFrames(const char* aFrames, DWORD aLength, DWORD aCount) {
    if (m_pLingerTimers)
        return;
    BOOL bStop = FALSE;
    const CmResult rv = m_ReceiveQueue.PushFrames(aFrames, aLength, aCount, bStop);
    Received_i(rv, aLength, aCount, bStop);
}

void CTransportProxyCore::Received_i(CmResult aPushed, DWORD aBytes, DWORD aChunks, BOOL aStop) {
    if (aPushed != CM_OK) {
        LostHere_i(aPushed, OUT_OF_MEMORY);  // a stream with a gap would be worse
        return;
    }
    m_ullChunks += aChunks;
    Moved_i(aBytes);
    if (aStop)
        ApplyReading_i();
    if (m_Lane->EndsReport(aBytes))
        Notify_i();
    else if (!m_UpcallEvent.IsPosted())
        m_NotifyEvent.Post(GetNetwork());
}

void CTransportProxyCore::OnSuspended(ICmTransport*, CmResult aReason) {
    AddNotice_i({.m_bSuspended = TRUE, .m_Reason = aReason});
}

void CTransportProxyCore::OnResumed(ICmTransport*, DWORD aMilliseconds) {
    ReadAddresses_i();
    AddNotice_i({.m_dwMilliseconds = aMilliseconds});
}

void CTransportProxyCore::AddNotice_i(CProxyNotice aNotice) {
    aNotice.m_ullAfter = m_ullChunks;
    m_Notices.Add(aNotice);
    m_NotifyEvent.Post(GetNetwork());
}

// One report may bring many messages or reads. The user is notified after the last, with an event of this thread's own, and
// finds them all.
void CTransportProxyCore::Notify_i() {
    if (PostUpcall_i() == CM_OK || !m_pTransport)
        return;
    Advance_i(ELife::CLOSED);  // the user's thread has ended
    EndWith_i(CM_OK);
}

void CTransportProxyCore::OnSend(ICmTransport*, CCmTransportParameter*) {
    m_bRoomMeanwhile = m_bDraining;
    if (m_bDraining)
        return;
    if (m_pSender && m_SendQueue.IsEmpty())
        m_pSender->OnSend(m_pTransport.Get(), nullptr);
    else
        Drain();
}

void CTransportProxyCore::OnDisconnect(CmResult aReason, ICmTransport* aTrptId) {
    CCmFailure failure;
    aTrptId->GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure);
    Lost_i(aReason, failure);
}

// One batch a call, so that a user with continuous sends does not starve others.
void CTransportProxyCore::Drain() {
    if (!m_pTransport)
        return;
    const CCmRefPtrT<CProxyCore> pKeep(this);  // a send may end the connection, and so release both objects
    const CCmRefPtrT<ICmTransport> pTransport = m_pTransport;
    m_bDraining = TRUE;
    m_bRoomMeanwhile = FALSE;
    const CmResult rv = SendWaiting_i();
    m_bDraining = FALSE;
    if (!m_pTransport) {
        m_Batch.Clear();
        return;
    }
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        LostHere_i(rv, OUT_OF_MEMORY);  // no OnSend would follow
    else if (rv == CM_OK ? TakeBatch_i() : m_bRoomMeanwhile)
        m_DrainEvent.Post(GetNetwork());
    else if (rv == CM_OK && m_pLingerTimers && GetUnacknowledged_i() == 0)
        LetGo_i(CM_OK);
    else if (rv != CM_OK && rv != CM_ERROR_PARTIAL_DATA && m_pLingerTimers)
        LetGo_i(rv);
    else if (BOOL bEnd = TRUE; rv == CM_OK && std::exchange(m_bEndSending, FALSE))
        SetInnerOption_i(CM_OPT_TRANSPORT_END_SENDING, &bEnd);
    else if (rv == CM_OK && m_pSender)
        m_pSender->OnSend(m_pTransport.Get(), nullptr);
}

CmResult CTransportProxyCore::SetSender_i(ICmTransportSink* aSender) {
    if (!aSender) {
        m_pSender = nullptr;
        return CM_OK;
    }
    if (m_pSender)
        return CM_ERROR_FOUND;
    if (!m_pTransport || m_pLingerTimers || m_Life >= ELife::CLOSED)
        return CM_ERROR_NULL_POINTER;
    if (!m_bOpened)
        return CM_ERROR_INVALID_ARG;
    m_pSender = aSender;
    return CM_OK;
}

CmResult CTransportProxyCore::StartSender_i() {
    m_bSenderStarted = TRUE;
    return m_SendQueue.IsEmpty() ? CM_OK : CM_ERROR_PARTIAL_DATA;
}

void CTransportProxyCore::EndSender_i(CmResult aReason) {
    if (ICmTransportSink* pSender = std::exchange(m_pSender, nullptr))
        pSender->OnDisconnect(aReason, m_pTransport.Get());
}

void CTransportProxyCore::EndSending_i() {
    m_bEndSending = TRUE;
    Drain();
}

// CM_OK: all queued data is sent. Otherwise OnSend or OnDisconnect follows, or OnDisconnect has already come.
CmResult CTransportProxyCore::SendWaiting_i() {
    if (m_Batch.IsEmpty())
        TakeBatch_i();
    const BOOL bCork = m_Lane->IsMessages() && m_Batch.m_Waiting.HasSeveral();
    if (bCork)
        Cork_i(TRUE);
    CmResult rv = CM_OK;
    while (rv == CM_OK && m_pTransport && !m_Batch.IsEmpty()) {
        rv = m_Lane->SendNext(*m_pTransport, m_Batch);
        if (m_Batch.m_ullGone >= REPORT_SENT_STEP)
            ReportSent_i();
    }
    if (bCork)
        Cork_i(FALSE);
    ReportSent_i();
    return rv;
}

BOOL CTransportProxyCore::TakeBatch_i() { return m_SendQueue.Take(m_Batch.m_Waiting); }

void CTransportProxyCore::Cork_i(BOOL aCork) {
    if (m_pTransport)
        m_pTransport->SetOption(CM_OPT_TRANSPORT_CORK, &aCork);
}

void CTransportProxyCore::ReportSent_i() {
    if (m_Batch.m_ullGone == 0)
        return;
    Moved_i(m_Batch.m_ullGone);
    if (!m_SendQueue.Sent(std::exchange(m_Batch.m_ullGone, 0), std::exchange(m_Batch.m_dwGoneBlocks, 0)))
        return;
    m_bOnSendDue = TRUE;
    PostUpcall_i();
}

void CTransportProxyCore::ApplyReading_i() {
    BOOL bPause = !m_pLingerTimers && (m_bPausedByUser || m_ReceiveQueue.IsStopped());
    if (!m_pTransport || bPause == m_bReadingPaused)
        return;
    m_bReadingPaused = bPause;
    m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause);
}

// A close while the peer sends could lose unacknowledged data: the peer's bytes, unread here, make the system answer with a
// reset.
DWORD CTransportProxyCore::GetUnacknowledged_i() {
    DWORD dwBytes = 0;
    return m_pTransport->GetOption(CM_OPT_TRANSPORT_UNACKNOWLEDGED, &dwBytes) == CM_OK ? dwBytes : 0;
}

void CTransportProxyCore::EndWith_i(CmResult aReason) {
    if (!m_pTransport || m_pLingerTimers)
        return;
    const CCmRefPtrT<CProxyCore> pKeep(this);  // the sender may release the proxy
    EndSender_i(aReason);
    if (aReason == CM_OK && HasUnsent_i())
        Linger_i();
    else
        LetGo_i(aReason);
}

void CTransportProxyCore::Linger_i() {
    const CCmTimeValue tvTime = GetLingerTime();
    m_llLingerEndUsec = CCmClock::GetTimeOfDayUsec() + tvTime.GetTotalInUsec();
    ICmTimerQueue* pTimers = CCmThreadManager::Instance()->GetThreadTimerQueue(CCmThreadManager::TT_CURRENT);
    const CmResult rv = pTimers ? pTimers->ScheduleTimer(this, nullptr, CCmTimeValue(0, LINGER_LOOK_USEC), 0) : CM_OK;
    if (!pTimers || (rv != CM_OK && rv != CM_ERROR_FOUND)) {
        CM_WARNING_TRACE_THIS("CTransportProxyCore::Linger_i, no timer, data unsent when closing. rv=" << rv);
        CountLost(m_SendQueue.GetWaiting() + GetUnacknowledged_i());
        LetGo_i(CM_OK);
        return;
    }
    m_pLingerTimers = pTimers;
    ApplyReading_i();  // the peer's close must be noticed
    BOOL bYes = TRUE;
    if (m_Lane->IsStream())
        m_pTransport->SetOption(CM_OPT_TRANSPORT_TELL_END, &bYes);  // a peer that has finished sending may still read
    if (!m_bOpened)
        Open_i();
}

void CTransportProxyCore::OnTimeout(const CCmTimeValue&, void*) {
    const BOOL bOver = CCmClock::GetTimeOfDayUsec() >= m_llLingerEndUsec;
    if (!HasUnsent_i())
        LetGo_i(CM_OK);
    else if (bOver) {
        CM_WARNING_TRACE_THIS("CTransportProxyCore::OnTimeout, data unsent when closing.");
        LetGo_i(CM_ERROR_TIMEOUT);
    }
}

// As the user's Disconnect(CM_OK), with a notification of the user.
void CTransportProxyCore::EndInOrder_i() {
    m_SendQueue.Close();
    NotifyLost_i(CM_ERROR_NETWORK_SOCKET_CLOSE, CCmFailure());
    EndWith_i(CM_OK);
}

// A drain has a limit of its own, also for lingering transports.
void CTransportProxyCore::OnDrain(ECmDrainStage aStage) {
    if (!m_pTransport)
        return;
    const CCmRefPtrT<CProxyCore> pKeep(this);
    const BOOL bClose = aStage == ECmDrainStage::CLOSE;
    const BOOL bCut = aStage == ECmDrainStage::CUT;
    if (bCut && (m_pLingerTimers || HasUnsent_i()))
        LostHere_i(CM_ERROR_NETWORK_SOCKET_CLOSE, CUT_OFF);
    else if ((bClose || bCut) && !m_pLingerTimers)
        EndInOrder_i();
    else if (aStage == ECmDrainStage::LINGER && !m_pLingerTimers)
        OnThreadEnd();
    if (bClose)
        m_llLingerEndUsec = std::numeric_limits<int64_t>::max();
}

void CTransportProxyCore::AddUndrained(CCmUndrained& aLeft) {
    if (!m_pTransport)
        return;
    ++aLeft.m_dwConnections;
    aLeft.m_dwLingering += m_pLingerTimers ? 1 : 0;
    aLeft.m_ullBytes += m_SendQueue.GetWaiting() + GetUnacknowledged_i();
}

void CTransportProxyCore::NotifyLost_i(CmResult aReason, const CCmFailure& aFailure) {
    Advance_i(ELife::CLOSED);
    if (m_bLost)
        return;
    m_SendQueue.Close();
    m_LostReason = aReason;
    m_Failure = aFailure;
    m_bLost = TRUE;
    PostUpcall_i();
}

// The transport has ended, and not by the user's request.
void CTransportProxyCore::Lost_i(CmResult aReason, const CCmFailure& aFailure) {
    NotifyLost_i(aReason, aFailure);
    LetGo_i(aReason);
}

void CTransportProxyCore::LostHere_i(CmResult aReason, const char* aText) {
    CCmInetAddr addrPeer;
    m_PeerAddr.Load(addrPeer);
    Lost_i(aReason, CCmFailure(CM_FAILURE_LOCAL, aText, "keep the connection with", addrPeer));
}

void CTransportProxyCore::OnThreadEnd() {
    const CCmRefPtrT<CProxyCore> pKeep(this);
    Drain();  // sends as much as the socket still takes
    if (m_pTransport)
        LostHere_i(CM_ERROR_NETWORK_SOCKET_CLOSE, THREAD_ENDED);
}

// Ends the network side; may delete this object.
void CTransportProxyCore::LetGo_i(CmResult aReason) {
    const CCmRefPtrT<CProxyCore> pKeep(this);
    EndSender_i(aReason);
    if (m_pTransport && m_pLingerTimers && aReason != CM_OK)
        CountLost(m_SendQueue.GetWaiting() + GetUnacknowledged_i());
    const CCmRefPtrT<ICmTransport> pTransport = std::move(m_pTransport);
    if (!pTransport)
        return;
    if (m_pLingerTimers)
        m_pLingerTimers->CancelTimer(this);
    if (!m_bDraining)  // data of a send in progress stays until that has returned
        m_Batch.Clear();
    pTransport->Disconnect(aReason);
    Leave_i();
}

CmResult CTransportProxyCore::SetInnerOption_i(DWORD aCommand, void* aArg) {
    if (!m_pTransport)
        return CM_ERROR_NULL_POINTER;
    const CCmRefPtrT<ICmTransport> pTransport = m_pTransport;
    const CmResult rv = pTransport->SetOption(aCommand, aArg);
    if (m_pTransport)
        m_Lane->ReadOptions(*m_pTransport);
    return rv;
}

CmResult CTransportProxyCore::GetInnerOption_i(DWORD aCommand, void* aArg) {
    if (!m_pTransport)
        return CM_ERROR_NULL_POINTER;
    if (aCommand == CM_OPT_TRANSPORT_INNER_TRANSPORT) {
        *static_cast<ICmTransport**>(aArg) = m_pTransport.Get();
        return CM_OK;
    }
    return m_pTransport->GetOption(aCommand, aArg);
}

}  // namespace talvo
