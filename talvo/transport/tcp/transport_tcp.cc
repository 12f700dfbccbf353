#include "talvo/transport/tcp/transport_tcp.h"

#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <utility>

#include "talvo/base/live_counter.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"
#include "talvo/transport/socket_settings.h"
#include "talvo/transport/transport_linger.h"
#include "talvo/transport/would_block.h"

namespace {

CCmLiveCounter s_Live("CCmTransportTcp");

using talvo::WOULD_BLOCK;

BOOL IsWouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

}  // namespace

CCmTransportTcp::CCmTransportTcp(ICmReactor* aReactor) : CCmTransportBase(aReactor) { ++s_Live; }

CCmTransportTcp::~CCmTransportTcp() {
    Close_t(CM_OK);
    --s_Live;
}

CmResult CCmTransportTcp::Open_t() {
    if (!talvo::GetNetworkBuffers())
        return CM_ERROR_OUT_OF_MEMORY;
    const int nOn = 1;
    if (!m_bUndelayed && !m_AddrPeer.IsPath() && m_SocketTcp.SetOption(IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof nOn) == -1)
        CM_ERROR_TRACE_THIS("CCmTransportTcp::Open_t, SetOption(TCP_NODELAY) failed! err=" << errno);
    const CmResult rv = Watch_i();
    if (rv != CM_OK)
        CM_ERROR_TRACE_THIS("CCmTransportTcp::Open_t, RegisterHandler(READ_MASK|WRITE_MASK) failed!");
    return rv;
}

// For reading first, so that the reactor can distinguish a pause from a handler that never reads.
CmResult CCmTransportTcp::Watch_i() {
    const CmResult rv = m_pReactor->RegisterHandler(this, READ_MASK | GetMask_i());
    if (rv != CM_OK && rv != CM_ERROR_FOUND)
        return rv;
    m_bOpen = TRUE;
    if (m_bReadingPaused)
        m_pReactor->RegisterHandler(this, GetMask_i());
    if (m_bBroken)
        TellBroken_i();
    else
        GoOnReading_i();
    return CM_OK;
}

// The socket reports nothing for bytes that have left it. While reading is paused the mark is dropped.
void CCmTransportTcp::GoOnReading_i() {
    if (m_bMore || GetHeld_i() > 0)
        m_pReactor->NotifyHandler(this, READ_MASK);
}

void CCmTransportTcp::ReadEarly() {
    talvo::CNetworkBuffers* pBuffers = talvo::GetNetworkBuffers();
    if (!m_bOpen || m_bReadingPaused || !pBuffers || !pBuffers->m_EarlyReads.IsDue())
        return;
    pBuffers->m_pEarlyReader = this;
    m_pReactor->NotifyHandler(this, READ_MASK);
}

// The events to register for now; never none, because that would end the reports of failures.
long CCmTransportTcp::GetMask_i() const {
    const long lRead = m_bReadingPaused ? NULL_MASK : READ_MASK;
    const BOOL bWrite = !IsWriteOnDemand_i() || m_bNeedOnSend || m_bNeedFlush || m_bReadingPaused;
    return CLOSES_MASK | lRead | (bWrite ? WRITE_MASK : NULL_MASK) | (m_bTellEnd ? HALF_CLOSE_MASK : NULL_MASK);
}

int CCmTransportTcp::TellEnd_i() {
    if (!std::exchange(m_bEndTold, TRUE) && m_pSink) {
        CCmMessageBlock nothing(DWORD{0});
        m_pSink->OnReceive(nothing, this, nullptr);
    }
    return WOULD_BLOCK;
}

CmResult CCmTransportTcp::Disconnect(CmResult aReason) {
    if (aReason == CM_OK && m_bOpen) {
        if (!m_bEndSent)
            Flush_i(TRUE);
        if (!IsLayered_i())
            LetLinger_i();
    }
    return CCmTransportBase::Disconnect(aReason);
}

