#include "talvo/http/client/http_client_exchange.h"

#include <new>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/secret.h"
#include "talvo/http/client/http_client_pool.h"
#include "talvo/http/message/http_memory.h"

namespace talvo {

namespace {

constexpr DWORD MAX_INTERIMS = 32;
constexpr const char* NO_MEMORY = "there is no memory";
constexpr uint64_t MAX_SKIPPED = 64 * 1024;  // bytes of an unused body that are read to keep its connection

const char* ConnectFailureText(CmResult aReason, BOOL aProxy) {
    switch (aReason) {
    case CM_ERROR_OUT_OF_MEMORY:
        return NO_MEMORY;
    case CM_ERROR_NETWORK_TLS_CERTIFICATE:
        return aProxy ? "the proxy's certificate is refused" : "the server's certificate is refused";
    case CM_ERROR_NETWORK_TLS_HANDSHAKE:
        return aProxy ? "the TLS handshake with the proxy has failed" : "the TLS handshake with the server has failed";
    default:
        return "there is no connection to the server";
    }
}

int64_t AfterMs(DWORD aMs) { return CCmClock::GetTimeOfDayUsec() + int64_t{aMs} * 1000; }

}  // namespace

CHttpClientExchange::CHttpClientExchange(IHttpExchangeUser& aUser) : m_User(aUser) {
    m_Parser.SetStrict(TRUE);
    m_Body.SetUnfolding(TRUE);
}

CmResult CHttpClientExchange::Prepare(const CHttpClientRequest& aRequest) {
    const CmResult rv = m_Sender.Begin(aRequest);
    m_bPrepared = rv == CM_OK;
    return rv;
}

CmResult CHttpClientExchange::Start(const CHttpClientRequest& aRequest, const CHttpDestination& aTo, DWORD aConnectMs) {
    m_pRequest = &aRequest;
    m_To = aTo;
    m_dwConnectMs = aConnectMs;
    m_dwInterims = 0;
    m_Failure = CCmFailure();
    m_bUnconnected = FALSE;
    ResetHead_i();
    m_Framing = CHttpFraming();
    const CmResult rv = std::exchange(m_bPrepared, FALSE) ? CM_OK : m_Sender.Begin(aRequest);
    if (rv != CM_OK)
        return rv;
    if (std::exchange(m_bKeep, FALSE) && m_pConnection) {
        Use_i(EHttpConnection::SAME);
        return CM_OK;
    }
    const int64_t llMaxRest = aRequest.MayRepeat() ? CHttpClientConnection::NEVER : CHttpClientConnection::TRUSTED_USEC;
    return Acquire_i(m_Settings.m_dwKeepAlive ? llMaxRest : 0);
}

CmResult CHttpClientExchange::Acquire_i(int64_t aMaxRest) {
    CHttpClientPool* pPool = nullptr;
    CmResult rv = CHttpClientPool::OfThisThread(pPool);
    if (rv != CM_OK)
        return rv;
    m_State = WAITING;
    rv = pPool->Acquire({this, m_To, m_dwConnectMs, aMaxRest});
    if (rv != CM_OK)
        m_State = IDLE;
    return rv;
}

void CHttpClientExchange::Close(CmResult aReason) {
    const EState state = std::exchange(m_State, IDLE);
    CHttpClientPool* pPool = state == WAITING ? CHttpClientPool::FindOfThisThread() : nullptr;
    if (pPool)
        pPool->Cancel(*this);
    m_bKeep = FALSE;
    m_bPrepared = FALSE;
    if (const CCmRefPtrT<CHttpClientConnection> pConnection = std::move(m_pConnection))
        pConnection->Close(aReason);
    m_Sender.Clear();
}

void CHttpClientExchange::OnConnectionReady(CHttpClientConnection& aConnection, BOOL aReused) {
    m_pConnection = &aConnection;
    Use_i(aReused ? EHttpConnection::REUSED : EHttpConnection::FRESH);
}

void CHttpClientExchange::Use_i(EHttpConnection aConnection) {
    m_State = HEAD;
    m_bReused = aConnection == EHttpConnection::REUSED;
    m_bAnswered = FALSE;
    if (m_bPaused)
        m_pConnection->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &m_bPaused);
    m_llContinueUntil = AfterMs(m_Settings.m_dwContinueTimeout);
    CCmString strHead = m_User.OnExchangeConnection(aConnection);
    const CmResult rv = m_Sender.SetHead(strHead);
    WipeText(strHead);  // it may have credentials
    if (rv != CM_OK)
        throw std::bad_alloc();
    Flush_i();
    TellRoom_i();
}

void CHttpClientExchange::OnConnectionFailed(CmResult aReason, const CCmFailure& aFailure) {
    m_Failure = aFailure;
    m_bUnconnected = TRUE;
    Fail_i(aReason, ConnectFailureText(aReason, !m_To.m_Proxy.IsDirect()));
}

