#include "talvo/connection/protocol/len_pkg_conn.h"

#include <arpa/inet.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/connection/protocol/conn_server_list.h"
#include "talvo/transport/socket_settings.h"
#include "talvo/transport/transport_linger.h"

namespace {

CCmLiveCounter s_Live("CLenPkgConn");

constexpr DWORD PENDING_LIMIT = 65536;  // bytes gathered while corked

}  // namespace

CLenPkgConn::CLenPkgConn() { ++s_Live; }

CLenPkgConn::~CLenPkgConn() { --s_Live; }

void CLenPkgConn::SetServerList(talvo::CConnServerList* aList) {
    if (aList)
        aList->Add(talvo::MakeOpeningConn(this));
}

void CLenPkgConn::OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) {
    m_Est.EnsureSingleThread();
    CmResult rv = aReason;
    if (rv == CM_OK) {
        SetTPTransport(aTrpt);
        if (aTrpt)
            talvo::AskForLargeReads(*aTrpt);
        rv = aTrpt ? aTrpt->OpenWithSink(this) : CM_ERROR_INVALID_ARG;
    }
    if (rv == CM_OK)
        SetCurrStatus(CS_STATUS_CONNECTED);
    else
        SetTPTransport(nullptr);
    Indicate_i(rv);
}

CmResult CLenPkgConn::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    m_Est.EnsureSingleThread();
    if (aPara)
        aPara->m_dwHaveSent = 0;
    if (m_wStatus != CS_STATUS_CONNECTED) {
        CM_WARNING_TRACE_THIS("CLenPkgConn::SendData CM_ERROR_NOT_AVAILABLE");
        return CM_ERROR_NOT_AVAILABLE;
    }
    const DWORD dwLength = aData.GetChainedLength();
    if (dwLength > GetMaxMessage_i())
        return RefuseTooLong_i(dwLength);
    if (m_Pending.IsRefused())
        return CM_ERROR_PARTIAL_DATA;
    if (dwLength == 0)
        return CM_OK;
    const CmResult rv = SendData_i(aData, dwLength);
    if (rv == CM_OK && aPara)
        aPara->m_dwHaveSent = dwLength;
    return rv;
}

CmResult CLenPkgConn::RefuseTooLong_i(DWORD aLength) const {
    CM_ERROR_TRACE_THIS("CLenPkgConn::SendData, message too long, raise CS_OPT_MAX_MESSAGE_LEN (option 136). len="
                        << aLength << " max=" << GetMaxMessage_i());
    return CM_ERROR_INVALID_ARG;
}

CmResult CLenPkgConn::SendData_i(CCmMessageBlock& aData, DWORD aLength) {
    const DWORD dwHeader = htonl(aLength);
    if (m_bCorked && m_Pending.GetLength() < PENDING_LIMIT) {
        const CmResult rv = m_Pending.Add(&dwHeader, HEADER_LEN, aData);
        if (rv == CM_OK)
            aData.AdvanceChainedReadPtr(aLength);
        else
            OnDisconnect(rv, m_pTransport.Get());
        return rv;
    }
    const CmResult rv = m_Pending.Send(*m_pTransport, &dwHeader, HEADER_LEN, aData);
    if (rv == CM_ERROR_OUT_OF_MEMORY) {
        OnDisconnect(rv, m_pTransport.Get());
        return rv;
    }
    if (rv != CM_OK)
        CM_INFO_TRACE_THIS("CLenPkgConn::SendData, len=" << aLength << " pending=" << m_Pending.GetLength() << " rv=" << rv);
    return CM_OK;
}

CmResult CLenPkgConn::SendFrames(CCmMessageBlock& aFrames, const talvo::IFrameLengths& aLengths, DWORD& aTaken) {
    m_Est.EnsureSingleThread();
    aTaken = 0;
    if (m_wStatus != CS_STATUS_CONNECTED)
        return CM_ERROR_NOT_AVAILABLE;
    const CmResult rv = m_Pending.SendFrames(*m_pTransport, aFrames, aLengths, aTaken);
    if (rv == CM_ERROR_OUT_OF_MEMORY)
        OnDisconnect(rv, m_pTransport.Get());
    return rv;
}

