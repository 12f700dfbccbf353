// Where an application gets its connectors and acceptors.
#pragma once

#include "talvo/base/clean_up.h"
#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/time_value.h"
#include "talvo/connection/drain_sink.h"
#include "talvo/transport/connection_type.h"
#include "talvo/transport/transport_interface.h"

class ACmThread;

// The process-wide factory. It makes sure that the network thread exists and wraps what it makes in a thread proxy when the
// caller is another thread, so that an application is called back in its own. Any thread that has an event queue may call: the
// main thread, and those of CCmThreadManager::CreateUserTaskThread and CreateReactorThread.
//
// What a type's connections are, both ends being of the same type; the flags are looked at in this order:
//   reliable         package connections that survive the loss of their transport; not offered yet
//   no partial data  whole messages, no handshake: connected as soon as the transport is. TCP and UDP
//   package          whole messages; connected when the peer has answered, which the client awaits for 60 s. TCP and UDP
//   length           whole messages behind their length and nothing else. TCP only: a length cannot frame datagrams
//   none of these    the bare transport: bytes over TCP, datagrams over UDP
// CTYPE_PDU_KEEPALIVE, with package or no partial data, sends keep-alives. Over UDP a message is one datagram, which may be
// lost.
class TALVO_API CCmConnectionManager : public CCmCleanUpBase {
public:
    // A connection type is a base type in the low 16 bits and flags; CTYPE_PDU_RELIABLE is three of them.
    enum CType : DWORD {
        CTYPE_TCP = CM_TRANSPORT_TYPE_TCP,
        CTYPE_UDP = CM_TRANSPORT_TYPE_UDP,
        CTYPE_FORCE_THREAD_PROXY = talvo::CConnectionType::FORCE_THREAD_PROXY,  // a proxy even in the network thread
        CTYPE_SEND_NO_PARTIAL_DATA = talvo::CConnectionType::NO_PARTIAL_DATA,
        CTYPE_PDU_LENGTH = talvo::CConnectionType::LENGTH,
        CTYPE_PDU_PACKAGE = talvo::CConnectionType::PACKAGE,
        CTYPE_PDU_KEEPALIVE = talvo::CConnectionType::KEEPALIVE,
        CTYPE_PDU_RELIABLE = talvo::CConnectionType::RELIABLE
    };
    using CPriority = ECmTransportPriority;

    // Created by the first call, together with the network thread (in the thread manager's other mode the main thread serves as
    // that, and must have been adopted). Null: there is no network thread; the trace says why,
    // and a later call tries again.
    static CCmConnectionManager* Instance();
    // Destroys the instance. The network thread, if it was spawned and still exists, is stopped, joined and destroyed; what
    // lingers there is waited for, see ACmThread::Linger, also when the main thread is the network thread. From the main
    // thread, when nobody uses the instance any more. Proxies that the application still holds may be used and released
    // afterwards: their operations then fail as documented.
    static void CleanupInstance();

    // Brings everything to an orderly end:
    //    1. all acceptors stop as StopListen does, also those of HTTP; what has not finished its handshake is closed.
    //       StartListen returns CM_ERROR_NOT_AVAILABLE
    //    2. HTTP finishes what it has begun, in every thread: answers, and requests of clients. A server's connection is closed
    //       at once when no whole request has come and no answer has begun: the client sees an end instead of an answer. A
    //       client channel's AsyncOpen returns CM_ERROR_NOT_AVAILABLE
    //    3. every connection ends, one that is made meanwhile as well. Its sink gets OnDisconnect with
    //       CM_ERROR_NETWORK_SOCKET_CLOSE, once; the peer sees the end that Disconnect(CM_OK) gives. What SendData took goes
    //       out first, and the peer's system acknowledges it. An attempt to connect, its handshake included, ends with one
    //       indication of CM_ERROR_NOT_AVAILABLE
    //    4. when aTimeout is over (null: LingerSeconds; zero or less: at once), all that is left is cut off: connections, and
    //       requests with OnDisconnect. A line in the trace says how much that was
    // Reading that the application has paused changes no result: without a proxy OnDisconnect comes all the same, and what was
    // not received is lost; a proxy keeps its OnDisconnect, and what it had received before, until the pause is lifted.
    // Connectors, acceptors and channels may be used again afterwards, so a server can drain and go on.
    //
    // With aSink, from any thread that CreateConnectionClient accepts, callbacks included: returns at once, and aSink (not
    // owned, alive until then) is told in that thread unless it ends before. CM_OK: it will be told. Threads with HTTP must run
    // their loop.
    // Without: from the main thread when its loop has returned. The call runs that loop, and so all callbacks of the thread.
    // CM_OK: everything has ended; CM_ERROR_TIMEOUT: cut off at the limit; CM_ERROR_NOT_AVAILABLE: the network thread ended
    // first. CM_ERROR_FAILURE: another thread calls, or the loop runs (from inside a callback).
    // CM_ERROR_ALREADY_INITIALIZED: one runs already. CM_ERROR_NULL_POINTER: the caller is no thread of the library with an
    // event queue, or the network thread is gone. CM_ERROR_OUT_OF_MEMORY.
    CmResult Drain(CCmTimeValue* aTimeout, ICmDrainSink* aSink = nullptr);

    // A new connector or acceptor with one reference for the caller, null on failure.
    // CM_ERROR_INVALID_ARG: no such base type. CM_ERROR_FAILURE: flags that name no connection. CM_ERROR_NOT_IMPLEMENTED: a
    // type that is not offered (today a base type other than CTYPE_TCP, CTYPE_UDP and those of cm_offer_base_type,
    // CTYPE_PDU_RELIABLE, and CTYPE_PDU_LENGTH over CTYPE_UDP). CM_ERROR_NULL_POINTER: the calling thread has no event queue,
    // or the network thread is gone. CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateConnectionClient(DWORD aType, ICmConnector*& aConnector);
    CmResult CreateConnectionServer(DWORD aType, ICmAcceptor*& aAcceptor);
    CmResult CreateDetectionConnectionClient(ICmDetectionConnector*& aConnector);  // CM_ERROR_NOT_IMPLEMENTED today

    // The same without a proxy: in the network thread only, which is also the thread of all upcalls.
    CmResult CreateConnectionClient_i(DWORD aType, ICmConnector*& aConnector);
    CmResult CreateConnectionServer_i(DWORD aType, ICmAcceptor*& aAcceptor);

    // The same for types that name a protocol connection, and CM_ERROR_FAILURE for all others. aType loses its base type and
    // all flags but that of the kind of connection. Likewise in the network thread only.
    static CmResult CreateCsConnectionClient(DWORD& aType, ICmConnector*& aConnector);
    static CmResult CreateCsConnectionServer(DWORD& aType, ICmAcceptor*& aAcceptor);

private:
    CCmConnectionManager() = default;
    ~CCmConnectionManager() override;
    void CleanUp() override;

    CmResult SpawnNetworkThread_i();

    ACmThread* m_pThreadNetwork = nullptr;  // owned if spawned here; null in the main-thread mode
};