// A connection that refuses data has failed, and reports it itself; the data that it received before is delivered first.
void CHttpClientExchange::Flush_i() {
    const CmResult rv = m_Sender.Flush(*m_pConnection);
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        throw std::bad_alloc();  // only the call has failed, and the request is lost
    if (rv != CM_OK && rv != CM_ERROR_PARTIAL_DATA)
        m_Sender.Stop();
    Touch_i();
}

void CHttpClientExchange::TellRoom_i() {
    if (m_Sender.TakeRoom())
        m_User.OnExchangeRoom();
}

// Restarts the time-out of the server.
void CHttpClientExchange::Touch_i() {
    if (m_Sender.HasLost())
        m_pConnection->SetDeadline(0);
    else if (m_Sender.IsHolding())
        m_pConnection->SetDeadline(m_llContinueUntil);
    else if (m_bPaused || m_Settings.m_dwSilenceTimeout == 0 || m_Sender.IsUsersTurn())
        m_pConnection->SetDeadline(CHttpClientConnection::NEVER);
    else
        m_pConnection->SetDeadline(AfterMs(m_Settings.m_dwSilenceTimeout));
}

// The user's call cannot be undone: if memory runs out for the timer, the next progress starts the server's time-out.
void CHttpClientExchange::TouchInCall_i() {
    if (m_pConnection)
        WithMemory([this] { Touch_i(); });
}

void CHttpClientExchange::OnConnectionSend() {
    Flush_i();
    TellRoom_i();
}

void CHttpClientExchange::OnConnectionDeadline() {
    if (m_Sender.HasLost()) {
        Fail_i(CM_ERROR_OUT_OF_MEMORY, NO_MEMORY);
        return;
    }
    if (!m_Sender.IsHolding()) {
        Fail_i(CM_ERROR_TIMEOUT, "the server was silent for too long");
        return;
    }
    m_Sender.Release();
    OnConnectionSend();
}

CmResult CHttpClientExchange::SendBody(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    CCmTransportParameter para;
    const CmResult rv = m_Sender.Send(m_pConnection.Get(), aData, aPara ? *aPara : para);
    TouchInCall_i();
    return rv;
}

CmResult CHttpClientExchange::EndBody() {
    const CmResult rv = m_Sender.End(m_pConnection.Get());
    TouchInCall_i();
    return rv;
}

void CHttpClientExchange::Pause(BOOL aPause) {
    m_bPaused = aPause;
    if (!m_pConnection)
        return;
    m_pConnection->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &m_bPaused);
    TouchInCall_i();
}

CmResult CHttpClientExchange::SetOption(DWORD aCommand, void* aArg) {
    return m_pConnection ? m_pConnection->SetOption(aCommand, aArg) : CM_ERROR_NOT_AVAILABLE;
}

// The connection to a proxy does not know its part, and its TLS is not that of the server.
CmResult CHttpClientExchange::GetOption(DWORD aCommand, void* aArg) {
    if (!m_pConnection)
        return CM_ERROR_NOT_AVAILABLE;
    const BOOL bProxy = !m_To.m_Proxy.IsDirect();
    if (bProxy && (aCommand == CM_OPT_TRANSPORT_SSL_INFO || aCommand == CM_OPT_TRANSPORT_SSL_PEER_CERTIFICATE))
        return CM_ERROR_INVALID_ARG;
    if (!bProxy || aCommand != CM_OPT_TRANSPORT_ROUTE)
        return m_pConnection->GetOption(aCommand, aArg);
    return WithMemory([&] { *static_cast<CCmString*>(aArg) = m_To.m_Proxy.GetText(); }) ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

void CHttpClientExchange::OnConnectionLost(CmResult aReason, const CCmFailure& aFailure) {
    m_pConnection.Reset();
    if (aReason == CM_ERROR_OUT_OF_MEMORY) {
        Fail_i(aReason, NO_MEMORY);
        return;
    }
    const BOOL bStale = m_State == HEAD && m_bReused && !m_bAnswered && m_pRequest->MayRepeat();
    if (bStale && ResultWithMemory([this] { return Repeat_i(); }) == CM_OK)
        return;
    m_Failure = aFailure;
    const CmResult cause = aReason == CM_OK ? CM_ERROR_NETWORK_SOCKET_ERROR : aReason;
    if (m_State != BODY)
        Fail_i(cause, m_bAnswered ? "the connection broke inside the head" : "the connection broke before the answer");
    else if (aReason == CM_OK && m_Body.EndOfStream() == CM_OK)
        End_i(FALSE);
    else
        Fail_i(cause, "the connection broke inside the body");
}

CmResult CHttpClientExchange::Repeat_i() {
    const CmResult rv = m_Sender.Begin(*m_pRequest);
    return rv == CM_OK ? Acquire_i(0) : rv;
}

void CHttpClientExchange::OnConnectionReceive(CCmMessageBlock& aData) {
    m_bAnswered = TRUE;
    Touch_i();
    while (m_State == HEAD && aData.GetChainedLength() > 0)
        ReadHead_i(aData);
    if (m_State == BODY)
        ReadBody_i(aData);
}

// The parser keeps the part of an incomplete line; this part is not taken from the chain.
void CHttpClientExchange::ReadHead_i(CCmMessageBlock& aData) {
    const CmResult rv = m_Parser.ParseHead(&aData);
    const long lStatus = m_Head.GetStatus();
    if (rv == CM_OK && !m_Head.IsComplete())
        aData.AdvanceChainedReadPtr(aData.GetChainedLength());
    else if (rv == CM_ERROR_OUT_OF_MEMORY)
        Fail_i(rv, NO_MEMORY);
    else if (rv != CM_OK)
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "the answer has no head that can be read");
    else if (m_Head.GetFaults() & CM_HTTP_FAULT_NAME)
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "a line of the answer's head is no header field");
    else if (lStatus < 100 || lStatus > 999)
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "the answer's status is no number of three digits");
    else if (lStatus < 200)
        OnInterim_i();
    else
        OnFinal_i();
}

