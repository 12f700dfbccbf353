// A datagram socket in the reactor.
#pragma once

#include "talvo/event/reactor.h"
#include "talvo/transport/socket.h"
#include "talvo/transport/udp/datagram_sender.h"

// What passed through a datagram socket; read it in its thread.
struct CCmDatagramCounters {
    uint64_t m_ullReceived = 0;      // datagrams, wherever they went then
    uint64_t m_ullReceiveCalls = 0;  // system calls that asked for them, those that found none included
    uint64_t m_ullSent = 0;          // datagrams taken for sending
    uint64_t m_ullSendCalls = 0;
    uint64_t m_ullLost = 0;     // taken, but refused by the system then
    uint64_t m_ullDropped = 0;  // received, but from too many sources or for somebody who does not take them
};

namespace talvo {

// Whom a port reports to. Any of these may close the port; the object that holds it stays alive until the call has returned.
class TALVO_API IDatagramUser {
public:
    // One datagram, perhaps empty. aData lies in a buffer of the thread.
    virtual void OnDatagram(CCmMessageBlock& aData, const sockaddr_in& aFrom) = 0;
    // A send was refused before; now there is room.
    virtual void OnWritable() = 0;
    // Connected sockets only: it has failed, and is no longer in the reactor. aError: an errno.
    virtual void OnBroken(int aError) = 0;

protected:
    virtual ~IDatagramUser() = default;
};

// Receives up to 32 datagrams with one system call a report; where datagrams have come one by one for a while, it asks for
// one, with a cheaper call, and for more every few reports. What is sent while they are handled leaves with one call behind
// the last of them; what is sent at any other time is collected in the same way, until 32 wait or a timer of no delay fires,
// that is before the loop sleeps again. Nothing ever waits for more to come. Lives in the thread of its reactor.
class TALVO_API CDatagramPort final : public ACmEventHandler, public ICmTimerHandler {
public:
    // aConnected: the socket will be; a failure that the system reports then ends it. Without, failures concern one datagram.
    CDatagramPort(ICmReactor* aReactor, IDatagramUser& aUser, BOOL aConnected)
        : m_pReactor(aReactor), m_User(aUser), m_bConnected(aConnected) {}
    ~CDatagramPort() override { Close(); }
    CDatagramPort(const CDatagramPort&) = delete;
    CDatagramPort& operator=(const CDatagramPort&) = delete;

    // To be opened, bound, connected and made non-blocking by the owner.
    CCmSocketUdp& GetSocket() { return m_Socket; }

    // Starts to receive. The reactor's result, or CM_ERROR_OUT_OF_MEMORY.
    CmResult Open();
    // Gives what was collected a last try, and closes the socket.
    void Close();
    // The same, but the socket stays open and is somebody else's.
    void Detach();

    // Takes a whole chain that CheckDatagram found good, see CDatagramSender::Add, and consumes it. aTo null: to whom it is
    // connected. Further: CM_ERROR_NETWORK_SOCKET_ERROR when it is broken.
    CmResult Send(CCmMessageBlock& aData, DWORD aLength, const sockaddr_in* aTo);

    // The socket's buffer is full, and what waits here has to leave first. TellWhenWritable: OnWritable then.
    BOOL IsFull() const { return m_Sender.IsFull(); }
    void TellWhenWritable() { m_bRefused = TRUE; }

    // What has not been received stays in the socket; the rest of a batch still comes.
    CmResult PauseReading(BOOL aPause);

    // When the batch under way was received, in microseconds of the time of day.
    int64_t GetReceivedUsec() const { return m_llReceivedUsec; }

    CCmDatagramCounters GetCounters() const;
    void CountDropped() { ++m_Counters.m_ullDropped; }

    HANDLE GetHandle() const override { return m_Socket.GetHandle(); }
    int OnInput(HANDLE aFd) override;
    int OnOutput(HANDLE aFd) override;
    int OnClose(HANDLE aFd, long aMask) override;
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

    ICmReactor* const m_pReactor;  // not owned; may die before this object
    IDatagramUser& m_User;
    const BOOL m_bConnected;
    CCmSocketUdp m_Socket;
    CDatagramSender m_Sender;
    BOOL m_bOpen = FALSE;       // registered with the reactor
    BOOL m_bReceiving = FALSE;  // a batch is handled
    BOOL m_bFlushDue = FALSE;   // the timer runs
    BOOL m_bPaused = FALSE;
    BOOL m_bRefused = FALSE;  // somebody waits for OnWritable
    BOOL m_bBroken = FALSE;   // a send found that out, and OnBroken has to be told
    int m_nError = 0;         // what broke it
    DWORD m_dwAlone = 0;      // datagrams that were alone when they came, without another case between them
    int64_t m_llReceivedUsec = 0;
    CCmTimeValue m_tvTraced;  // when the last line about a lost datagram was written
    CCmDatagramCounters m_Counters;
};

}  // namespace talvo
