// The output side and the time-outs; http_server_connection.cc has the input side.
#include <charconv>

#include "talvo/base/trace.h"
#include "talvo/http/server/http_server_connection.h"

namespace talvo {

namespace {

constexpr DWORD SMALL = 4096;              // bytes of a body: up to here a copy after its head is cheaper than a piece
constexpr DWORD MOST_HELD = 64 * 1024;     // bytes received before they can be used; reading pauses then
constexpr DWORD CLOSE_SECONDS = 5;         // for the peer to close after the last answer
constexpr uint64_t LEAST_PROGRESS = 1024;  // bytes of a body in each idle time

}  // namespace

std::string_view CHttpServerConnection::BeginAnswer(BOOL aLast) {
    // If no 100 was sent, the client may send the body or omit it: the next bytes could be either.
    if (aLast || m_bContinueDue)
        m_bLast = TRUE;
    return m_Owner.GetTail(!m_bLast);
}

BOOL CHttpServerConnection::IsGathered_i(DWORD aLength) const { return aLength <= SMALL && !m_Output.HasChain(); }

void CHttpServerConnection::AppendCopy_i(const CCmMessageBlock& aData) {
    for (const CCmMessageBlock* pBlock = &aData; pBlock; pBlock = pBlock->GetNext())
        m_Output.GetText().append(pBlock->GetTopLevelReadPtr(), pBlock->GetTopLevelLength());
}

CmResult CHttpServerConnection::SendAll(CCmMessageBlock& aBody) {
    const DWORD dwLength = aBody.GetChainedLength();
    if (IsGathered_i(dwLength)) {
        AppendCopy_i(aBody);
    } else {
        if (!m_bBlocked && !m_bBroken)
            OnSent_i(m_Output.SendWith(*m_pTransport, &aBody));
        if (aBody.GetChainedLength() > 0) {
            CCmChainPtr pRest(aBody.DuplicateChained());
            if (!pRest)
                return CM_ERROR_OUT_OF_MEMORY;
            m_Output.AppendChain(std::move(pRest));
        }
    }
    aBody.AdvanceChainedReadPtr(aBody.GetChainedLength());
    return CM_OK;
}

CmResult CHttpServerConnection::SendPart(CCmMessageBlock& aData) {
    if (m_bBroken)
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    if (m_bBlocked)
        return CM_ERROR_PARTIAL_DATA;
    const DWORD dwLength = aData.GetChainedLength();
    if (m_bRunning && IsGathered_i(dwLength) && m_Output.GetTextLength() < SMALL) {
        AppendCopy_i(aData);
        aData.AdvanceChainedReadPtr(dwLength);
        return CM_OK;
    }
    const CmResult rv = m_Output.SendWith(*m_pTransport, &aData);
    OnSent_i(rv);
    if (!m_bRunning)
        Settle_i();
    return rv;
}

CmResult CHttpServerConnection::SendChunk(const CCmMessageBlock& aData, DWORD aLength) {
    if (m_bBroken)
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    if (m_bBlocked)
        return CM_ERROR_PARTIAL_DATA;
    if (aLength > 0) {
        char szSize[16];
        const char* pEnd = std::to_chars(szSize, szSize + sizeof szSize, aLength, 16).ptr;
        m_Output.GetText().append(szSize, static_cast<size_t>(pEnd - szSize)).append("\r\n");
        if (IsGathered_i(aLength)) {
            AppendCopy_i(aData);
        } else if (CCmChainPtr pCopy{aData.DuplicateChained()}) {
            m_Output.AppendChain(std::move(pCopy));
        } else {
            return CM_ERROR_OUT_OF_MEMORY;
        }
        if (m_Output.Append("\r\n") != CM_OK)
            return CM_ERROR_OUT_OF_MEMORY;
    }
    if (!m_bRunning || !IsGathered_i(static_cast<DWORD>(m_Output.GetTextLength())))
        Flush_i();
    if (!m_bRunning)
        Settle_i();
    return CM_OK;
}

void CHttpServerConnection::Flush_i() {
    if (!m_bBlocked && !m_bBroken && !m_Output.IsEmpty())
        OnSent_i(m_Output.Send(*m_pTransport));
}

void CHttpServerConnection::OnSent_i(CmResult aResult) {
    if (aResult == CM_ERROR_PARTIAL_DATA)
        m_bBlocked = TRUE;
    else if (aResult != CM_OK)
        m_bBroken = TRUE;
    if (aResult == CM_ERROR_OUT_OF_MEMORY)
        m_BrokenReason = aResult;
}

// Applies the consequences of the new state.
void CHttpServerConnection::Settle_i() {
    if (m_State == ENDED)
        return;
    if (m_State == CLOSING) {
        m_Held.Clear();
        if (m_Output.IsEmpty() && !m_bEndSent) {
            BOOL bEnd = m_bEndSent = TRUE;
            if (m_pTransport->SetOption(CM_OPT_TRANSPORT_END_SENDING, &bEnd) != CM_OK)
                m_bBroken = TRUE;
        }
    }
    if (m_bBroken || IsStarved_i())
        return Kick_i();
    PauseReading_i(m_State != CLOSING && m_Held.GetLength() >= MOST_HELD);
    SetWait_i(GetWait_i());
}

// The peer has half-closed and no work is left for it.
BOOL CHttpServerConnection::IsStarved_i() const {
    if (!m_bPeerEnded || m_bBlocked)
        return FALSE;
    if (m_State == BODY && !IsAnswered_i() && !m_pChannel->GetServerSink())
        return !IsBodyWhole_i(m_Held.GetHead());
    if (!m_Held.IsEmpty())
        return FALSE;
    switch (m_State) {
    case HEAD:
    case CLOSING:
        return m_Output.IsEmpty();
    case BODY:
        return IsAnswered_i() || !m_pChannel->IsHeldBack();
    case ANSWER:
    case ENDED:
        break;
    }
    return FALSE;
}

// A transport that does not support this has no data to wait for.
BOOL CHttpServerConnection::IsAcknowledged_i() {
    DWORD dwBytes = 0;
    return m_pTransport->GetOption(CM_OPT_TRANSPORT_UNACKNOWLEDGED, &dwBytes) != CM_OK || dwBytes == 0;
}

CHttpServerConnection::EWait CHttpServerConnection::GetWait_i() const {
    if (m_bBlocked)
        return FOR_READER;
    switch (m_State) {
    case HEAD:
        if (m_Reader.HasBegun())
            return FOR_HEAD;
        return m_bFirst ? FOR_FIRST : FOR_NEXT;
    case BODY:
        return IsAnswered_i() || !m_pChannel->IsHeldBack() ? FOR_BODY : FOR_NOTHING;
    case CLOSING:
        return FOR_CLOSE;
    case ANSWER:
    case ENDED:
        break;
    }
    return FOR_NOTHING;
}

void CHttpServerConnection::SetWait_i(EWait aWait) {
    const uint64_t ullReceived = m_BodyReader.GetReceived();
    if (aWait == m_Wait && (aWait != FOR_BODY || ullReceived - m_ullProgress < LEAST_PROGRESS))
        return;
    m_Wait = aWait;
    m_ullProgress = ullReceived;
    m_dwDeadline = m_Owner.GetLooks() + GetTimeout_i(aWait) + 1;  // the first look may come at once
}

DWORD CHttpServerConnection::GetTimeout_i(EWait aWait) const {
    switch (aWait) {
    case FOR_FIRST:
    case FOR_HEAD:
        return m_Owner.GetSettings().m_dwHeadSeconds;
    case FOR_NEXT:
    case FOR_BODY:
    case FOR_READER:
        return m_Owner.GetSettings().m_dwIdleSeconds;
    case FOR_CLOSE:
        return CLOSE_SECONDS;
    case FOR_NOTHING:
        break;
    }
    return 0;
}

void CHttpServerConnection::PauseReading_i(BOOL aPause) {
    if (std::exchange(m_bReadingPaused, aPause) != aPause)
        m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPause);
}

void CHttpServerConnection::Kick_i() {
    const CmResult rv = m_Kick.Schedule(this, CCmTimeValue(0, 0), 1);
    m_bKickDue = rv != CM_OK && rv != CM_ERROR_FOUND;
}

}  // namespace talvo