void CHttpClientExchange::OnInterim_i() {
    const long lStatus = m_Head.GetStatus();
    ResetHead_i();
    if (lStatus == 101 || ++m_dwInterims > MAX_INTERIMS) {
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE,
               lStatus == 101 ? "the server switched protocols" : "there are too many interim answers");
        return;
    }
    if (lStatus == 100 && m_Sender.IsHolding()) {
        m_Sender.Release();
        OnConnectionSend();
    }
}

// After a refusal the rest of the body need not be sent. After an answer without a 100 it must not be sent.
void CHttpClientExchange::OnFinal_i() {
    m_Framing = get_response_framing(m_Head, m_pRequest->GetMethod());
    if (m_Framing.m_nError != 0) {
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "the answer does not say where its body ends");
        return;
    }
    if (m_Head.GetStatus() >= 300 || m_Sender.IsHolding())
        m_Sender.Stop();
    Touch_i();
    m_Body.Begin(m_Framing.m_Body, m_Framing.m_ullLength);
    m_State = BODY;
    m_bWanted = m_User.OnExchangeHead();
    if (m_State == BODY && !m_bWanted && (m_Framing.m_Body == EHttpBody::UNTIL_CLOSE || GetExpected() > MAX_SKIPPED))
        End_i(FALSE);
}

void CHttpClientExchange::ReadBody_i(CCmMessageBlock& aData) {
    switch (m_Body.Feed(aData, *this)) {
    case CM_OK:
        End_i(MayStayOpen() && aData.GetChainedLength() == 0);
        return;
    case CM_ERROR_PARTIAL_DATA:
        if (!m_bWanted && m_Body.GetReceived() > MAX_SKIPPED)
            End_i(FALSE);
        return;
    case CM_ERROR_NOT_AVAILABLE:
        return;
    case CM_ERROR_OUT_OF_MEMORY:
        Fail_i(CM_ERROR_OUT_OF_MEMORY, NO_MEMORY);
        return;
    default:
        Fail_i(CM_ERROR_NETWORK_HTTP_FAILURE, "the chunks of the body cannot be read");
        return;
    }
}

BOOL CHttpClientExchange::MayStayOpen() const {
    return m_Settings.m_dwKeepAlive && !m_pRequest->IsCloseAsked() && !m_Framing.m_bMustClose &&
           m_Framing.m_Body != EHttpBody::UNTIL_CLOSE && is_persistent(m_Head.GetVerion(), m_Head) && m_Sender.IsComplete();
}

// The connection is not its user's, who must not get it again.
BOOL CHttpClientExchange::IsRefused_i() const {
    return m_To.m_Identity && (m_Head.GetStatus() == 401 || m_Head.GetStatus() == 407);
}

// FALSE: the user has closed the exchange.
BOOL CHttpClientExchange::OnBody(CCmMessageBlock& aView) {
    if (m_bWanted)
        m_User.OnExchangeBody(aView);
    return m_State == BODY;
}

void CHttpClientExchange::ResetHead_i() {
    m_Head.Clear();
    m_Parser.Reset();
}

// The connection is given back before the upcall, which may start a new exchange, unless that is to use the same one.
void CHttpClientExchange::End_i(BOOL aReusable) {
    m_State = IDLE;
    m_Sender.WipeHead();
    if (m_bKeep && aReusable) {
        m_User.OnExchangeEnd(CM_OK, "");
        if (m_State == IDLE)
            Close(CM_OK);
        return;
    }
    const CCmRefPtrT<CHttpClientConnection> pConnection = std::exchange(m_pConnection, nullptr);
    BOOL bPaused = FALSE;
    if (pConnection && aReusable && !IsRefused_i()) {
        if (m_bPaused)
            pConnection->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPaused);
        pConnection->GiveBack();
    } else if (pConnection) {
        pConnection->Close(CM_OK);
    }
    m_Sender.Clear();
    m_User.OnExchangeEnd(CM_OK, "");
}

void CHttpClientExchange::Fail_i(CmResult aCause, const char* aText) {
    Close(CM_ERROR_NETWORK_SOCKET_CLOSE);
    m_User.OnExchangeEnd(aCause, aText);
}

}  // namespace talvo
