// The half of the transport proxy's core in the user's thread; transport_proxy_core.cc has the network's.
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/transport/connection_type.h"
#include "talvo/transport/rest_option.h"
#include "talvo/transport/thread_proxy/proxy_options.h"
#include "talvo/transport/thread_proxy/transport_proxy_core.h"

namespace talvo {

CTransportProxyCore::ELife CTransportProxyCore::Advance_i(ELife aLife) {
    ELife life = m_Life;
    while (life < aLife && !m_Life.compare_exchange_weak(life, aLife)) {
    }
    return life;
}

CmResult CTransportProxyCore::OpenWithSink(ICmTransportSink* aSink) {
    if (!aSink)
        return CM_ERROR_INVALID_ARG;
    if (m_Life >= (m_Lane->IsMessages() ? ELife::OVER : ELife::CLOSED))
        return CM_ERROR_NULL_POINTER;
    if (m_pSink.exchange(aSink))
        return CM_OK;
    const CmResult rv = m_Lane->IsMessages()  // open already, perhaps ended: for queued data
                            ? PostUpcall_i()
                            : GetNetwork().Post([pThis = CCmRefPtrT<CTransportProxyCore>(this)] { pThis->Open_i(); });
    if (rv != CM_OK)
        m_pSink = nullptr;
    return rv;
}

CmResult CTransportProxyCore::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    if (aPara)
        aPara->m_dwHaveSent = 0;
    if (m_bSenderStarted && m_Life < ELife::CLOSED)
        return CM_ERROR_NOT_AVAILABLE;
    return Enqueue_i(aData, aPara);
}

CmResult CTransportProxyCore::Enqueue_i(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    const ELife life = m_Life;
    if (life >= ELife::CLOSED)
        return CM_ERROR_NULL_POINTER;
    DWORD dwLength = 0;
    const CmResult rvCheck = m_Lane->Check(aData, dwLength);
    const DWORD dwCost = m_Lane->CostOf(dwLength);
    if (rvCheck == CM_OK && dwCost == 0)
        return CM_OK;
    if (life == ELife::SENDING_ENDED)
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    if (rvCheck != CM_OK)
        return rvCheck;
    BOOL bNotify = FALSE;
    BOOL bWake = FALSE;
    CmResult rv = m_SendQueue.Push(aData, dwLength, dwCost, m_Lane->IsMessages(), bNotify, bWake);
    if (rv != CM_OK)
        return rv;
    if (bNotify)
        rv = bWake ? m_DrainEvent.Post(GetNetwork()) : m_DrainEvent.PostQuietly(GetNetwork());
    else if (bWake)
        GetNetwork().WakeUp();
    if (rv != CM_OK)
        return rv;
    if (aData.AdvanceTopLevelReadPtr(dwLength) != CM_OK)
        aData.AdvanceChainedReadPtr(dwLength);
    if (aPara)
        aPara->m_dwHaveSent = dwLength;
    return CM_OK;
}

CmResult CTransportProxyCore::Disconnect(CmResult aReason) {
    const ELife before = Advance_i(ELife::OVER);
    m_pSink = nullptr;
    if (before >= ELife::CLOSED)
        return CM_OK;
    m_DisconnectReason = aReason;
    m_DisconnectEvent.Post(GetNetwork());
    return CM_OK;
}

// Accepted data is still sent, as after Disconnect(CM_OK).
void CTransportProxyCore::Abandon() { Disconnect(CM_OK); }

