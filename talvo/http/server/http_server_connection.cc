// The input side; http_server_connection_output.cc has the output side.
#include "talvo/http/server/http_server_connection.h"

#include <new>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_framing.h"
#include "talvo/http/message/http_memory.h"
#include "talvo/http/message/http_status.h"
#include "talvo/http/message/http_text.h"
#include "talvo/transport/socket_settings.h"

namespace talvo {

namespace {

CCmLiveCounter s_Live("CHttpServerConnection");

constexpr size_t MOST_GATHERED = 32 * 1024;    // bytes of answers gathered before they are sent and the next request is read
constexpr uint64_t MOST_DROPPED = 128u << 20;  // bytes read from a peer that still sends after the last answer

}  // namespace

CHttpServerConnection::CHttpServerConnection(CHttpServerOwner& aOwner, ICmTransport* aTransport)
    : m_Owner(aOwner), m_pTransport(aTransport), m_Reader(aOwner.GetSettings()) {
    ++s_Live;
}

CHttpServerConnection::~CHttpServerConnection() { --s_Live; }

CmResult CHttpServerConnection::Open() {
    BOOL bTell = TRUE;
    m_pTransport->SetOption(CM_OPT_TRANSPORT_TELL_END, &bTell);
    CCmInetAddr addrLocal;
    m_pTransport->GetOption(CM_OPT_TRANSPORT_LOCAL_ADDR, &addrLocal);  // a transport keeps its answer beyond the end
    AskForLargeReads(*m_pTransport);
    const CmResult rv = m_pTransport->OpenWithSink(this);
    if (rv == CM_OK)
        Settle_i();
    return rv;
}

// Runs one call of the loop or the transport. If memory runs out inside, this connection ends.
template <class Call>
void CHttpServerConnection::Enter_i(const Call& aCall) {
    if (WithMemory(aCall))
        return;
    m_bRunning = FALSE;
    End(CM_ERROR_OUT_OF_MEMORY);
}

void CHttpServerConnection::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) {
    Enter_i([&] { TakeData_i(aData); });
}

void CHttpServerConnection::TakeData_i(CCmMessageBlock& aData) {
    if (aData.GetChainedLength() == 0) {
        m_bPeerEnded = TRUE;
        return RunHeld_i(FALSE);
    }
    if (m_State == CLOSING) {
        m_ullDropped += aData.GetChainedLength();
        if (m_ullDropped > MOST_DROPPED)
            End(CM_OK);
        return;
    }
    if (m_Held.IsEmpty())
        Run_i(&aData, FALSE);
    Hold_i(aData);
    Settle_i();
}

void CHttpServerConnection::OnSend(ICmTransport*, CCmTransportParameter*) {
    m_bBlocked = FALSE;
    m_Wait = FOR_NOTHING;  // each progress restarts the time
    Enter_i([this] {
        Flush_i();
        if (m_bBlocked)
            Settle_i();
        else
            RunHeld_i(TRUE);
    });
}

void CHttpServerConnection::OnDisconnect(CmResult aReason, ICmTransport*) { End(aReason); }

void CHttpServerConnection::OnTimer(CCmTimerWrapperID*) {
    Enter_i([this] { RunKick_i(); });
}

void CHttpServerConnection::RunKick_i() {
    const BOOL bStarved = IsStarved_i();
    if (m_bBroken || (bStarved && m_State == BODY))
        End(m_BrokenReason);
    else if (bStarved)
        End(CM_OK);  // graceful: data in a proxy is still sent
    else
        RunHeld_i(FALSE);
}

void CHttpServerConnection::RunHeld_i(BOOL aRoom) {
    CBlockChain input(m_Held.Take());
    const BOOL bGood = WithMemory([&] { Run_i(input.GetHead(), aRoom); });
    input.DropRead();
    m_Held = std::move(input);
    if (!bGood)
        throw std::bad_alloc();  // the entry catches it
    Settle_i();
}