// Another transport takes the socket over, so that this one is closed like any other. If memory runs out, it is closed at once.
void CCmTransportTcp::LetLinger_i() {
    DWORD dwUnacknowledged = 0;
    if (GetUnacknowledged_i(dwUnacknowledged) != CM_OK || dwUnacknowledged == 0)
        return;
    const CCmRefPtrT<CCmTransportTcp> pCarrier(new (std::nothrow) CCmTransportTcp(m_pReactor));
    if (!pCarrier)
        return;
    CCmInetAddr addrPeer;
    if (m_AddrPeer.Load(addrPeer))
        pCarrier->SetPeerAddr(addrPeer);
    RemoveFromReactor_i();
    m_bOpen = FALSE;
    pCarrier->m_Counters = m_Counters;
    pCarrier->m_SocketTcp.SetHandle(m_SocketTcp.GetHandle());
    m_SocketTcp.SetHandle(CM_INVALID_HANDLE);
    talvo::CTransportLinger::Begin(*pCarrier, TakeUnsent_i());
}

CmResult CCmTransportTcp::Close_t(CmResult aReason) {
    if (m_SocketTcp.GetHandle() == CM_INVALID_HANDLE)
        return CM_OK;
    m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK | CLOSES_MASK);
    m_bOpen = FALSE;
    if (m_bDrained) {
        m_SocketTcp.CCmSocketBase::Close();  // the end that a shutdown would send
        return CM_OK;
    }
    if (aReason == CM_OK && m_AddrPeer.IsPath())
        DropUnread_i();
    m_SocketTcp.Close(aReason);
    return CM_OK;
}