CmResult CLenPkgConn::SendPending_i() {
    if (!m_pTransport)
        return CM_OK;
    const CmResult rv = m_Pending.Flush(*m_pTransport);
    if (rv != CM_OK)
        CM_INFO_TRACE_THIS("CLenPkgConn::SendData_i, len=" << m_Pending.GetLength() << " rv=" << rv);
    return rv;
}

void CLenPkgConn::OnSend(ICmTransport*, CCmTransportParameter*) {
    m_Est.EnsureSingleThread();
    if (!m_pTransport)
        return;
    SetCurrStatus(CS_STATUS_CONNECTED);
    if (m_Pending.IsRefused() || !m_bCorked)
        SendPending_i();
    if (m_pSink)
        m_pSink->OnSend(this);
}

// Holds no reference to itself: a last release inside an upcall must end the connection at once, so that no further message
// comes. The object stays until the loop's next turn.
void CLenPkgConn::OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter* aPara) {
    m_Est.EnsureSingleThread();
    if (!m_pTransport)
        return;
    CmResult rv = m_Receive.Borrow(aData);
    while (rv == CM_OK && m_Receive.GetLength() >= m_dwNeeded && TakeNext_i(aPara)) {
    }
    // The current length was accepted; bytes beyond it come from one read only.
    if (rv == CM_OK)
        rv = m_Receive.Keep(m_dwNeeded);
    if (rv != CM_OK)
        OnDisconnect(CM_ERROR_OUT_OF_MEMORY, m_pTransport.Get());
}

// FALSE: the connection has ended.
BOOL CLenPkgConn::TakeNext_i(CCmTransportParameter* aPara) {
    if (m_dwMessageLen > 0)
        return TakeMessage_i(aPara);
    const char* pFrames = nullptr;
    const talvo::CWholeFrames frames = FindFrames_i(pFrames);
    if (frames.m_dwCount == 0)
        return ReadLength_i();
    m_Receive.Skip(frames.m_dwLength);
    GetFrameSink_i()->OnFrames(pFrames, frames.m_dwLength, frames.m_dwCount);
    return bool{m_pTransport};
}

// None: the next message is large, invalid or not complete, or the sink takes messages only.
talvo::CWholeFrames CLenPkgConn::FindFrames_i(const char*& aFrames) const {
    if (!GetFrameSink_i() || m_wStatus == CS_STATUS_NOT_CONNECTED)
        return {};
    DWORD dwLength = 0;
    aFrames = m_Receive.GetBorrowed(dwLength);
    return talvo::FindWholeFrames(aFrames, dwLength, LENGTH, GetMaxMessage_i());
}

// FALSE: the connection has ended.
BOOL CLenPkgConn::ReadLength_i() {
    DWORD dwLength = 0;
    m_Receive.Peek(&dwLength, HEADER_LEN);
    dwLength = ntohl(dwLength);
    if (dwLength == 0) {
        CM_ERROR_TRACE_THIS("CLenPkgConn::OnReceive PDU length is zero!!! and the connection will be abort");
        NoteFailure_i(CM_FAILURE_PROTOCOL, "the peer has announced a message of length 0");
        OnDisconnect(CM_OK, m_pTransport.Get());  // deliberately no failure
        return FALSE;
    }
    if (dwLength > GetMaxMessage_i()) {
        CM_ERROR_TRACE_THIS("CLenPkgConn::OnReceive, message too long, raise CS_OPT_MAX_MESSAGE_LEN (option 136). len="
                            << dwLength << " max=" << GetMaxMessage_i());
        NoteFailure_i(CM_FAILURE_PROTOCOL, "the peer has announced a message that is too long");
        OnDisconnect(CM_ERROR_NOT_AVAILABLE, m_pTransport.Get());
        return FALSE;
    }
    m_Receive.Skip(HEADER_LEN);
    m_dwMessageLen = m_dwNeeded = dwLength;
    return TRUE;
}

