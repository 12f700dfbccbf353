// Makes an application's connectors and acceptors.
#pragma once

#include "talvo/base/clean_up.h"
#include "talvo/base/export.h"
#include "talvo/base/result.h"
#include "talvo/base/time_value.h"
#include "talvo/connection/drain_sink.h"
#include "talvo/transport/connection_type.h"
#include "talvo/transport/transport_interface.h"

class ACmThread;
class ICmForwardSession;
class ICmForwardSink;

// The process-wide factory. It ensures that the network thread exists. For a caller in another thread it wraps each object in a
// thread proxy, so that callbacks come in the caller's thread. Any thread with an event queue may call: the main thread, and
// those of CCmThreadManager::CreateUserTaskThread and CreateReactorThread.
//
// The connections of a type; both ends must have the same type. The flags are checked in this order:
//   reliable         whole messages; the connection survives the loss of its transport, see CRlbConn. Over any stream. With
//                    CTYPE_RECONNECT_TOKEN a secret proves who may continue it; without, the peer's address and 16 bits do
//   no partial data  whole messages, no handshake: connected as soon as the transport is. TCP and UDP
//   package          whole messages; connected after the peer's answer, with a time-out of 60 s at the client. TCP and UDP
//   length           whole messages, each after its length only. TCP only: a length cannot frame datagrams
//   none of these    the bare transport: bytes over TCP, datagrams over UDP
// CTYPE_PDU_KEEPALIVE, with package or no partial data, sends keep-alives. Over UDP a message is one datagram, which may be
// lost.
class TALVO_API CCmConnectionManager : public CCmCleanUpBase {
public:
    // A connection type is a base type in the low 16 bits and flags; CTYPE_PDU_RELIABLE is three of them.
    enum CType : CmDword {
        CTYPE_TCP = CM_TRANSPORT_TYPE_TCP,
        CTYPE_UDP = CM_TRANSPORT_TYPE_UDP,
        CTYPE_FORCE_THREAD_PROXY = talvo::CConnectionType::FORCE_THREAD_PROXY,  // a proxy even in the network thread
        CTYPE_SEND_NO_PARTIAL_DATA = talvo::CConnectionType::NO_PARTIAL_DATA,
        CTYPE_PDU_LENGTH = talvo::CConnectionType::LENGTH,
        CTYPE_PDU_PACKAGE = talvo::CConnectionType::PACKAGE,
        CTYPE_PDU_KEEPALIVE = talvo::CConnectionType::KEEPALIVE,
        CTYPE_PDU_RELIABLE = talvo::CConnectionType::RELIABLE,
        CTYPE_RECONNECT_TOKEN = talvo::CConnectionType::RECONNECT_TOKEN  // with CTYPE_PDU_RELIABLE: the token form
    };
    using CPriority = ECmTransportPriority;  // another name

    // The first call creates it, together with the network thread. In the thread manager's other mode the main thread serves as
    // the network thread, and must have been adopted. Null: there is no network thread; the trace has the cause, and a later
    // call tries again.
    static CCmConnectionManager* Instance();
    // Destroys the instance. If the network thread was spawned and still exists, it is stopped, joined and destroyed. The call
    // waits for its lingering transports, see ACmThread::Linger, also if the main thread is the network thread. Call it from
    // the main thread, when the instance is no longer in use. The application may still use and release its proxies afterwards:
    // their operations then fail as documented.
    static void CleanupInstance();