// The close of a Unix socket with unread data is a reset for the peer. No data comes after the shutdown.
void CCmTransportTcp::DropUnread_i() {
    char buffer[4096];
    m_SocketTcp.CloseReader();
    while (m_SocketTcp.Recv(buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
    }
}

BOOL CCmTransportTcp::HasEnded_i() const { return m_bDrained; }

// Stores the socket's error, unless a receive or send has consumed it.
int CCmTransportTcp::OnClose(HANDLE aFd, long aMask) {
    m_bDrained = m_bDrained || m_pReactor->IsOrderlyEnd();
    if (m_Counters.m_ullBytesSent > 0)
        NoteLost_i();
    if (m_bEndSent && !m_bNeedFlush && m_dwLost > 0)
        --m_dwLost;  // the end itself counts as a byte
    int nError = 0;
    int nLength = sizeof nError;
    if (!HasFailed_i() && !HasEnded_i() && m_SocketTcp.GetOption(SOL_SOCKET, SO_ERROR, &nError, &nLength) == 0)
        NoteFailure_i(RECEIVING, nError);
    if (ReadsOn_i())
        return 0;
    if (!HasFailed_i())
        NoteEnd_i();
    if (m_AddrPeer.IsEmpty()) {  // it stays available after the end
        CCmInetAddr addrPeer;
        GetPeerAddr_i(addrPeer);
    }
    if (HasFailed_i())
        CM_WARNING_TRACE_THIS("CCmTransportTcp::OnClose, the connection has failed. fd=" << aFd << " err=" << GetErrno_i());
    else
        CM_INFO_TRACE_THIS("CCmTransportTcp::OnClose, the peer has closed in good order. fd=" << aFd);
    return CCmTransportBase::OnClose(aFd, aMask);
}

// The reactor has removed the handler, because reading takes no more from the socket. Unread bytes are delivered first, and the
// close is reported again after them.
BOOL CCmTransportTcp::ReadsOn_i() {
    if (!m_pSink || (HasFailed_i() && m_bReadingPaused && !EndPause_i()))
        return FALSE;
    if (!m_bMore && GetHeld_i() == 0)
        return FALSE;
    m_bBroken = m_bBroken || HasFailed_i();
    return Watch_i() == CM_OK;
}

// A failed connection does not wait for the end of a pause, which may never come. FALSE: the sink loses the unread bytes.
BOOL CCmTransportTcp::EndPause_i() {
    DWORD dwBytes = 0;
    if (!m_bRestFirst)
        return FALSE;
    m_bReadingPaused = FALSE;
    m_bMore = m_bMore || (m_SocketTcp.Control(FIONREAD, &dwBytes) == 0 && dwBytes > 0);
    return TRUE;
}

// An empty store stays until the next call, so that Read_i looks at the socket once more.
int CCmTransportTcp::Recv_i(char* aBuf, DWORD aLen) {
    if (m_pReadAhead) {
        if (const DWORD dwTaken = m_pReadAhead->Take(aBuf, aLen))
            return static_cast<int>(dwTaken);
        m_pReadAhead.reset();
    }
    return Receive_i(aBuf, aLen, 0);
}

int CCmTransportTcp::Receive_i(char* aBuf, DWORD aLen, int aFlags) {
    const int nRecv = m_SocketTcp.Recv(aBuf, aLen, aFlags);
    if (nRecv > 0)
        return nRecv;
    if (nRecv == -1 && IsWouldBlock())
        return WOULD_BLOCK;
    if (nRecv == 0 && m_bTellEnd)
        return 0;
    const int nErr = errno;
    if (m_bOpen)  // the owner of a handshake traces its failure, at its own pace
        CM_WARNING_TRACE_THIS("CCmTransportTcp::Recv_i, recv() " << (nRecv == 0 ? "0" : "failed") << "! fd=" << GetHandle()
                                                                 << " err=" << nErr);
    if (nRecv == -1)
        NoteFailure_i(RECEIVING, nErr);
    errno = nErr;
    return -1;
}

int CCmTransportTcp::Send_i(const char* aBuf, DWORD aLen, BOOL aMore) {
    const int nSent = m_SocketTcp.Send(aBuf, aLen, aMore ? MSG_MORE : 0);
    if (nSent >= 0)
        return nSent;
    if (IsWouldBlock())
        return 0;
    const int nErr = errno;
    if (m_bOpen)
        CM_WARNING_TRACE_THIS("CCmTransportTcp::Send_i, send() failed! fd=" << GetHandle() << " err=" << nErr);
    SendFailed_i(nErr);
    errno = nErr;
    return -1;
}

CmResult CCmTransportTcp::UnRecv_i(const char* aData, DWORD aLen) {
    if (aLen == 0)
        return CM_OK;
    const BOOL bKept = talvo::WithMemory([&] {
        if (!m_pReadAhead)
            m_pReadAhead = std::make_unique<talvo::CReadAhead>();
        m_pReadAhead->Prepend(aData, aLen);
    });
    return bKept ? CM_OK : CM_ERROR_OUT_OF_MEMORY;
}

int CCmTransportTcp::Read_i(char* aBuf, DWORD aLen, BOOL& aMore) {
    const int nRecv = Recv_i(aBuf, aLen);
    aMore = HasReadAhead_i();
    return nRecv;
}

int CCmTransportTcp::Write_i(const iovec* aPieces, DWORD aCount) { return m_SocketTcp.SendV(aPieces, aCount); }

CmResult CCmTransportTcp::Flush_i(BOOL) { return CM_OK; }

// The system need not report an error of a send again, so the loop does.
CmResult CCmTransportTcp::SendFailed_i(int aError) {
    if (m_bEndSent)
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    NoteFailure_i(SENDING, aError);
    m_bBroken = TRUE;
    if (m_bOpen)
        TellBroken_i();
    return CM_ERROR_NETWORK_SOCKET_ERROR;
}

// After all data that can still be received, unless reading is paused: the pause may never end.
void CCmTransportTcp::TellBroken_i() { m_pReactor->NotifyHandler(this, m_bReadingPaused ? CLOSE_MASK : READ_MASK); }

int CCmTransportTcp::OnInput(HANDLE) {
    m_Est.EnsureSingleThread();
    DWORD dwSize = m_dwReadSize;
    talvo::CNetworkBuffers* pBuffers = talvo::GetNetworkBuffers();
    char* pBuffer = pBuffers->GetRoom(dwSize);
    BOOL bMore = FALSE;
    const int nRecv = Read_i(pBuffer, dwSize, bMore);
    if (pBuffers->m_pEarlyReader == this) {
        pBuffers->m_pEarlyReader = nullptr;
        pBuffers->m_EarlyReads.OnResult(nRecv != WOULD_BLOCK);
    }
    m_bMore = bMore && (nRecv > 0 || nRecv == WOULD_BLOCK);
    if (m_bBroken && nRecv <= 0 && !m_bMore)
        return -1;
    if (m_bBroken)
        TellBroken_i();  // the rest follows later
    else if (m_bMore)
        GoOnReading_i();
    if (nRecv < 0)
        return nRecv;
    if (nRecv == 0)
        return TellEnd_i();
    const DWORD dwRecv = static_cast<DWORD>(nRecv);
    const BOOL bAgain = bMore ? GetHeld_i() > 0 : !IsDry_i(dwRecv, dwSize);
    m_Counters.m_ullBytesReceived += dwRecv;
    ++m_Counters.m_ullReceives;
    if (m_pSink) {
        // The block covers the received bytes only: a duplicate must not copy bytes of other connections.
        CCmMessageBlock block(dwRecv, pBuffer, CCmMessageBlock::DONT_DELETE, dwRecv);
        m_pSink->OnReceive(block, this, nullptr);
    }
    return bAgain ? 0 : WOULD_BLOCK;
}

int CCmTransportTcp::OnOutput(HANDLE) {
    m_Est.EnsureSingleThread();
    if (m_bNeedFlush && !FlushRest_i())
        return 0;
    if (!m_bNeedOnSend)
        return 0;
    m_bNeedOnSend = FALSE;
    if (IsWriteOnDemand_i())
        m_pReactor->RegisterHandler(this, GetMask_i());
    if (m_pSink)
        m_pSink->OnSend(this, nullptr);
    return 0;
}

void CCmTransportTcp::WaitForRoom_i() {
    if (!std::exchange(m_bNeedFlush, true) && m_bOpen && IsWriteOnDemand_i())
        m_pReactor->RegisterHandler(this, GetMask_i());
}

// Sends the layer's bytes before OnSend requests more from the user. FALSE: some are still unsent.
BOOL CCmTransportTcp::FlushRest_i() {
    const CmResult rv = Flush_i(m_bEndSent);
    if (rv == CM_ERROR_PARTIAL_DATA)
        return FALSE;
    m_bNeedFlush = FALSE;
    if (m_bOpen && IsWriteOnDemand_i())
        m_pReactor->RegisterHandler(this, GetMask_i());
    if (rv != CM_OK)
        SendFailed_i(errno);
    else if (m_bEndSent)
        m_SocketTcp.CloseWriter();
    return rv == CM_OK;
}

CmResult CCmTransportTcp::SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) {
    m_Est.EnsureSingleThread();
    if (aPara)
        aPara->m_dwHaveSent = 0;
    if (GetHandle() == CM_INVALID_HANDLE) {
        CM_WARNING_TRACE_THIS("CCmTransportTcp::SendData, socket is invalid.");
        return CM_ERROR_NOT_INITIALIZED;
    }
    talvo::CNetworkBuffers* pBuffers = talvo::GetNetworkBuffers();
    if (!pBuffers)
        return CM_ERROR_OUT_OF_MEMORY;
    iovec* pIov = pBuffers->m_Iov;
    const DWORD dwPieces = aData.FillIov(pIov, talvo::CNetworkBuffers::MAX_PIECES);
    if (dwPieces == 0)
        return CM_OK;
    if (m_bEndSent || m_bBroken) {
        CM_WARNING_TRACE_THIS("CCmTransportTcp::SendData, sending has ended. m_bBroken=" << m_bBroken);
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    }
    size_t stLength = 0;
    for (DWORD i = 0; i < dwPieces; ++i)
        stLength += pIov[i].iov_len;

    ++m_Counters.m_ullSends;
    const int nSent = Write_i(pIov, dwPieces);
    if (nSent == -1) {
        if (IsWouldBlock())
            return PartialSend_i(FALSE);
        const int nErr = errno;
        CM_WARNING_TRACE_THIS("CCmTransportTcp::SendData, sendv() failed! err=" << nErr);
        return SendFailed_i(nErr);
    }
    const DWORD dwSent = static_cast<DWORD>(nSent);
    m_Counters.m_ullBytesSent += dwSent;
    if (aPara)
        aPara->m_dwHaveSent = dwSent;
    if (aData.AdvanceTopLevelReadPtr(dwSent) != CM_OK)
        aData.AdvanceChainedReadPtr(dwSent);
    if (dwSent < stLength)
        return PartialSend_i(FALSE);
    const BOOL bAll = dwPieces < talvo::CNetworkBuffers::MAX_PIECES || aData.GetChainedLength() == 0;
    return bAll ? CM_OK : PartialSend_i(TRUE);
}

