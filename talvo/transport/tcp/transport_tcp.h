// A connected, non-blocking TCP socket as a transport.
#pragma once

#include <sys/socket.h>

#include <memory>

#include "talvo/base/chain_ptr.h"
#include "talvo/transport/atomic_addr.h"
#include "talvo/transport/network_buffers.h"
#include "talvo/transport/tcp/read_ahead.h"
#include "talvo/transport/transport_base.h"

// The traffic of a transport; read it in its thread.
struct CCmTransportCounters {
    uint64_t m_ullBytesReceived = 0;  // passed to the sink
    uint64_t m_ullReceives = 0;       // chunks passed to the sink
    uint64_t m_ullBytesSent = 0;      // taken by the system
    uint64_t m_ullSends = 0;          // calls of the system's send
    uint64_t m_ullPartialSends = 0;   // sends that returned CM_ERROR_PARTIAL_DATA
};

// Acceptors and connectors make it and put a connected socket into GetPeer(). Received bytes are delivered in the thread's
// receive buffer, without a copy. A chunk has at most CM_OPT_TRANSPORT_READ_SIZE bytes (16,384 at first), and its memory is
// reused after OnReceive. The system sizes the socket's buffers unless the configuration or an option does. A send is one
// gathering system call of at most 64 pieces. A longer chain is cut there, although the socket could take more:
// CM_ERROR_PARTIAL_DATA is returned and an OnSend follows.
//
// A derived class may put a layer between the socket and the sink, one that encrypts for example. It overrides the hooks below,
// and calls Recv_i and Send_i, which stay the raw socket. A layer may hold received bytes that the sink has not got, and bytes
// to send that the socket has not taken; the transport asks the hooks for both.
class TALVO_API CCmTransportTcp : public CCmTransportBase {
public:
    // aReactor: as CCmTransportBase.
    explicit CCmTransportTcp(ICmReactor* aReactor);
    ~CCmTransportTcp() override;

    CmHandle GetHandle() const override { return m_SocketTcp.GetHandle(); }
    int OnInput(CmHandle aFd) override;
    int OnOutput(CmHandle aFd) override;
    int OnClose(CmHandle aFd, long aMask) override;

    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;
    CmResult SetOption(CmDword aCommand, void* aArg) override;
    CmResult GetOption(CmDword aCommand, void* aArg) override;
    // With CM_OK the socket stays until the peer's system has acknowledged everything. If it were closed at once, further data
    // from the peer would make it send a reset, and unacknowledged data would be lost. See CTransportLinger.
    CmResult Disconnect(CmResult aReason) override;

    // The socket.
    CCmSocketTcp& GetPeer() { return m_SocketTcp; }
    // The maker stores the address that it has, which saves a system call. The peer's address is then also available after the
    // end.
    void SetPeerAddr(const CCmInetAddr& aAddr) { m_AddrPeer.Store(aAddr); }
    void SetLocalAddr(const CCmInetAddr& aAddr) { m_AddrLocal.Store(aAddr); }  // likewise, of this end
    // The maker's socket has TCP_NODELAY already; likewise.
    void SetUndelayed() { m_bUndelayed = true; }
    // Accepted and perhaps open since: the first bytes of the peer may have come already. If such reads pay, the reactor reads
    // before its next wait, which saves a report.
    void ReadEarly();
    // Of one read; between CSocketSettings::MIN_READ and MAX_READ.
    void SetReadSize(CmDword aSize) { m_dwReadSize = aSize; }
    // The proxy server of the connection, for CM_OPT_TRANSPORT_ROUTE; without a call there is none. May throw std::bad_alloc.
    void SetRoute(const CCmString& aServer) { m_pRoute = std::make_unique<const CCmString>(aServer); }
    const CCmTransportCounters& GetCounters() const { return m_Counters; }  // of its thread
    CmBool IsOpen() const { return m_bOpen; }                               // it has been opened, and its socket is not closed

    // The raw socket, for a layer between socket and sink, and for a handshake before the opening. A count; 0 for Send_i, -2
    // for Recv_i when it would block; -1 on failure and on the peer's close, traced. 0 for Recv_i at the peer's end if
    // CM_OPT_TRANSPORT_TELL_END is set. Bytes of UnRecv_i come first. aMore: another send or the end follows soon, and the
    // system may wait for it, to send one segment.
    int Recv_i(char* aBuf, CmDword aLen);
    int Send_i(const char* aBuf, CmDword aLen, CmBool aMore = CM_FALSE);
    // As Recv_i, but the bytes stay in the socket. Before any UnRecv_i.
    int Peek_i(char* aBuf, CmDword aLen) { return Receive_i(aBuf, aLen, MSG_PEEK); }
    // Puts bytes of Recv_i back for the next reader. CM_ERROR_OUT_OF_MEMORY: nothing is put back, and the stream has a gap.
    CmResult UnRecv_i(const char* aData, CmDword aLen);
    // TRUE after Recv_i: its bytes were those of UnRecv_i, and the socket may have more.
    CmBool HasReadAhead_i() const { return m_pReadAhead != nullptr; }

protected:
    CmResult Open_t() override;
    CmResult Close_t(CmResult aReason) override;

    // The hooks. They use the socket only through Recv_i and Send_i, and call nothing that may call the sink.