// Runs as many steps as possible now. The rest of the input stays.
void CHttpServerConnection::Run_i(CCmMessageBlock* aInput, BOOL aRoom) {
    m_bRunning = TRUE;
    if (aRoom)
        NotifyRoom_i();
    while (Step_i(aInput)) {
    }
    m_bRunning = FALSE;
    if (m_State != ENDED)
        Flush_i();
}

// TRUE: one step is done, and more may follow.
BOOL CHttpServerConnection::Step_i(CCmMessageBlock* aInput) {
    switch (m_State) {
    case HEAD:
        return ReadHead_i(aInput);
    case BODY:
        return ReadBody_i(aInput);
    case ANSWER:
        return IsAnswered_i() ? Answered_i() : NotifyEnd_i() || NotifyClientEnd_i();
    case CLOSING:
    case ENDED:
        break;
    }
    return FALSE;
}

BOOL CHttpServerConnection::ReadHead_i(CCmMessageBlock* aInput) {
    if (m_Output.HasChain() || m_Output.GetTextLength() >= MOST_GATHERED)
        Flush_i();
    if (m_bBlocked || m_bBroken)
        return FALSE;
    if (m_bStopping) {
        m_State = CLOSING;
        return FALSE;
    }
    if (!aInput || aInput->GetChainedLength() == 0)
        return FALSE;
    if (!m_pChannel)
        m_pChannel = new (std::nothrow) CCmChannelHttpServer(*this);
    if (!m_pChannel) {
        End(CM_ERROR_OUT_OF_MEMORY);
        return FALSE;
    }
    const int nResult = m_Reader.Feed(*aInput, m_pChannel->GetHead());
    if (nResult == CHttpRequestReader::COMPLETE)
        return BeginRequest_i();
    if (nResult != CHttpRequestReader::MORE)
        Refuse_i(nResult);
    return FALSE;
}

BOOL CHttpServerConnection::BeginRequest_i() {
    const CCmHttpRequestHead& head = m_pChannel->GetRequest();
    const CHttpFraming framing = get_request_framing(head);
    m_bFirst = m_bEndNotified = m_bClientEndNotified = FALSE;
    m_bLast = m_bStopping || framing.m_bMustClose || !is_persistent(head.GetVerion(), head);
    if (const int nStatus = CheckRequest_i(framing); nStatus != 0) {
        Refuse_i(nStatus);
        return FALSE;
    }
    m_BodyReader.SetLimits(m_Owner.GetSettings().m_Limits);
    m_BodyReader.Begin(framing.m_Body, framing.m_ullLength);
    m_State = m_BodyReader.IsComplete() ? ANSWER : BODY;
    Upcall([this] { m_Owner.OnRequest(*m_pChannel); });
    CheckReleased_i();
    return TRUE;
}

// Checks a request before its upcall: 0, or the status of a refusal.
int CHttpServerConnection::CheckRequest_i(const CHttpFraming& aFraming) {
    if (aFraming.m_nError != 0)
        return aFraming.m_nError;
    if (aFraming.m_Body == EHttpBody::LENGTH && aFraming.m_ullLength > m_Owner.GetSettings().m_Limits.m_ullMaxBody)
        return HTTP_CONTENT_TOO_LARGE;
    const CCmHttpRequestHead& head = m_pChannel->GetRequest();
    const CCmString* pExpect = head.FindHeader(CCmHttpAtomList::Expect);
    const BOOL bExpects = pExpect && head.GetVerion() >= CM_HTTP_VERSION_11;  // 1.0 does not define it
    if (bExpects && !equal_no_case(*pExpect, "100-continue"))
        return HTTP_EXPECTATION_FAILED;
    m_bContinueDue = bExpects && aFraming.m_Body != EHttpBody::NONE;
    return 0;
}