// aMoreRoom: the chain was cut, but the socket's buffer is not full. No edge will come, so the report is requested from the
// reactor.
CmResult CCmTransportTcp::PartialSend_i(BOOL aMoreRoom) {
    ++m_Counters.m_ullPartialSends;
    m_bNeedOnSend = TRUE;
    if (!m_bOpen)
        return CM_ERROR_PARTIAL_DATA;  // opening reports readiness
    if (IsWriteOnDemand_i())
        m_pReactor->RegisterHandler(this, GetMask_i());
    if (aMoreRoom)
        m_pReactor->NotifyHandler(this, WRITE_MASK);
    return CM_ERROR_PARTIAL_DATA;
}

CmResult CCmTransportTcp::PauseReading_i(BOOL aPause) {
    if (m_bReadingPaused == !!aPause)
        return CM_OK;
    m_bReadingPaused = !!aPause;
    if (!m_bOpen)
        return CM_OK;
    const CmResult rv = m_pReactor->RegisterHandler(this, GetMask_i());
    if (m_bBroken)
        TellBroken_i();
    else
        GoOnReading_i();
    return rv == CM_ERROR_FOUND ? CM_OK : rv;
}

CmResult CCmTransportTcp::SetTellEnd_i(BOOL aTell) {
    if (!aTell || m_bTellEnd)
        return CM_OK;
    m_bTellEnd = TRUE;
    if (m_bOpen)
        m_pReactor->RegisterHandler(this, GetMask_i());
    return CM_OK;
}