    // Bytes for the sink: a count; otherwise as Recv_i, and an end or a failure comes behind the last byte. aMore (out, FALSE
    // before): Read_i is called again without a report of the socket, also after a -2. A layer sets it unless Recv_i would
    // block and GetHeld_i is 0. Without it, and with fewer than aLen bytes, the next call comes with the next report.
    virtual int Read_i(char* aBuf, CmDword aLen, CmBool& aMore);
    // Before OnClose: the socket may have bytes that reading has not reached.
    void NoteMore_i() { m_bMore = true; }
    // Of aRead bytes without aMore: the socket reports the next ones. Otherwise Read_i is called again at once.
    virtual CmBool IsDry_i(CmDword aRead, CmDword aLen) const { return aRead < aLen; }
    // Received bytes that Read_i can return without the socket. The beginning of a record does not count.
    virtual CmDword GetHeld_i() const { return m_pReadAhead ? m_pReadAhead->GetSize() : 0; }
    // TRUE: the peer's side is known to have ended without a failure.
    virtual CmBool HasEnded_i() const;
    // The peer's side of the socket has ended without a failure. A layer notes one here unless its own end came before.
    virtual void NoteEnd_i() {}

    // Takes bytes of SendData: a count, fewer than all only if the socket would block; -1 with errno, EAGAIN if it takes none
    // for that reason. A layer that holds bytes to send after that calls WaitForRoom_i.
    virtual int Write_i(const iovec* aPieces, CmDword aCount);
    // Sends the bytes that the layer holds. aEnd: no Write_i follows, and the layer's own end goes behind them, once. CM_OK (no
    // call follows if aEnd): all are sent. CM_ERROR_PARTIAL_DATA: the socket would block. CM_ERROR_NETWORK_SOCKET_ERROR with
    // errno.
    virtual CmResult Flush_i(CmBool aEnd);
    // The number of bytes that Flush_i still has to send.
    virtual CmDword GetUnsent_i() const { return 0; }
    // Moves these bytes, encoded, to the caller: another transport continues with the socket. Null: none, or memory ran out.
    virtual CCmChainPtr TakeUnsent_i() { return nullptr; }

    // For a layer: Flush_i is called when the socket has room.
    void WaitForRoom_i();
    // For a layer: the peer has ended in good order, and the socket is empty. Its close needs no shutdown before.
    void NoteDrained_i() { m_bDrained = true; }
    // For a layer: Read_i returns 0 at the end if this is TRUE, and -1 otherwise.
    CmBool IsEndTold_i() const { return m_bTellEnd; }
    // Unacknowledged bytes and those that the layer holds leave without this transport, which is closed then.
    void LetLinger_i();

private:
    // A Unix socket reports room after each read of the peer, which would wake the loop for nothing.
    CmBool IsWriteOnDemand_i() const {
        return m_AddrPeer.IsPath() || (m_pReactor->GetProperty() & ICmReactor::PROPERTY_WRITE_ON_DEMAND) != 0;
    }
    int Receive_i(char* aBuf, CmDword aLen, int aFlags);
    long GetMask_i() const;
    int TellEnd_i();
    CmResult SendFailed_i(int aError);
    void TellBroken_i();
    CmResult Watch_i();
    void GoOnReading_i();
    CmBool ReadsOn_i();
    CmBool EndPause_i();
    CmBool FlushRest_i();
    CmResult EndSending_i(CmBool aEnd);
    CmResult SetReadSize_i(CmDword aSize);
    CmResult PartialSend_i(CmBool aMoreRoom);
    CmResult PauseReading_i(CmBool aPause);
    CmResult SetTellEnd_i(CmBool aTell);
    CmResult GetUnacknowledged_i(CmDword& aBytes);
    CmResult Detach_i(CmHandle aNewHandle);
    CmResult IsAlive_i(CmBool& aAlive) const;
    CmResult GetPeerAddr_i(CCmInetAddr& aAddr);
    CmResult GetPeerCredentials_i(ucred& aPeer) const;
    void DropUnread_i();
    CmResult GetLocalAddr_i(CCmInetAddr& aAddr);

    CCmSocketTcp m_SocketTcp;
    // There are tens of thousands of these objects: small members, side by side.
    talvo::CAtomicAddr m_AddrPeer;
    talvo::CAtomicAddr m_AddrLocal;
    std::unique_ptr<talvo::CReadAhead> m_pReadAhead;  // null unless a handshake has read too far
    std::unique_ptr<const CCmString> m_pRoute;        // null: no proxy server
    CmDword m_dwReadSize = talvo::CNetworkBuffers::DEFAULT_READ;
    bool m_bUndelayed = false;  // has TCP_NODELAY
    bool m_bNeedOnSend = false;
    bool m_bNeedFlush = false;  // the layer waits for room
    bool m_bMore = false;       // aMore of the last Read_i
    bool m_bReadingPaused = false;
    bool m_bOpen = false;     // registered with the reactor
    bool m_bTellEnd = false;  // option 148
    bool m_bEndTold = false;
    bool m_bEndSent = false;    // option 147
    bool m_bDrained = false;    // the peer has ended in good order, and the socket is empty
    bool m_bBroken = false;     // a send has failed, and OnDisconnect is due
    bool m_bRestFirst = false;  // OPT_REST_BEFORE_FAILURE
    CCmTransportCounters m_Counters;
};