BOOL CHttpServerConnection::ReadBody_i(CCmMessageBlock* aInput) {
    if (IsAnswered_i() && (m_bLast || m_bBroken)) {
        m_State = ANSWER;  // the rest is not used
        return TRUE;
    }
    if (!IsAnswered_i() && m_pChannel->IsHeldBack())
        return m_bPeerEnded && IsBodyWhole_i(aInput) && NotifyClientEnd_i();
    if (!aInput || aInput->GetChainedLength() == 0)
        return FALSE;
    return OnBodyResult_i(m_BodyReader.Feed(*aInput, *this));
}

BOOL CHttpServerConnection::OnBody(CCmMessageBlock& aView) {
    if (IsAnswered_i())
        return TRUE;
    Upcall([&] { m_pChannel->GetServerSink()->OnReceive(aView, m_pChannel.Get(), nullptr); });
    CheckReleased_i();
    return m_State == BODY && (IsAnswered_i() || !m_pChannel->IsHeldBack());
}

BOOL CHttpServerConnection::OnBodyResult_i(CmResult aResult) {
    if (m_State != BODY)
        return FALSE;
    if (m_BodyReader.IsComplete())
        m_State = ANSWER;
    else if (aResult == CM_ERROR_OUT_OF_MEMORY)
        End(aResult);
    else if (aResult == CM_ERROR_FAILURE)
        Refuse_i(m_BodyReader.IsBeyondLimit() ? HTTP_CONTENT_TOO_LARGE : HTTP_BAD_REQUEST);
    return m_State != ENDED && (m_BodyReader.IsComplete() || (IsAnswered_i() && m_bLast));
}

BOOL CHttpServerConnection::NotifyEnd_i() {
    if (m_bEndNotified || m_pChannel->IsHeldBack())
        return FALSE;
    m_bEndNotified = TRUE;
    Upcall([this] { m_pChannel->GetServerSink()->OnRequestEnd(m_pChannel.Get()); });
    CheckReleased_i();
    return TRUE;
}

// With a sink it comes after the end of the request; without one the body may still be held back.
BOOL CHttpServerConnection::NotifyClientEnd_i() {
    ICmChannelHttpServerSink* pSink = m_pChannel->GetServerSink();
    if (!m_bPeerEnded || m_bClientEndNotified || (pSink && (!m_bEndNotified || m_pChannel->IsHeldBack())))
        return FALSE;
    m_bClientEndNotified = TRUE;
    Upcall([&] { pSink ? pSink->OnClientEnd(m_pChannel.Get()) : m_Owner.OnClientEnd(*m_pChannel); });
    CheckReleased_i();
    return TRUE;
}

void CHttpServerConnection::NotifyRoom_i() {
    if (!HasRequest_i() || !m_pChannel->TakeOnSendDue())
        return;
    if (ICmChannelHttpServerSink* pSink = m_pChannel->GetServerSink())
        Upcall([&] { pSink->OnSend(m_pChannel.Get(), nullptr); });
    CheckReleased_i();
}

// Starts the next request, in the same channel unless the application still holds it.
BOOL CHttpServerConnection::Answered_i() {
    if (m_pChannel->IsShared()) {
        m_pChannel->Detach();
        m_pChannel.Reset();
    } else {
        m_pChannel->Reset();
    }
    m_State = m_bLast ? CLOSING : HEAD;
    m_Wait = FOR_NOTHING;
    return TRUE;
}

void CHttpServerConnection::OnAnswered() {
    if (m_bRunning)
        return;
    if (m_State == ANSWER)
        Answered_i();
    Flush_i();
    if (!m_Held.IsEmpty() || m_State == BODY)
        Kick_i();
    Settle_i();
}

CmResult CHttpServerConnection::InviteBody() {
    if (!m_bContinueDue || m_pChannel->IsBegun())
        return CM_OK;
    const CmResult rv = m_Output.Append("HTTP/1.1 100 Continue\r\n\r\n");
    m_bContinueDue = rv != CM_OK;
    return rv;
}