CmResult CCmTransportTcp::EndSending_i(BOOL aEnd) {
    if (!aEnd)
        return CM_ERROR_INVALID_ARG;
    if (m_bEndSent)
        return CM_OK;
    const CmResult rv = Flush_i(TRUE);
    if (rv == CM_ERROR_PARTIAL_DATA) {
        m_bEndSent = TRUE;
        WaitForRoom_i();
        return CM_OK;
    }
    if (rv != CM_OK)
        return SendFailed_i(errno);
    if (m_SocketTcp.CloseWriter() == -1)
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    m_bEndSent = TRUE;
    return CM_OK;
}

CmResult CCmTransportTcp::SetReadSize_i(DWORD aSize) {
    if (aSize < talvo::CSocketSettings::MIN_READ || aSize > talvo::CSocketSettings::MAX_READ)
        return CM_ERROR_INVALID_ARG;
    m_dwReadSize = aSize;
    return CM_OK;
}

CmResult CCmTransportTcp::Detach_i(HANDLE aNewHandle) {
    if (aNewHandle != CM_INVALID_HANDLE)
        return CM_ERROR_INVALID_ARG;
    if (GetHeld_i() > 0 || GetUnsent_i() > 0)
        return CM_ERROR_NOT_AVAILABLE;
    if (GetHandle() != CM_INVALID_HANDLE)
        RemoveFromReactor_i();
    m_SocketTcp.SetHandle(CM_INVALID_HANDLE);
    m_bOpen = FALSE;
    return CM_OK;
}

CmResult CCmTransportTcp::IsAlive_i(BOOL& aAlive) const {
    aAlive = FALSE;
    if (GetHandle() == CM_INVALID_HANDLE)
        return CM_ERROR_NOT_INITIALIZED;
    aAlive = GetHeld_i() > 0;
    if (aAlive)
        return CM_OK;
    char cPeek = 0;
    const int nRecv = m_SocketTcp.Recv(&cPeek, 1, MSG_PEEK | MSG_DONTWAIT);
    aAlive = nRecv > 0 || (nRecv == -1 && IsWouldBlock());
    return CM_OK;
}