// FALSE: the connection has ended, perhaps inside the upcall.
BOOL CLenPkgConn::TakeMessage_i(CCmTransportParameter* aPara) {
    const DWORD dwLength = m_dwMessageLen;
    Reset4Recv();
    ICmTransportSink* pSink = m_pSink;
    if (m_wStatus == CS_STATUS_NOT_CONNECTED || !pSink) {
        m_Receive.Skip(dwLength);
        return TRUE;
    }
    const CmResult rv = m_Receive.Take(dwLength, [&](CCmMessageBlock& aPayload) { pSink->OnReceive(aPayload, this, aPara); });
    if (rv != CM_OK)
        OnDisconnect(rv, m_pTransport.Get());
    return bool{m_pTransport};
}

void CLenPkgConn::OnDisconnect(CmResult aReason, ICmTransport* aTrptId) {
    m_Est.EnsureSingleThread();
    CM_INFO_TRACE_THIS("CLenPkgConn::OnDisconnect reason =" << aReason << " aTrptId=" << static_cast<const void*>(aTrptId));
    NoteLost_i();
    SetCurrStatus(CS_STATUS_NOT_CONNECTED);
    DisconnectTransport_i(CM_ERROR_NETWORK_CONNECT_TIMEOUT);
    Reset();
    NotifyEnd_i(aReason);
}

CmResult CLenPkgConn::Disconnect(CmResult aReason) {
    m_Est.EnsureSingleThread();
    m_pSink = nullptr;
    m_pOwner = nullptr;
    SetCurrStatus(CS_STATUS_NOT_CONNECTED);
    const BOOL bOrderly = m_pTransport && aReason == CM_OK;
    const BOOL bLingers = bOrderly && talvo::CTransportLinger::Begin(*m_pTransport, m_Pending.TakeAll());
    const CmResult rv = bLingers ? CM_OK : DisconnectTransport_i(aReason);
    Reset();
    return rv;
}

void CLenPkgConn::Reset4Recv() {
    m_dwNeeded = HEADER_LEN;
    m_dwMessageLen = 0;
}

// Clears a connection that has ended.
void CLenPkgConn::Reset() {
    if (m_pTransport)
        m_tvDisconnected = CCmTimeValue::GetTimeOfDay();
    SetTPTransport(nullptr);
    m_Pending.Clear();
    m_Receive.Clear();
    Reset4Recv();
}

DWORD CLenPkgConn::GetMaxMessage_i() const { return std::min(m_dwMaxMessage, std::numeric_limits<DWORD>::max() - HEADER_LEN); }

CmResult CLenPkgConn::SetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    switch (aCommand) {
    case CS_OPT_MAX_MESSAGE_LEN:
        m_dwMaxMessage = *static_cast<DWORD*>(aArg);
        return CM_OK;
    case CM_OPT_TRANSPORT_CORK:
        m_bCorked = *static_cast<BOOL*>(aArg);
        if (!m_bCorked && !m_Pending.IsRefused())
            SendPending_i();  // refused bytes wait for the transport
        return CM_OK;
    case CM_OPT_TRANSPORT_LAYERED:
        return SetLayered_i(*static_cast<BOOL*>(aArg));
    default:
        return SetTransportOption_i(aCommand, aArg);
    }
}

CmResult CLenPkgConn::GetOption(DWORD aCommand, void* aArg) {
    m_Est.EnsureSingleThread();
    if (!aArg)
        return CM_ERROR_INVALID_ARG;
    auto& dwValue = *static_cast<DWORD*>(aArg);
    switch (aCommand) {
    case CS_OPT_MAX_MESSAGE_LEN:
        dwValue = m_dwMaxMessage;
        return CM_OK;
    case CM_OPT_TRANSPORT_MAX_MESSAGE:
        dwValue = GetMaxMessage_i();
        return CM_OK;
    case CM_OPT_TRANSPORT_UNACKNOWLEDGED:
        dwValue = m_dwLost;
        GetTransportOption_i(aCommand, aArg);
        dwValue += m_Pending.GetLength();
        return CM_OK;
    default:
        return GetTransportOption_i(aCommand, aArg);
    }
}
