// The receiving half of a simulated end, and its options.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "talvo/base/trace.h"
#include "talvo/testing/sim_transport.h"
#include "talvo/transport/rest_option.h"

namespace talvo {

void CSimTransport::TakeDatagram(std::string aBytes) {
    const size_t stRoom = GetPathIn_i().m_dwBuffer;
    const BOOL bFits = m_stUnread + aBytes.size() <= stRoom;
    m_pCore->m_Trace.Note(m_End, bFits ? "gets" : "drops", static_cast<int64_t>(aBytes.size()));
    if (!bFits)
        return;
    m_stUnread += aBytes.size();
    m_Unread.push_back(std::move(aBytes));
    ScheduleDelivery_i();
}

void CSimTransport::TakeArrivals_i() {
    const auto again = [&core = *m_pCore, key = m_Key] {
        if (CSimTransport* pEnd = core.FindEnd(key))
            pEnd->TakeArrivals_i();
    };
    if (m_OnTheWay.empty() || m_pCore->HoldWhileSilent(GetPathIn_i(), again))
        return;
    while (!m_OnTheWay.empty() && m_OnTheWay.front().m_llArrives <= m_pCore->m_Schedule.Now()) {
        CPiece piece = std::move(m_OnTheWay.front());
        m_OnTheWay.pop_front();
        TakePiece_i(std::move(piece));
    }
    ScheduleDelivery_i();
}

void CSimTransport::TakePiece_i(CPiece aPiece) {
    if (aPiece.m_Kind == CUT)
        Break_i();
    if (aPiece.m_Kind == END)
        m_bEndArrived = TRUE;
    if (aPiece.m_Kind != DATA)
        return;
    m_pCore->m_Trace.Note(m_End, "gets", static_cast<int64_t>(aPiece.m_strBytes.size()));
    m_stUnread += aPiece.m_strBytes.size();
    m_Unread.push_back(std::move(aPiece.m_strBytes));
}

// A broken stream does not wait for the end of a pause, which may never come.
void CSimTransport::ScheduleDelivery_i() {
    m_bPaused = m_bPaused && !(m_End.m_bBroken && m_bRestFirst);
    const BOOL bReadable = !m_bPaused && (!m_Unread.empty() || (m_bEndArrived && !m_bEndNotified));
    if (m_pSink && (bReadable || m_End.m_bBroken) && !std::exchange(m_bDeliveryDue, TRUE))
        After_i(0, &CSimTransport::Deliver_i);
}

void CSimTransport::Deliver_i() {
    m_bDeliveryDue = FALSE;
    if (!m_pSink)
        return;
    if (!m_bPaused && !m_Unread.empty())
        DeliverBytes_i();
    else if (m_End.m_bBroken)
        Fail_i();
    else if (!m_bPaused && m_bEndArrived)
        NotifyEnd_i();
}

void CSimTransport::DeliverBytes_i() {
    std::string strBytes = TakeUnread_i();
    ScheduleDelivery_i();
    const std::shared_ptr<CSimCore> pCore = m_pCore;
    pCore->m_Trace.Note(m_End, "delivers", static_cast<int64_t>(strBytes.size()));
    if (pCore->m_pObserver)
        pCore->m_pObserver->OnReceive(m_End, strBytes);
    const auto dwLength = static_cast<DWORD>(strBytes.size());
    CCmMessageBlock block(dwLength, strBytes.data(), CCmMessageBlock::DONT_DELETE, dwLength);
    m_pSink->OnReceive(block, this, nullptr);
    if (pCore->m_pObserver)
        pCore->m_pObserver->OnReceived(m_End, strBytes);
    std::fill(strBytes.begin(), strBytes.end(), '\xEE');  // detects a view that was kept
}

// The result of one read: a datagram, or any part of the unread bytes of a stream.
std::string CSimTransport::TakeUnread_i() {
    std::string strBytes;
    if (m_End.m_bDatagrams) {
        strBytes = std::move(m_Unread.front());
        m_Unread.pop_front();
    } else {
        const size_t stMax = std::max<size_t>(std::min(GetPathIn_i().m_dwMaxPiece, m_Sizes.m_dwReadSize), 1);
        strBytes = TakeFromStream_i(m_pCore->m_Random.Chance(0.5) ? stMax : 1 + m_pCore->m_Random.Below(stMax));
        if (CSimTransport* pPeer = FindPeer_i())
            pPeer->OnPeerRead_i(strBytes.size());
    }
    m_stUnread -= strBytes.size();
    return strBytes;
}

std::string CSimTransport::TakeFromStream_i(size_t aMax) {
    std::string strBytes;
    while (!m_Unread.empty() && strBytes.size() < aMax) {
        const size_t stTaken = std::min(aMax - strBytes.size(), m_Unread.front().size() - m_stFrontRead);
        strBytes.append(m_Unread.front(), m_stFrontRead, stTaken);
        m_stFrontRead += stTaken;
        if (m_stFrontRead < m_Unread.front().size())
            continue;
        m_Unread.pop_front();
        m_stFrontRead = 0;
    }
    return strBytes;
}

void CSimTransport::OnPeerRead_i(size_t aLength) {
    m_End.m_dwUnread -= static_cast<DWORD>(aLength);
    if (m_End.m_bOwesSend)
        After_i(m_pCore->DelayOf(GetPathIn_i()), &CSimTransport::NotifyRoom_i);
}

void CSimTransport::NotifyRoom_i() {
    if (!m_End.m_bOwesSend || !m_pSink || m_End.m_bBroken || GetRoom_i(1, GetPathOut_i()) == 0)
        return;
    m_End.m_bOwesSend = FALSE;
    m_pCore->m_Trace.Note(m_End, "has room");
    m_pSink->OnSend(this, nullptr);
}

// After the ends of both directions the connection ends.
void CSimTransport::NotifyEnd_i() {
    if (!m_bTellEnd || m_bEndSent) {
        Fail_i();
        return;
    }
    m_bEndNotified = TRUE;
    m_pCore->m_Trace.Note(m_End, "delivers the end");
    CCmMessageBlock nothing(DWORD{0});
    m_pSink->OnReceive(nothing, this, nullptr);
}

// From now on sends fail. OnDisconnect comes after a delay, after the unread bytes.
void CSimTransport::Break_i() {
    if (std::exchange(m_End.m_bBroken, TRUE))
        return;
    m_pCore->m_Trace.Note(m_End, "breaks");
    NoteFailure_i(RECEIVING, ECONNRESET);
    m_OnTheWay.clear();
    m_bEndArrived = TRUE;
    After_i(m_pCore->DelayOf(GetPathIn_i()), &CSimTransport::ScheduleDelivery_i);
}

void CSimTransport::Fail_i() {
    m_pCore->m_Trace.Note(m_End, "ends");
    m_bEndArrived = TRUE;
    OnClose(CM_INVALID_HANDLE, READ_MASK);
}

CmResult CSimTransport::EndSending_i() {
    if (m_End.m_bDatagrams)
        return CM_ERROR_INVALID_ARG;
    if (m_bClosed || m_End.m_bBroken)
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    if (!std::exchange(m_bEndSent, TRUE))
        Post_i(END, {});
    if (m_bEndNotified)
        After_i(0, &CSimTransport::NotifyEnd_i);
    return CM_OK;
}

CmResult CSimTransport::SetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    switch (aCommand) {
    case CM_OPT_TRANSPORT_PAUSE_READING:
        m_bPaused = *static_cast<BOOL*>(aArg);
        ScheduleDelivery_i();
        return CM_OK;
    case CM_OPT_TRANSPORT_LAYERED:
        return SetLayered_i(*static_cast<BOOL*>(aArg));
    case OPT_REST_BEFORE_FAILURE:
        m_bRestFirst = *static_cast<BOOL*>(aArg);
        return CM_OK;
    case CM_OPT_TRANSPORT_TELL_END:
        m_bTellEnd = m_bTellEnd || *static_cast<BOOL*>(aArg);
        return m_End.m_bDatagrams ? CM_ERROR_INVALID_ARG : CM_OK;
    case CM_OPT_TRANSPORT_END_SENDING:
        return *static_cast<BOOL*>(aArg) ? EndSending_i() : CM_ERROR_INVALID_ARG;
    case CM_OPT_TRANSPORT_READ_SIZE:
        return m_End.m_bDatagrams ? CM_ERROR_INVALID_ARG : m_Sizes.SetOption(aCommand, aArg);
    case CM_OPT_TRANSPORT_SNDBUF:
    case CM_OPT_TRANSPORT_RCVBUF:
        return m_Sizes.SetOption(aCommand, aArg);
    case CM_OPT_TRANSPORT_KEEPALIVE:
    case CM_OPT_TRANSPORT_TOS:
        return CM_OK;
    default:
        return CM_ERROR_INVALID_ARG;
    }
}