CmResult CTransportProxyCore::SetOption(DWORD aCommand, void* aArg) {
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    switch (aCommand) {
    case CM_OPT_TRANSPORT_PROXY_SEND_LIMIT:
        m_SendQueue.SetLimit(*static_cast<DWORD*>(aArg));
        return CM_OK;
    case CM_OPT_TRANSPORT_PROXY_RECV_LIMIT:
        m_ReceiveQueue.SetLimit(*static_cast<DWORD*>(aArg));
        return CM_OK;
    case CM_OPT_TRANSPORT_PAUSE_READING:
        PauseReading_i(!!*static_cast<BOOL*>(aArg));
        return CM_OK;
    case CM_OPT_TRANSPORT_RECONNECT_SINK:
        if (!CConnectionType(m_dwType).Has(CConnectionType::RELIABLE))
            return CM_ERROR_INVALID_ARG;
        m_pReconnectSink = *static_cast<ICmReconnectSink**>(aArg);
        return CM_OK;
    case OPT_REST_BEFORE_FAILURE:  // it has that of the transport
        return CM_OK;
    case OPT_PROXY_LOSS_AT_ONCE:
        m_bLossAtOnce = !!*static_cast<BOOL*>(aArg);
        return CM_OK;
    case OPT_PROXY_SENDER:
        return GetNetwork().IsCurrentThread() ? SetSender_i(*static_cast<ICmTransportSink**>(aArg)) : CM_ERROR_INVALID_ARG;
    case OPT_PROXY_SENDER_STARTS:
        return GetNetwork().IsCurrentThread() ? StartSender_i() : CM_ERROR_INVALID_ARG;
    case OPT_PROXY_SENDER_REST:
        return GetNetwork().IsCurrentThread() ? Enqueue_i(*static_cast<CCmMessageBlock*>(aArg), nullptr) : CM_ERROR_INVALID_ARG;
    case CM_OPT_TRANSPORT_TELL_END:
        if (!m_Lane->IsStream())
            return CM_ERROR_INVALID_ARG;
        return GetNetwork().Post([pThis = CCmRefPtrT<CTransportProxyCore>(this), bTell = *static_cast<BOOL*>(aArg)]() mutable {
            pThis->SetInnerOption_i(CM_OPT_TRANSPORT_TELL_END, &bTell);
        });
    case CM_OPT_TRANSPORT_END_SENDING:
        if (!m_Lane->IsStream() || !*static_cast<BOOL*>(aArg))
            return CM_ERROR_INVALID_ARG;
        return Advance_i(ELife::SENDING_ENDED) == ELife::ALIVE ? m_EndSendingEvent.Post(GetNetwork()) : CM_OK;
    default:
        return GetNetwork().Call(
            [=, pThis = CCmRefPtrT<CTransportProxyCore>(this)] { return pThis->SetInnerOption_i(aCommand, aArg); });
    }
}

CmResult CTransportProxyCore::GetOption(DWORD aCommand, void* aArg) {
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    switch (aCommand) {
    case CM_OPT_TRANSPORT_PROXY_SEND_LIMIT:
        *static_cast<DWORD*>(aArg) = m_SendQueue.GetLimit();
        return CM_OK;
    case CM_OPT_TRANSPORT_PROXY_RECV_LIMIT:
        *static_cast<DWORD*>(aArg) = m_ReceiveQueue.GetLimit();
        return CM_OK;
    case CM_OPT_TRANSPORT_PAUSE_READING:
        *static_cast<BOOL*>(aArg) = m_bPausedByUser;
        return CM_OK;
    case CM_OPT_TRANSPORT_LOCAL_ADDR:
    case CM_OPT_TRANSPORT_PEER_ADDR:
    case CM_OPT_TRANSPORT_TRAN_TYPE:
    case CM_OPT_TRANSPORT_LAST_FAILURE:
        return GetKept_i(aCommand, aArg);
    default:
        return GetNetwork().Call(
            [=, pThis = CCmRefPtrT<CTransportProxyCore>(this)] { return pThis->GetInnerOption_i(aCommand, aArg); });
    }
}

