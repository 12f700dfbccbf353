// The interfaces through which connected byte streams and datagram flows are opened and used, however they are made.
#pragma once

#include "talvo/base/failure.h"
#include "talvo/base/inet_addr.h"
#include "talvo/base/message_block.h"
#include "talvo/base/reference_control.h"
#include "talvo/base/result.h"
#include "talvo/base/time_value.h"
#include "talvo/base/types.h"

class ICmAcceptorConnectorId;
class ICmTransport;

// Send priority; passed through unchanged to whoever orders sends. TCP sends in the order of the calls.
enum ECmTransportPriority : DWORD {
    CM_TRANSPORT_PRIORITY_HIGH = 0,
    CM_TRANSPORT_PRIORITY_MEDIUM = 1,
    CM_TRANSPORT_PRIORITY_NORMAL = 2,
    CM_TRANSPORT_PRIORITY_LOW = 3
};

// Base types of a connection type, and the answers to CM_OPT_TRANSPORT_TRAN_TYPE.
enum ECmTransportType : DWORD { CM_TRANSPORT_TYPE_TCP = 1, CM_TRANSPORT_TYPE_UDP = 2 };

// Goes with a send, and comes back with what was sent. Upcalls carry null unless a transport has something to say.
struct CCmTransportParameter {
    explicit CCmTransportParameter(ECmTransportPriority aPriority = CM_TRANSPORT_PRIORITY_NORMAL) : m_Priority(aPriority) {}

    DWORD m_dwHaveSent = 0;  // set by SendData: how many bytes this call took
    ECmTransportPriority m_Priority;
};

// Commands of ICmTransport::GetOption and SetOption; the argument points at the value. 102 and 111 are reserved.
// A thread proxy waits for the network thread where [waits] stands, and returns CM_ERROR_NULL_POINTER when the transport is
// gone. It answers the others at once; the addresses, the type and the last failure also inside the last upcall and until the
// release.
enum ECmTransportOption : DWORD {
    CM_OPT_TRANSPORT_FIO_NREAD = 101,   // [waits] get DWORD: bytes that can be read now
    CM_OPT_TRANSPORT_FD = 103,          // [waits] get HANDLE; set HANDLE: only CM_INVALID_HANDLE, which takes the socket out of
                                        // the reactor and detaches it: closing the transport no longer closes it
    CM_OPT_TRANSPORT_LOCAL_ADDR = 104,  // get CCmInetAddr; a proxy's also after the end
    CM_OPT_TRANSPORT_PEER_ADDR = 105,   // get CCmInetAddr; also after the end
    CM_OPT_TRANSPORT_SOCK_ALIVE = 106,  // [waits] get BOOL: the peer has not closed, as far as is known;
                                        // CM_ERROR_NOT_INITIALIZED (and FALSE) on a closed transport
    CM_OPT_TRANSPORT_TRAN_TYPE = 107,   // get DWORD: 1 TCP, 2 UDP; a thread proxy adds 0x20000 or else 0x10000 when it was
                                        // made with a type that has that bit
    CM_OPT_TRANSPORT_KEEPALIVE = 108,   // [waits] set DWORD: TCP keep-alive is switched on by more than 0, off by 0
    CM_OPT_TRANSPORT_SNDBUF = 109,      // [waits] get, set int: the socket's send buffer in bytes. The system doubles what is
                                        // set, and no longer makes the buffer of a TCP socket grow by itself then
    CM_OPT_TRANSPORT_RCVBUF = 110,      // [waits] get, set int: the socket's receive buffer in bytes; likewise
    CM_OPT_TRANSPORT_INNER_TRANSPORT = 112,  // [waits] get ICmTransport*, no reference added: thread proxies only, the
                                             // transport in the network thread, to be used there only
    CM_OPT_TRANSPORT_TOS = 113,              // [waits] set DWORD: the IP type-of-service byte
    CM_OPT_TRANSPORT_PAUSE_READING = 141,  // get, set BOOL: no OnReceive and no notice of an orderly close by the peer until it
                                           // is FALSE again; nothing is lost. A connection that fails is told all the same
    CM_OPT_TRANSPORT_PROXY_SEND_LIMIT = 142,  // get, set DWORD: thread proxies only, see CCmTransportThreadProxy
    CM_OPT_TRANSPORT_PROXY_RECV_LIMIT = 143,  // get, set DWORD: thread proxies only
    // [waits] get DWORD: bytes taken that the peer's system has not acknowledged; 0 over UDP. On a protocol connection what it
    // has not sent yet besides what its own transport answers.
    CM_OPT_TRANSPORT_UNACKNOWLEDGED = 144,
    // [waits] get DWORD: protocol connections only, the longest message that one SendData can take now.
    CM_OPT_TRANSPORT_MAX_MESSAGE = 145,
    // [waits] set BOOL: protocol connections only. While TRUE SendData gathers, FALSE sends that with few system calls; any
    // upcall may come inside, OnDisconnect included.
    CM_OPT_TRANSPORT_CORK = 146,
    // set BOOL TRUE: nothing more is sent; the peer sees the end behind what was taken, and receiving goes on. A SendData
    // afterwards is CM_ERROR_NETWORK_SOCKET_ERROR, with no OnDisconnect to follow. Raw TCP alone.
    CM_OPT_TRANSPORT_END_SENDING = 147,
    // set BOOL TRUE: the peer's orderly end is one OnReceive with an empty block, behind all data; the transport stays open and
    // can send. A hang-up or failure is OnDisconnect as ever. Raw TCP alone; set it before OpenWithSink.
    CM_OPT_TRANSPORT_TELL_END = 148,
    // [waits] get, set DWORD: the most bytes that one read brings, so that one OnReceive of a raw transport does; 4,096 to
    // 1,048,576. TCP starts with the key "ReadSize" (16,384). Proxies, protocol connections and HTTP ask for 65,536.
    CM_OPT_TRANSPORT_READ_SIZE = 149,
    // set BOOL TRUE: a layer above, a protocol connection or a thread proxy, brings this transport to its orderly end, and
    // CCmConnectionManager::Drain leaves that to it. Set it before OpenWithSink.
    CM_OPT_TRANSPORT_LAYERED = 150,
    // get CCmFailure: what ended the connection; CM_FAILURE_NONE while it runs, behind an orderly end of the peer's and after
    // Disconnect. Inside and after OnDisconnect, in the thread of the upcalls; a thread proxy answers without waiting.
    CM_OPT_TRANSPORT_LAST_FAILURE = 159
};