CmResult CSimTransport::GetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    const auto give = [aArg](const auto& aValue) {
        *static_cast<std::decay_t<decltype(aValue)>*>(aArg) = aValue;
        return CM_OK;
    };
    switch (aCommand) {
    case CM_OPT_TRANSPORT_LOCAL_ADDR:
        return give(m_Key.first);
    case CM_OPT_TRANSPORT_PEER_ADDR:
        return give(m_Key.second);
    case CM_OPT_TRANSPORT_TRAN_TYPE:
        return give(DWORD{m_End.m_bDatagrams ? CM_TRANSPORT_TYPE_UDP : CM_TRANSPORT_TYPE_TCP});
    case CM_OPT_TRANSPORT_LAST_FAILURE:
        return give(GetFailure_i(m_Key.second));
    case CM_OPT_TRANSPORT_UNACKNOWLEDGED:
        return give(m_End.m_dwUnread);
    case CM_OPT_TRANSPORT_FIO_NREAD:
        return give(static_cast<DWORD>(m_End.m_bDatagrams && !m_Unread.empty() ? m_Unread.front().size() : m_stUnread));
    case CM_OPT_TRANSPORT_SOCK_ALIVE:
        give(BOOL{!m_bClosed && !m_End.m_bBroken && (!m_Unread.empty() || !m_bEndArrived)});
        return m_bClosed ? CM_ERROR_NOT_INITIALIZED : CM_OK;
    case CM_OPT_TRANSPORT_PAUSE_READING:
        return give(m_bPaused);
    case CM_OPT_TRANSPORT_READ_SIZE:
        return m_End.m_bDatagrams ? CM_ERROR_INVALID_ARG : give(m_Sizes.m_dwReadSize);
    case CM_OPT_TRANSPORT_SNDBUF:
        return give(static_cast<int>(m_Sizes.m_dwSendBuffer > 0 ? m_Sizes.m_dwSendBuffer : GetPathOut_i().m_dwBuffer));
    case CM_OPT_TRANSPORT_RCVBUF:
        return give(static_cast<int>(m_Sizes.m_dwReceiveBuffer > 0 ? m_Sizes.m_dwReceiveBuffer : GetPathIn_i().m_dwBuffer));
    default:
        return CM_ERROR_INVALID_ARG;
    }
}

}  // namespace talvo