void CHttpServerConnection::OnBodyWanted() {
    if (m_bRunning)
        return;
    Flush_i();
    Kick_i();
    Settle_i();
}

void CHttpServerConnection::OnReleased() {
    if (!m_bRunning)
        CheckReleased_i();
}

// An application that drops a request without an answer must not leave its client waiting.
void CHttpServerConnection::CheckReleased_i() {
    if (!HasRequest_i() || m_pChannel->IsShared() || m_pChannel->IsComplete())
        return;
    m_pChannel->Forget();
    Refuse_i(HTTP_SERVER_ERROR);
}

void CHttpServerConnection::Drop() {
    if (m_pChannel)
        m_pChannel->Forget();
    End(CM_ERROR_NETWORK_SOCKET_CLOSE);
}

// The server's own answer, the last on this connection. If another answer has begun, the connection ends without it.
void CHttpServerConnection::Refuse_i(int aStatus) {
    CM_WARNING_TRACE_THIS("CHttpServerConnection::Refuse_i, aStatus=" << aStatus);
    const CmResult reason = aStatus == HTTP_REQUEST_TIMEOUT ? CM_ERROR_TIMEOUT : CM_ERROR_NETWORK_SOCKET_ERROR;
    const BOOL bRequest = HasRequest_i();
    const BOOL bAnswered = bRequest && IsAnswered_i();
    if (bRequest && m_pChannel->IsBegun() && !bAnswered)
        return End(reason);
    DWORD dwBytes = 0;
    if (!bAnswered && !PrintRefusal_i(aStatus, dwBytes))
        return End(CM_ERROR_OUT_OF_MEMORY);
    CCmInetAddr addrPeer;
    m_pTransport->GetOption(CM_OPT_TRANSPORT_PEER_ADDR, &addrPeer);
    const CCmRefPtrT<CCmChannelHttpServer> pChannel = m_pChannel;
    Close_i(reason);
    // The last call: the upcall may do anything to the owner. None comes inside a release by the application.
    if (!bAnswered && pChannel && !pChannel->IsForgotten())
        Upcall([&] { m_Owner.OnRefused(aStatus, pChannel->GetRequest(), addrPeer, dwBytes); });
}

// Takes no more input, and ends after the answers in flight.
void CHttpServerConnection::Close_i(CmResult aReason) {
    const BOOL bTell = HasRequest_i() && !IsAnswered_i();
    const CCmRefPtrT<CCmChannelHttpServer> pChannel = std::move(m_pChannel);
    m_bLast = TRUE;
    m_State = CLOSING;
    if (!m_bRunning) {
        Flush_i();
        Settle_i();
    }
    if (bTell)
        NotifyLost_i(*pChannel, aReason);
    else if (pChannel)
        pChannel->Detach();
}

// aBytes (out): of the body. FALSE: memory ran out, and how much of it is printed is unknown.
BOOL CHttpServerConnection::PrintRefusal_i(int aStatus, DWORD& aBytes) {
    const BOOL bHeadOnly = m_pChannel && m_pChannel->GetRequest().GetMethod() == CCmHttpAtomList::Head;
    CmResult rv = CM_OK;
    return WithMemory([&] {
               const CCmString strBody = std::to_string(aStatus) + " " + HttpStatusText(aStatus) + "\n";
               CHttpServerAnswer answer;
               answer.SetStatus(aStatus, "");
               rv = answer.SetHeader(CCmHttpAtomList::Content_Type, "text/plain", FALSE);
               answer.Print(EHttpBody::LENGTH, strBody.size(), m_Owner.GetTail(FALSE), m_Output.GetText());
               aBytes = bHeadOnly ? 0 : static_cast<DWORD>(strBody.size());
               if (rv == CM_OK && !bHeadOnly)
                   rv = m_Output.Append(strBody);
           }) &&
           rv == CM_OK;
}