// Commands of ICmConnectOptions. Three of ECmTransportOption are such commands, too: CM_OPT_TRANSPORT_SNDBUF and _RCVBUF (get,
// set int) and CM_OPT_TRANSPORT_READ_SIZE (get, set DWORD; not over datagrams). They are for the sockets that the next
// AsycConnect or StartListen opens, in the place of the configuration's keys; 0, as at first: the keys count. A receive buffer
// is set before the connect then, where it still decides what window the peer may be granted. A protocol's connector or
// acceptor passes all commands but 165 on to the one below. A thread proxy copies the value at once; what the object behind it
// refuses fails the next attempt or StartListen with that result.
enum ECmConnectOption : DWORD {
    // get CCmFailure: why the last attempt of a connector failed, inside its indication and until the next AsycConnect; why the
    // last StartListen of an acceptor did. CM_FAILURE_NONE: it did not. A thread proxy answers without waiting.
    CM_OPT_CONNECT_FAILURE = 165
};

// Implemented by the user of a transport. All calls come in the transport's thread: a thread proxy's in the thread that made
// it. Inside any of them the sink may send, set options, disconnect and release the transport.
class TALVO_API ICmTransportSink {
public:
    // A chunk of bytes, or one datagram or message. aData is valid during the call: duplicate what you keep.
    virtual void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) = 0;

    // A send has returned CM_ERROR_PARTIAL_DATA before; now the transport can take data again. One call for any number of them.
    virtual void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) = 0;

    // The peer has closed or the connection has failed (CM_ERROR_NETWORK_SOCKET_ERROR both, on a socket's transport; a thread
    // proxy adds CM_ERROR_NETWORK_SOCKET_CLOSE when the network thread ends); the last call. The transport is dead and may only
    // be released.
    virtual void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) = 0;

    virtual ~ICmTransportSink();
};

// A connected byte stream or datagram flow. Made by acceptors and connectors, handed to their sink unopened.
class TALVO_API ICmTransport : public ICmReferenceControl {
public:
    // Attaches the sink (not owned) and starts reception; nothing is delivered before. On an open transport it replaces the
    // sink. CM_ERROR_INVALID_ARG: aSink is null. On any other failure the transport is closed and has no sink; a thread proxy
    // returns at once and tells a later failure with OnDisconnect. What a protocol connection receives without a sink is lost:
    // open it inside OnConnectIndication. A thread proxy keeps it, see CCmTransportThreadProxy.
    virtual CmResult OpenWithSink(ICmTransportSink* aSink) = 0;
    virtual ICmTransportSink* GetSink() = 0;