    // Ends everything gracefully:
    //    1. all acceptors stop as StopListen does, also those of HTTP; connections with an unfinished handshake are closed.
    //       StartListen returns CM_ERROR_NOT_AVAILABLE
    //    2. HTTP finishes begun answers and begun requests of clients, in every thread. A server's connection is closed
    //       at once if no whole request has come and no answer has begun: the client gets an end instead of an answer. A
    //       client channel's AsyncOpen returns CM_ERROR_NOT_AVAILABLE
    //    3. every connection ends, also one that is made meanwhile. Its sink gets OnDisconnect with
    //       CM_ERROR_NETWORK_SOCKET_CLOSE, once; the peer gets the same end as from Disconnect(CM_OK). Data that SendData took
    //       is sent first, and the peer's system acknowledges it. An attempt to connect, its handshake included, ends with one
    //       indication of CM_ERROR_NOT_AVAILABLE
    //    4. after aTimeout (null: LingerSeconds; zero or less: at once), all remaining work is aborted: connections, requests
    //       with OnDisconnect. A trace line gives their number
    // If the application has paused reading, the results are the same. Without a proxy OnDisconnect still comes, and unreceived
    // data is lost. A proxy keeps its OnDisconnect, and the data that it received before, until the pause ends. Connectors,
    // acceptors and channels may be used again afterwards, so a server can drain and continue.
    //
    // With aSink, from any thread that CreateConnectionClient accepts, callbacks included: returns at once. aSink (not owned,
    // alive until then) is notified in that thread unless the thread ends before. CM_OK: the notification follows. Threads with
    // HTTP must run their loop.
    // Without aSink: from the main thread after its loop has returned. The call runs that loop, and so all callbacks of the
    // thread. CM_OK: everything has ended; CM_ERROR_NETWORK_SOCKET_ERROR: everything has ended, but connections failed after
    // their OnDisconnect of step 3 and lost data, and a trace line counts them; CM_ERROR_TIMEOUT: aborted at the limit;
    // CM_ERROR_NOT_AVAILABLE: the network thread ended first. CM_ERROR_FAILURE: another thread calls, or the loop runs (from
    // inside a callback). CM_ERROR_ALREADY_INITIALIZED: a drain runs already. CM_ERROR_NULL_POINTER: the caller is not a thread
    // of the library with an event queue, or the network thread has ended. CM_ERROR_OUT_OF_MEMORY.
    CmResult Drain(CCmTimeValue* aTimeout, ICmDrainSink* aSink = nullptr);

    // aConnector (out): a new connector or acceptor with one reference for the caller, null on failure. CM_ERROR_INVALID_ARG:
    // no such base type. CM_ERROR_FAILURE: flags that name no connection. CM_ERROR_NOT_IMPLEMENTED: a type that is not offered:
    // a server of CM_TRANSPORT_TYPE_PROXY or CM_TRANSPORT_TYPE_RACE, and CTYPE_PDU_RELIABLE and CTYPE_PDU_LENGTH over
    // CTYPE_UDP. CM_ERROR_NULL_POINTER: the calling thread has no event queue, or the network thread has ended.
    // CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateConnectionClient(CmDword aType, ICmConnector*& aConnector);
    CmResult CreateConnectionServer(CmDword aType, ICmAcceptor*& aAcceptor);

    // aConnector (out): a detection connector without connections, likewise. CM_ERROR_NULL_POINTER. CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateDetectionConnectionClient(ICmDetectionConnector*& aConnector);

    // aSession (out): a session that forwards messages to many receivers, with one reference, null on failure. aSink is not
    // owned; after the last release and after Close it gets no call. CM_ERROR_INVALID_ARG: aSink is null.
    // CM_ERROR_NULL_POINTER. CM_ERROR_OUT_OF_MEMORY.
    CmResult CreateForwardSession(ICmForwardSink* aSink, ICmForwardSession*& aSession);

    // The same without a proxy, for the transports of the calling thread, which must be one of the library's.
    static CmResult CreateForwardSession_i(ICmForwardSink* aSink, ICmForwardSession*& aSession);

    // The same without a proxy. Only in the network thread, in which all upcalls come.
    CmResult CreateConnectionClient_i(CmDword aType, ICmConnector*& aConnector);
    CmResult CreateConnectionServer_i(CmDword aType, ICmAcceptor*& aAcceptor);

    // The same for types that name a protocol connection, and CM_ERROR_FAILURE for all others. aType (in and out) loses its
    // base type and all flags but that of the kind of connection. Also in the network thread only.
    static CmResult CreateCsConnectionClient(CmDword& aType, ICmConnector*& aConnector);
    static CmResult CreateCsConnectionServer(CmDword& aType, ICmAcceptor*& aAcceptor);

private:
    CCmConnectionManager() = default;
    ~CCmConnectionManager() override;
    void CleanUp() override;

    CmResult SpawnNetworkThread_i();

    ACmThread* m_pThreadNetwork = nullptr;  // owned if spawned here; null in the main-thread mode
};
