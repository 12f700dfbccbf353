#include "tools/flaky_lane.h"

#include <sys/socket.h>

#include "tools/memory.h"

namespace tool {

namespace {

constexpr size_t MOST_QUEUED = 4 << 20;

}  // namespace

CmResult FlakyLane::Open() {
    BOOL bOn = TRUE;
    m_pTransport->SetOption(CM_OPT_TRANSPORT_TELL_END, &bOn);
    return m_pTransport->OpenWithSink(this);
}

void FlakyLane::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    if (m_bDropping)
        return;
    Piece piece{CCmClock::GetTimeOfDayUsec() + m_llDelayUsec, nullptr};
    if (const DWORD dwLength = aData.GetChainedLength(); dwLength > 0) {
        piece.m_pData.reset(aData.DuplicateChained());
        RequireMemory(piece.m_pData ? CM_OK : CM_ERROR_OUT_OF_MEMORY);
        m_nQueued += dwLength;
    }
    m_Queue.push_back(std::move(piece));
    Pump();
}

void FlakyLane::OnDisconnect(CmResult, ICmTransport*) {
    CCmFailure failure;
    m_pTransport->GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure);
    m_pTransport.Reset();
    if (failure || m_bDropping) {
        m_Owner.OnLaneBroken(*this);
        return;
    }
    m_Queue.push_back({0, nullptr});
    Pump();
}

// A fault that the owner makes inside empties the queue or holds the lane.
void FlakyLane::Pump() {
    while (!m_bHeld && !m_Queue.empty() && IsDue(m_Queue.front())) {
        if (!m_Queue.front().m_pData) {
            m_Queue.clear();
            m_Opposite.EndSending();
            m_Owner.OnLaneEnd(*this);
            return;
        }
        if (!SendFirst())
            break;
    }
    UpdatePause();
}

bool FlakyLane::IsDue(const Piece& aPiece) {
    const int64_t llWait = aPiece.m_llDueUsec - CCmClock::GetTimeOfDayUsec();
    if (llWait > 0)
        RequireMemory(m_Timer.Schedule(this, CCmTimeValue::FromUsec(llWait), 1));
    return llWait <= 0;
}

// false: the other transport takes no more at present.
bool FlakyLane::SendFirst() {
    if (!m_Opposite.IsOpen()) {
        Drop();
        return false;
    }
    CCmMessageBlock& data = *m_Queue.front().m_pData;
    const DWORD dwBefore = data.GetChainedLength();
    const DWORD dwBudget = m_Owner.GetBudget();
    CCmChainPtr pRest(dwBefore > dwBudget ? data.Disjoint(dwBudget) : nullptr);
    const CmResult rv = m_Opposite.m_pTransport->SendData(data);
    data.Append(pRest.release());
    const DWORD dwSent = dwBefore - data.GetChainedLength();
    m_nQueued -= dwSent;
    if (dwSent == dwBefore)
        m_Queue.pop_front();
    m_Owner.OnForwarded(dwSent);
    return rv == CM_OK;
}

void FlakyLane::UpdatePause() {
    BOOL bPause = m_bHeld || m_nQueued > MOST_QUEUED;
    if (bPause == m_bPaused || !m_pTransport)
        return;
    m_bPaused = bPause;
    m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause);
}

void FlakyLane::Hold(bool aHold) {
    m_bHeld = aHold;
    Pump();
}

void FlakyLane::Drop() {
    m_bDropping = true;
    m_bHeld = false;
    m_Queue.clear();
    m_nQueued = 0;
    m_Timer.Cancel();
    UpdatePause();
}

void FlakyLane::EndSending() {
    BOOL bOn = TRUE;
    if (m_pTransport)
        m_pTransport->SetOption(CM_OPT_TRANSPORT_END_SENDING, &bOn);
}

void FlakyLane::Close() {
    Drop();
    if (const CCmRefPtrT<ICmTransport> pTransport = std::move(m_pTransport))
        pTransport->Disconnect(CM_OK);
}

// The system resets a connection that is closed without a linger time.
void FlakyLane::Reset() {
    HANDLE fd = CM_INVALID_HANDLE;
    const linger none{1, 0};
    if (m_pTransport && m_pTransport->GetOption(CM_OPT_TRANSPORT_FD, &fd) == CM_OK)
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof none);
    Drop();
    if (const CCmRefPtrT<ICmTransport> pTransport = std::move(m_pTransport))
        pTransport->Disconnect(CM_ERROR_NETWORK_SOCKET_ERROR);
}

}  // namespace tool