    // Takes what it can of the chain and consumes that: another transport needs a duplicate, see cm_send_shared. aPara: the
    // count. CM_OK: all was taken; also for an empty chain. CM_ERROR_PARTIAL_DATA: the rest, perhaps all of it, stays in aData,
    // which the caller keeps and sends again after the OnSend that follows. CM_ERROR_NOT_INITIALIZED: the transport is closed;
    // CM_ERROR_NULL_POINTER: so is a thread proxy's, perhaps before its OnDisconnect has arrived, which follows then.
    // CM_ERROR_NETWORK_SOCKET_ERROR: the connection is broken, and OnDisconnect comes from the loop; or CM_OPT_TRANSPORT_
    // END_SENDING was set, and it does not.
    virtual CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) = 0;

    // See ECmTransportOption. CM_ERROR_INVALID_ARG: an unknown command, or a null argument. CM_ERROR_NETWORK_SOCKET_ERROR: the
    // system refuses. CM_ERROR_NULL_POINTER: a thread proxy whose transport is gone.
    virtual CmResult SetOption(DWORD aCommand, void* aArg) = 0;
    virtual CmResult GetOption(DWORD aCommand, void* aArg) = 0;

    // Closes and forgets the sink: no upcall follows. With CM_OK the peer sees an orderly end. The caller still releases.
    virtual CmResult Disconnect(CmResult aReason) = 0;
};

// What acceptors and connectors have in common: the identity that OnConnectIndication names.
class TALVO_API ICmAcceptorConnectorId : public ICmReferenceControl {
public:
    virtual BOOL IsConnector() = 0;
};

class TALVO_API ICmAcceptorConnectorSink {
public:
    // CM_OK: aTrpt is a new, unopened transport. It lives during the call: take a reference to keep it, call OpenWithSink to
    // use it; what is not kept is closed afterwards. Any other reason: aTrpt is null. aRequestId is the acceptor or connector,
    // which may be released or used again inside.
    virtual void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) = 0;
    virtual ~ICmAcceptorConnectorSink();
};

// What can be asked of connectors and acceptors besides, in the thread that uses them; see cm_get_connect_options.
class TALVO_API ICmConnectOptions {
public:
    // See ECmConnectOption. CM_ERROR_INVALID_ARG: an unknown command, one that cannot be set, a value that it cannot have, or a
    // null argument.
    virtual CmResult SetOption(DWORD aCommand, void* aArg) = 0;
    virtual CmResult GetOption(DWORD aCommand, void* aArg) = 0;

protected:
    virtual ~ICmConnectOptions();
};

// The options of a connector or acceptor; null for null, and for a class of the application's that has none. They live as long
// as the object.
TALVO_API ICmConnectOptions* cm_get_connect_options(ICmAcceptorConnectorId* aId);

// Opens one connection at a time.
class TALVO_API ICmConnector : public ICmAcceptorConnectorId {
public:
    // Starts an attempt; exactly one OnConnectIndication follows, after this has returned, unless CancelConnect comes first.
    // Reasons: CM_ERROR_NETWORK_CONNECT_TIMEOUT (20005) when the attempt failed at once; CM_ERROR_NETWORK_CONNECT_ERROR (20006)
    // when it failed later or aTimeout passed (the names of these two notwithstanding; CM_OPT_CONNECT_FAILURE tells the cause);
    // CM_ERROR_NETWORK_DNS_FAILURE for a name that cannot be resolved; CM_ERROR_NOT_AVAILABLE when CCmConnectionManager::Drain
    // ends the attempt, or the network thread ends. aTimeout null: as long as the system tries. aAddrLocal: the address to
    // connect from; null: any. The arguments are copied. While an attempt runs, or without a sink, the call is
    // refused: it is traced and nothing else happens.
    virtual void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                             CCmInetAddr* aAddrLocal = nullptr) = 0;

    // Gives the attempt up; no indication follows.
    virtual void CancelConnect() = 0;
};

// Races several connectors, each started aDelay after the one before it was. Nothing offers it yet.
class TALVO_API ICmDetectionConnector : public ICmConnector {
public:
    virtual CmResult AddConnection(DWORD aType, const CCmInetAddr& aAddrPeer, CCmTimeValue* aDelay = nullptr) = 0;
    virtual void StartDetectionConnect(ICmAcceptorConnectorSink* aSink, CCmTimeValue* aTimeout = nullptr) = 0;
};

// Listens, and hands every connection up.
class TALVO_API ICmAcceptor : public ICmAcceptorConnectorId {
public:
    // OnConnectIndication follows for every connection. CM_ERROR_ALREADY_INITIALIZED: it listens. CM_ERROR_INVALID_ARG: aSink
    // is null. CM_ERROR_NETWORK_SOCKET_ERROR: the address cannot be bound or listened on; CM_OPT_CONNECT_FAILURE says why.
    // CM_ERROR_NOT_AVAILABLE: CCmConnectionManager::Drain runs, which stops all acceptors as StopListen does: they may listen
    // again when it is over. After any failure it may be tried again. Port 0 lets the system choose: GetListenAddr tells.
    virtual CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) = 0;

    // No indication follows. Connections that were handed up stay. aReason is for the trace and for those who override. CM_OK.
    virtual CmResult StopListen(CmResult aReason) = 0;

    // The address it listens on. CM_ERROR_NOT_INITIALIZED: it does not. CM_ERROR_NOT_IMPLEMENTED unless overridden.
    virtual CmResult GetListenAddr(CCmInetAddr& aAddr);
};
