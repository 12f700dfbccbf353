#include "talvo/transport/udp/datagram_port.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "talvo/base/clock.h"
#include "talvo/base/trace.h"
#include "talvo/transport/network_buffers.h"
#include "talvo/transport/would_block.h"

namespace talvo {

namespace {

constexpr int RECEIVE_BUFFER_SIZE = 1 << 20;  // the system cuts it to its own limit
constexpr DWORD ALONE_PERIOD = 8;             // reports between two checks for more than one datagram
constexpr int MAX_FAILURES = 4;               // in a row, of a socket that is not connected

BOOL IsWouldBlock(int aError) { return aError == EAGAIN || aError == EWOULDBLOCK; }

}  // namespace

CmResult CDatagramPort::Open() {
    if (!GetDatagramBuffers())
        return CM_ERROR_OUT_OF_MEMORY;
    if (m_Socket.SetOption(SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER_SIZE, sizeof RECEIVE_BUFFER_SIZE) == -1)
        CM_WARNING_TRACE_THIS("CDatagramPort::Open, SetOption(SO_RCVBUF) failed! err=" << errno);
    const CmResult rv = Register();
    if (rv != CM_OK)
        return rv;
    m_bOpen = TRUE;
    if (m_bBroken)
        m_pReactor->NotifyHandler(this, CLOSE_MASK);
    return CM_OK;
}

// Registers for the events needed now; for writing only while a datagram waits for room.
CmResult CDatagramPort::Register() {
    const long lRead = m_bPaused ? NULL_MASK : READ_MASK;
    const long lWrite = m_Sender.IsFull() ? WRITE_MASK : NULL_MASK;
    const CmResult rv = m_pReactor->RegisterHandler(this, DATAGRAM_MASK | lRead | lWrite);
    return rv == CM_ERROR_FOUND ? CM_OK : rv;
}

void CDatagramPort::Close() {
    Leave();
    m_Socket.Close();
}

void CDatagramPort::Detach() {
    Leave();
    m_Socket.SetHandle(CM_INVALID_HANDLE);
}

void CDatagramPort::Leave() {
    if (GetHandle() == CM_INVALID_HANDLE)
        return;
    if (!m_bBroken)
        m_Sender.Flush(GetHandle());
    m_Sender.Clear();
    if (std::exchange(m_bFlushDue, FALSE))
        m_pReactor->CancelTimer(this);
    if (std::exchange(m_bOpen, FALSE))
        m_pReactor->RemoveHandler(this, ALL_EVENTS_MASK);
}

CmResult CDatagramPort::PauseReading(BOOL aPause) {
    if (m_bPaused == aPause)
        return CM_OK;
    m_bPaused = aPause;
    return m_bOpen ? Register() : CM_OK;
}

int CDatagramPort::OnInput(HANDLE) {
    const int nCount = Receive();
    if (nCount < 0)
        return nCount;
    Deliver(nCount);
    return WOULD_BLOCK;  // level-triggered: the reactor reports again while data is left
}

// The number of datagrams; -2: none; -1: the connection is broken.
int CDatagramPort::Receive() {
    int nError = 0;
    for (int nFailures = 0; nFailures < MAX_FAILURES;) {
        ++m_Counters.m_ullReceiveCalls;
        const int nCount = ReceiveSome();
        if (nCount >= 0)
            return nCount;
        nError = errno;
        if (IsWouldBlock(nError))
            return WOULD_BLOCK;
        if (nError == EINTR)
            continue;
        if (m_bConnected)
            break;
        ++nFailures;  // concerns a datagram that was sent; received ones are queued after it
    }
    m_nError = nError;
    CM_WARNING_TRACE_THIS("CDatagramPort::Receive, recvmmsg() failed! fd=" << GetHandle() << " err=" << nError);
    return m_bConnected ? -1 : WOULD_BLOCK;
}

// One system call: a count, or -1. For one datagram the plain call costs two thirds of the other.
int CDatagramPort::ReceiveSome() {
    CDatagramBuffers& buffers = *GetDatagramBuffers();
    if (m_dwAlone >= ALONE_PERIOD && m_dwAlone % ALONE_PERIOD != 0) {
        ++m_dwAlone;
        socklen_t length = sizeof buffers.m_From[0];
        const ssize_t lRead = recvfrom(GetHandle(), buffers.m_Slots[0], CDatagramBuffers::SLOT, MSG_DONTWAIT,
                                       reinterpret_cast<sockaddr*>(&buffers.m_From[0]), &length);
        buffers.m_Received[0].msg_len = lRead > 0 ? static_cast<unsigned>(lRead) : 0;
        return lRead >= 0 ? 1 : -1;
    }
    for (mmsghdr& message : buffers.m_Received)
        message.msg_hdr.msg_namelen = sizeof(sockaddr_in6);  // the previous call has changed it
    const int nCount = recvmmsg(GetHandle(), buffers.m_Received, CDatagramBuffers::BATCH, MSG_DONTWAIT, nullptr);
    m_dwAlone = nCount == 1 ? m_dwAlone + 1 : 0;
    return nCount;
}

void CDatagramPort::Deliver(int aCount) {
    CDatagramBuffers& buffers = *GetDatagramBuffers();
    m_Counters.m_ullReceived += static_cast<uint64_t>(aCount);
    m_llReceivedUsec = CCmClock::GetTimeOfDayUsec();
    const char* pSlots = reinterpret_cast<const char*>(buffers.m_Slots);
    m_Sender.Lend(pSlots, pSlots + sizeof buffers.m_Slots);
    m_bReceiving = TRUE;
    for (int i = 0; i < aCount && m_bOpen; ++i) {
        const DWORD dwLength = buffers.m_Received[i].msg_len;
        // The block covers the received bytes only: a duplicate must not copy older bytes.
        CCmMessageBlock block(dwLength, buffers.m_Slots[i], CCmMessageBlock::DONT_DELETE, dwLength);
        m_User.OnDatagram(block, reinterpret_cast<const sockaddr&>(buffers.m_From[i]));
    }
    m_bReceiving = FALSE;
    if (m_bOpen)
        Flush();
    m_Sender.CallBackLoan();
}

CmResult CDatagramPort::Send(CCmMessageBlock& aData, DWORD aLength, const CCmInetAddr* aTo) {
    if (m_bBroken)
        return CM_ERROR_NETWORK_SOCKET_ERROR;
    const CmResult rv = m_Sender.Add(aData, aTo);
    if (rv != CM_OK) {
        m_bRefused = m_bRefused || rv == CM_ERROR_PARTIAL_DATA;
        return rv;
    }
    ++m_Counters.m_ullSent;
    aData.AdvanceChainedReadPtr(aLength);
    if (m_Sender.GetWaiting() >= CDatagramBuffers::BATCH)
        Flush();
    else if (!m_bReceiving)
        FlushLater();
    return CM_OK;
}

void CDatagramPort::FlushLater() {
    if (m_bFlushDue)
        return;
    const CmResult rv = m_pReactor->ScheduleTimer(this, nullptr, CCmTimeValue::s_tvZero, 1);
    m_bFlushDue = rv == CM_OK || rv == CM_ERROR_FOUND;
    if (!m_bFlushDue)
        Flush();
}

void CDatagramPort::OnTimeout(const CCmTimeValue&, void*) {
    m_bFlushDue = FALSE;
    Flush();
}

void CDatagramPort::Flush() {
    if (m_Sender.GetWaiting() == 0)
        return;
    const BOOL bWasFull = m_Sender.IsFull();
    if (const int nError = m_Sender.Flush(GetHandle()))
        SendFailed(nError);
    if (m_bOpen && m_Sender.IsFull() != bWasFull)
        Register();
}

// The send has already consumed the socket's error (a refusal by the peer's system): no other call will report it.
void CDatagramPort::SendFailed(int aError) {
    if (m_TracePace.IsDue())
        CM_WARNING_TRACE_THIS("CDatagramPort::Flush, sendmmsg() failed! fd=" << GetHandle() << " err=" << aError);
    if (!m_bConnected || aError != ECONNREFUSED)
        return;
    m_bBroken = TRUE;
    m_nError = aError;
    if (m_bOpen)
        m_pReactor->NotifyHandler(this, CLOSE_MASK);
}

int CDatagramPort::OnOutput(HANDLE) {
    Flush();
    if (m_Sender.GetWaiting() == 0 && std::exchange(m_bRefused, FALSE))
        m_User.OnWritable();
    return 0;
}

int CDatagramPort::OnClose(HANDLE, long) {
    m_bOpen = FALSE;
    m_bBroken = TRUE;
    m_User.OnBroken(m_nError);
    return 0;
}

CCmDatagramCounters CDatagramPort::GetCounters() const {
    CCmDatagramCounters counters = m_Counters;
    counters.m_ullSendCalls = m_Sender.GetCalls();
    counters.m_ullLost = m_Sender.GetLost();
    return counters;
}

}  // namespace talvo
