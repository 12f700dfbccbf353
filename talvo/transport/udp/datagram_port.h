// A datagram socket in the reactor.
#pragma once

#include "talvo/base/trace_pace.h"
#include "talvo/event/home_reactor.h"
#include "talvo/transport/socket.h"
#include "talvo/transport/udp/datagram_sender.h"

// The traffic of a datagram socket; read it in its thread.
struct CCmDatagramCounters {
    uint64_t m_ullReceived = 0;      // datagrams, delivered or not
    uint64_t m_ullReceiveCalls = 0;  // system calls for receiving, with those that found no datagram
    uint64_t m_ullSent = 0;          // datagrams taken for sending
    uint64_t m_ullSendCalls = 0;     // system calls for sending
    uint64_t m_ullLost = 0;          // taken, but refused by the system later
    uint64_t m_ullDropped = 0;       // received, but from too many sources, or not accepted by the user
};

namespace talvo {

// The user of a port. Each call may close the port; the object that holds it stays alive until the call has returned.
class TALVO_API IDatagramUser {
public:
    // One datagram, perhaps empty. aData is in a buffer of the thread. aFrom: a sockaddr_in or sockaddr_in6, with room for the
    // latter.
    virtual void OnDatagram(CCmMessageBlock& aData, const sockaddr& aFrom) = 0;
    // A send was refused before; now there is room.
    virtual void OnWritable() = 0;
    // Connected sockets only: it has failed, and is no longer in the reactor. aError: an errno.
    virtual void OnBroken(int aError) = 0;

protected:
    virtual ~IDatagramUser() = default;
};

// Receives up to 32 datagrams with one system call a report. After a series of single datagrams it receives one, with a cheaper
// call, and tries more every few reports. Datagrams sent during their handling leave with one call after the last of them.
// Datagrams sent at any other time are collected likewise, until there are 32 or a zero-delay timer fires, which is before the
// loop sleeps again. No datagram waits for later ones. Lives in the thread of its reactor.
class TALVO_API CDatagramPort final : public ACmEventHandler, public ICmTimerHandler {
public:
    // aConnected: the socket will be; a failure reported by the system then ends it. Otherwise a failure concerns one datagram.
    CDatagramPort(ICmReactor* aReactor, IDatagramUser& aUser, CmBool aConnected)
        : m_pReactor(aReactor), m_User(aUser), m_bConnected(aConnected) {}
    ~CDatagramPort() override { Close(); }
    CDatagramPort(const CDatagramPort&) = delete;
    CDatagramPort& operator=(const CDatagramPort&) = delete;

    // The owner opens, binds, connects it and makes it non-blocking.
    CCmSocketUdp& GetSocket() { return m_Socket; }

    // Starts to receive. The reactor's result, or CM_ERROR_OUT_OF_MEMORY.
    CmResult Open();
    // Tries once to send the collected datagrams, and closes the socket.
    void Close();
    // The same, but the socket stays open and gets another owner.
    void Detach();

    // Takes a whole chain that CheckDatagram accepts, see CDatagramSender::Add, and consumes it. aTo null: to the connected
    // peer. Also: CM_ERROR_NETWORK_SOCKET_ERROR: it is broken.
    CmResult Send(CCmMessageBlock& aData, CmDword aLength, const CCmInetAddr* aTo);

    // The socket's buffer is full, and the collected datagrams must leave first. NotifyWhenWritable requests OnWritable for
    // that.
    CmBool IsFull() const { return m_Sender.IsFull(); }
    void NotifyWhenWritable() { m_bRefused = CM_TRUE; }

    // Data not yet received stays in the socket; the rest of a batch is still delivered.
    CmResult PauseReading(CmBool aPause);

    // Receive time of the current batch, in microseconds of the time of day.
    int64_t GetReceivedUsec() const { return m_llReceivedUsec; }

    CCmDatagramCounters GetCounters() const;
    void CountDropped() { ++m_Counters.m_ullDropped; }

    CmHandle GetHandle() const override { return m_Socket.GetHandle(); }
    int OnInput(CmHandle aFd) override;
    int OnOutput(CmHandle aFd) override;
    int OnClose(CmHandle aFd, long aMask) override;
    void OnTimeout(const CCmTimeValue& aCurTime, void* aArg) override;  // time to flush

private:
    int Receive();
    int ReceiveSome();
    void Deliver(int aCount);
    void Flush();
    void FlushLater();
    void SendFailed(int aError);
    CmResult Register();
    void Leave();

    const CHomeReactor m_pReactor;
    IDatagramUser& m_User;
    const CmBool m_bConnected;
    CCmSocketUdp m_Socket;
    CDatagramSender m_Sender;
    CmBool m_bOpen = CM_FALSE;       // registered with the reactor
    CmBool m_bReceiving = CM_FALSE;  // a batch is being handled
    CmBool m_bFlushDue = CM_FALSE;   // the timer runs
    CmBool m_bPaused = CM_FALSE;
    CmBool m_bRefused = CM_FALSE;  // OnWritable is due to the user
    CmBool m_bBroken = CM_FALSE;   // a send has failed, and OnBroken is due
    int m_nError = 0;              // the error that broke it
    CmDword m_dwAlone = 0;         // consecutive datagrams that arrived alone
    int64_t m_llReceivedUsec = 0;
    CTracePace m_TracePace;  // of the lines about lost datagrams
    CCmDatagramCounters m_Counters;
};

}  // namespace talvo