void CHttpServerConnection::OnLate() {
    if (std::exchange(m_bKickDue, FALSE))
        return OnTimer(nullptr);
    switch (m_Wait) {
    case FOR_FIRST:
    case FOR_NEXT:
        m_State = CLOSING;
        return Settle_i();
    case FOR_HEAD:
    case FOR_BODY:
        return Refuse_i(HTTP_REQUEST_TIMEOUT);
    case FOR_READER:
        CM_WARNING_TRACE_THIS("CHttpServerConnection::OnLate, the peer does not take its answer.");
        return End(CM_ERROR_TIMEOUT);
    case FOR_CLOSE:
        return End(CM_OK);
    case FOR_NOTHING:
        break;
    }
}

void CHttpServerConnection::Stop() {
    m_bStopping = m_bLast = TRUE;
    if (m_bRunning)
        return;  // the next step handles it
    if (m_State == BODY && IsAnswered_i())
        Answered_i();
    else if (m_State == HEAD && !m_bBlocked)
        m_State = CLOSING;
    Settle_i();
}

void CHttpServerConnection::Drain() {
    Stop();
    if (m_State == BODY && !m_pChannel->IsBegun() && !IsBodyWhole_i(m_Held.GetHead()))
        Close_i(CM_ERROR_NETWORK_SOCKET_CLOSE);
    if (m_State == CLOSING && m_bEndSent && IsAcknowledged_i())
        End(CM_OK);
}

void CHttpServerConnection::Abort(CmResult aReason) {
    m_pChannel->Forget();
    End(aReason);
}

void CHttpServerConnection::End(CmResult aReason) {
    if (m_State == ENDED)
        return;
    const BOOL bTell = HasRequest_i() && !IsAnswered_i();
    m_State = ENDED;
    m_Wait = FOR_NOTHING;
    m_bKickDue = FALSE;
    m_Kick.Cancel();
    m_pTransport->Disconnect(aReason);
    m_Output.Clear();
    m_Held.Clear();
    const CCmRefPtrT<CCmChannelHttpServer> pChannel = std::move(m_pChannel);
    m_Owner.Remove(*this);
    if (bTell)
        NotifyLost_i(*pChannel, aReason);
    else if (pChannel)
        pChannel->Detach();
}

// The last call for a request. The upcall may do anything to the channel and to the owner.
void CHttpServerConnection::NotifyLost_i(CCmChannelHttpServer& aChannel, CmResult aReason) {
    ICmChannelHttpServerSink* pSink = aChannel.Detach();
    if (aChannel.IsForgotten())
        return;
    if (pSink)
        Upcall([&] { pSink->OnDisconnect(aReason, &aChannel); });
    else if (aChannel.IsShared())
        Upcall([&] { m_Owner.OnRequestLost(aReason, aChannel); });
}

// TRUE: aInput (null: no input) has the rest of the current body, which may not be read yet. FALSE also if memory runs out.
BOOL CHttpServerConnection::IsBodyWhole_i(const CCmMessageBlock* aInput) const {
    class CDiscard : public CHttpBodySink {
        BOOL OnBody(CCmMessageBlock&) override { return TRUE; }
    };
    BOOL bWhole = FALSE;
    WithMemory([&] {
        CDiscard discard;
        CHttpBodyReader reader = m_BodyReader;
        if (const CCmChainPtr pInput{aInput ? aInput->DuplicateChained() : nullptr})
            reader.Feed(*pInput, discard);
        bWhole = reader.IsComplete();
    });
    return bWhole;
}

void CHttpServerConnection::Hold_i(CCmMessageBlock& aInput) {
    if (m_State == CLOSING || m_State == ENDED || aInput.GetChainedLength() == 0)
        return;
    CCmChainPtr pCopy(aInput.DuplicateChained());
    if (!pCopy)
        return End(CM_ERROR_OUT_OF_MEMORY);
    m_Held.Append(std::move(pCopy));
}

}  // namespace talvo