// The proxy's own values, available as long as it exists.
CmResult CTransportProxyCore::GetKept_i(DWORD aCommand, void* aArg) const {
    if (aCommand == CM_OPT_TRANSPORT_LAST_FAILURE) {
        *static_cast<CCmFailure*>(aArg) = m_bLost ? m_Failure : CCmFailure();
        return CM_OK;
    }
    if (aCommand == CM_OPT_TRANSPORT_TRAN_TYPE) {
        *static_cast<DWORD*>(aArg) = m_dwTransportType;
        return m_dwTransportType ? CM_OK : CM_ERROR_INVALID_ARG;
    }
    const CGuardedAddr& addr = aCommand == CM_OPT_TRANSPORT_LOCAL_ADDR ? m_LocalAddr : m_PeerAddr;
    return addr.Load(*static_cast<CCmInetAddr*>(aArg)) ? CM_OK : CM_ERROR_NETWORK_SOCKET_ERROR;
}

void CTransportProxyCore::PauseReading_i(BOOL aPause) {
    if (m_bPausedByUser.exchange(aPause) == aPause)
        return;
    PostApplyReading_i();
    if (!aPause)
        PostUpcall_i();  // for queued data
}

void CTransportProxyCore::Upcall() {
    if (!m_pSink && m_Life != ELife::OVER)
        return;                  // not opened yet: all data stays
    const BOOL bLost = m_bLost;  // read first: all data was queued before it was set
    const BOOL bAllDelivered = Deliver_i();
    if (m_bOnSendDue.exchange(FALSE)) {
        if (ICmTransportSink* pSink = m_pSink)
            pSink->OnSend(m_pProxy, nullptr);
    }
    if (!bLost)
        return;
    if ((!bAllDelivered || m_bPausedByUser) && !m_bLossAtOnce) {
        // A user that has paused until there is room may end the pause in OnSend.
        ICmTransportSink* pSink = m_pSink;
        if (m_SendQueue.TakeRefusal() && pSink)
            pSink->OnSend(m_pProxy, nullptr);
        return;
    }
    Advance_i(ELife::OVER);
    ICmTransportSink* pSink = m_pSink.exchange(nullptr);
    m_bPausedByUser = FALSE;
    Deliver_i();  // drops the data that a pause has held back, because there is no sink any more
    if (pSink)
        pSink->OnDisconnect(m_LostReason, m_pProxy);
}

// Delivers the rest from a pause, and newer data. Any upcall may pause, disconnect or release the proxy. FALSE: a pause has
// left data again.
BOOL CTransportProxyCore::Deliver_i() {
    uint64_t ullTaken = 0;
    for (int nBatch = 0; nBatch < 2; ++nBatch) {
        while (!m_Delivering.IsEmpty() && !m_bPausedByUser) {
            if (m_Notices.HasAny()) {
                TellNotices_i();
                if (m_bPausedByUser)
                    break;
            }
            CCmMessageBlock& chunk = m_Delivering.Front();
            ullTaken += uint64_t{chunk.GetChainedLength()} + CProxyReceiveQueue::CHUNK_COST;
            if (ICmTransportSink* pSink = m_pSink)
                pSink->OnReceive(chunk, m_pProxy, nullptr);
            m_Delivering.Pop();
            ++m_ullDelivered;
        }
        if (nBatch > 0 || !m_Delivering.IsEmpty())
            break;
        m_ReceiveQueue.Take(m_Delivering);
    }
    TellNotices_i();
    if (m_ReceiveQueue.Taken(ullTaken))
        PostApplyReading_i();
    return m_Delivering.IsEmpty();
}

// A sink that was set during a gap gets the next one.
void CTransportProxyCore::TellNotices_i() {
    CProxyNotice notice;
    while (m_Notices.Take(m_ullDelivered, notice)) {
        ICmReconnectSink* pSink = m_pSink ? m_pReconnectSink.load() : nullptr;
        const BOOL bTold = std::exchange(m_bToldSuspended, notice.m_bSuspended && pSink);
        if (pSink && notice.m_bSuspended)
            pSink->OnSuspended(m_pProxy, notice.m_Reason);
        else if (pSink && bTold)
            pSink->OnResumed(m_pProxy, notice.m_dwMilliseconds);
    }
}

}  // namespace talvo
