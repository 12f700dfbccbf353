// A connected, non-blocking TCP socket as a transport.
#pragma once

#include "talvo/transport/atomic_addr.h"
#include "talvo/transport/network_buffers.h"
#include "talvo/transport/transport_base.h"

// The traffic of a transport; read it in its thread.
struct CCmTransportCounters {
    uint64_t m_ullBytesReceived = 0;
    uint64_t m_ullReceives = 0;  // chunks passed to the sink
    uint64_t m_ullBytesSent = 0;
    uint64_t m_ullSends = 0;         // calls of the system's send
    uint64_t m_ullPartialSends = 0;  // sends that returned CM_ERROR_PARTIAL_DATA
};

// Acceptors and connectors make it and put a connected socket into GetPeer(). Received bytes are delivered in the thread's
// receive buffer, without a copy. A chunk has at most CM_OPT_TRANSPORT_READ_SIZE bytes (16,384 at first), and its memory is
// reused after OnReceive. The system sizes the socket's buffers unless the configuration or an option does. A send is one
// gathering system call of at most 64 pieces. A longer chain is cut there, although the socket could take more:
// CM_ERROR_PARTIAL_DATA is returned and an OnSend follows.
class TALVO_API CCmTransportTcp : public CCmTransportBase {
public:
    explicit CCmTransportTcp(ICmReactor* aReactor);
    ~CCmTransportTcp() override;

    HANDLE GetHandle() const override { return m_SocketTcp.GetHandle(); }
    int OnInput(HANDLE aFd) override;
    int OnOutput(HANDLE aFd) override;
    int OnClose(HANDLE aFd, long aMask) override;

    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;
    // With CM_OK the socket stays until the peer's system has acknowledged everything. If it were closed at once, further data
    // from the peer would make it send a reset, and unacknowledged data would be lost. See CTransportLinger.
    CmResult Disconnect(CmResult aReason) override;

    CCmSocketTcp& GetPeer() { return m_SocketTcp; }
    // The maker stores the address that it has, which saves a system call. The peer's address is then also available after the
    // end.
    void SetPeerAddr(const sockaddr_in& aAddr) { m_AddrPeer.Store(CCmInetAddr(aAddr)); }
    void SetLocalAddr(const sockaddr_in& aAddr) { m_AddrLocal.Store(CCmInetAddr(aAddr)); }
    // Of one read; between CSocketSettings::MIN_READ and MAX_READ.
    void SetReadSize(DWORD aSize) { m_dwReadSize = aSize; }
    const CCmTransportCounters& GetCounters() const { return m_Counters; }

protected:
    CmResult Open_t() override;
    CmResult Close_t(CmResult aReason) override;

    // The raw socket for a layer between socket and sink. A count; if it would block, 0 for Send_i, -2 for Recv_i; -1 on
    // failure and on the peer's close, traced. 0 for Recv_i at the peer's half-close if that is to be reported.
    int Recv_i(char* aBuf, DWORD aLen);
    int Send_i(const char* aBuf, DWORD aLen);

private:
    BOOL IsWriteOnDemand_i() const { return (m_pReactor->GetProperty() & ICmReactor::PROPERTY_WRITE_ON_DEMAND) != 0; }
    long GetMask_i() const;
    int TellEnd_i();
    CmResult SendFailed_i(int aError);
    void TellBroken_i();
    CmResult EndSending_i();
    CmResult SetReadSize_i(DWORD aSize);
    CmResult PartialSend_i(BOOL aMoreRoom);
    CmResult PauseReading_i(BOOL aPause);
    CmResult SetTellEnd_i(BOOL aTell);
    CmResult GetUnacknowledged_i(DWORD& aBytes);
    CmResult Detach_i(HANDLE aNewHandle);
    void LetLinger_i();
    CmResult IsAlive_i(BOOL& aAlive) const;
    CmResult GetPeerAddr_i(CCmInetAddr& aAddr);
    CmResult GetLocalAddr_i(CCmInetAddr& aAddr);

    CCmSocketTcp m_SocketTcp;
    // There are tens of thousands of these objects: small members, side by side.
    talvo::CAtomicAddr m_AddrPeer;
    talvo::CAtomicAddr m_AddrLocal;
    DWORD m_dwReadSize = talvo::CNetworkBuffers::DEFAULT_READ;
    bool m_bNeedOnSend = false;
    bool m_bReadingPaused = false;
    bool m_bOpen = false;     // registered with the reactor
    bool m_bTellEnd = false;  // option 148
    bool m_bEndTold = false;
    bool m_bEndSent = false;  // option 147
    bool m_bBroken = false;   // a send found that out, and OnDisconnect is due
    CCmTransportCounters m_Counters;
};
