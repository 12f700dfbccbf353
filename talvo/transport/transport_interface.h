// The interfaces of connected byte streams and datagram flows, and of their connectors and acceptors.
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

// Send priority; passed on unchanged to a layer that orders sends. TCP sends in the order of the calls.
enum ECmTransportPriority : CmDword {
    CM_TRANSPORT_PRIORITY_HIGH = 0,
    CM_TRANSPORT_PRIORITY_MEDIUM = 1,
    CM_TRANSPORT_PRIORITY_NORMAL = 2,
    CM_TRANSPORT_PRIORITY_LOW = 3
};

// Base types of a connection type, and the values of CM_OPT_TRANSPORT_TRAN_TYPE.
enum ECmTransportType : CmDword {
    CM_TRANSPORT_TYPE_TCP = 1,
    CM_TRANSPORT_TYPE_UDP = 2,
    CM_TRANSPORT_TYPE_TLS_1_2 = 4,
    CM_TRANSPORT_TYPE_TLS_1_3 = 8,
    CM_TRANSPORT_TYPE_TLS = 12,        // of the two versions the higher one that the peer has; the one to use
    CM_TRANSPORT_TYPE_PROXY = 0x8000,  // connectors only: TCP through the user's proxy. Its transports have the type 1
    // Connectors only: a race of CM_TRANSPORT_TYPE_TCP and, 250 ms later, CM_TRANSPORT_TYPE_PROXY to the same address. Options
    // go to both. At DIRECT the proxied one leaves the attempt to the other one.
    CM_TRANSPORT_TYPE_RACE = 0x8001
};

// Accompanies a send, and is returned with the sent data. Upcalls pass null unless a transport has parameters to report.
struct CCmTransportParameter {
    // aPriority: see above.
    explicit CCmTransportParameter(ECmTransportPriority aPriority = CM_TRANSPORT_PRIORITY_NORMAL) : m_Priority(aPriority) {}

    CmDword m_dwHaveSent = 0;         // (out) of SendData: the bytes that this call took
    ECmTransportPriority m_Priority;  // see above
};

// Commands of ICmTransport::GetOption and SetOption; the argument points at the value. 102 and 111 are reserved. A thread proxy
// waits for the network thread at options with [waits], and returns CM_ERROR_NULL_POINTER if the transport has ended. It
// answers the others at once. The addresses, the type and the last failure are also available inside the last upcall and until
// the release.
enum ECmTransportOption : CmDword {
    CM_OPT_TRANSPORT_FIO_NREAD = 101,  // [waits] get CmDword: bytes that can be read now
    CM_OPT_TRANSPORT_FD = 103,  // [waits] get CmHandle; set CmHandle: only CM_INVALID_HANDLE, which takes the socket out of
                                // the reactor and detaches it: closing the transport no longer closes it;
                                // CM_ERROR_NOT_AVAILABLE: the transport holds bytes of the connection
    CM_OPT_TRANSPORT_LOCAL_ADDR = 104,  // get CCmInetAddr; a proxy's also after the end
    CM_OPT_TRANSPORT_PEER_ADDR = 105,   // get CCmInetAddr; also after the end
    CM_OPT_TRANSPORT_SOCK_ALIVE = 106,  // [waits] get CmBool: FALSE: the close of the peer was seen; over TLS
                                        // also while records before it are unread;
                                        // CM_ERROR_NOT_INITIALIZED (and FALSE) on a closed transport
    CM_OPT_TRANSPORT_TRAN_TYPE = 107,   // get CmDword: 1 TCP, 2 UDP, or another base type; a thread proxy adds 0x20000 or else
                                        // 0x10000 if the type that it was made with has that bit
    CM_OPT_TRANSPORT_KEEPALIVE = 108,   // [waits] set CmDword: more than 0 enables TCP keep-alive, 0 disables it
    CM_OPT_TRANSPORT_SNDBUF = 109,      // [waits] get, set int: the socket's send buffer in bytes. The system doubles the set
                                        // value, and then no longer grows the buffer of a TCP socket itself
    CM_OPT_TRANSPORT_RCVBUF = 110,      // [waits] get, set int: the socket's receive buffer in bytes; likewise
    CM_OPT_TRANSPORT_INNER_TRANSPORT = 112,  // [waits] get ICmTransport*, no reference added: thread proxies only, the
                                             // transport in the network thread, to be used there only
    CM_OPT_TRANSPORT_TOS = 113,              // [waits] set CmDword: the IP type-of-service byte, or IPv6 traffic class; not on
                                             // Unix sockets
    CM_OPT_TRANSPORT_PAUSE_READING = 141,  // get, set CmBool: no OnReceive and no report of an orderly close by the peer until
                                           // it is FALSE again; no data is lost. A failure is still reported, and
                                           // unread data is then lost. A thread proxy keeps both until then
    CM_OPT_TRANSPORT_PROXY_SEND_LIMIT = 142,  // get, set CmDword: thread proxies only, see CCmTransportThreadProxy
    CM_OPT_TRANSPORT_PROXY_RECV_LIMIT = 143,  // get, set CmDword: thread proxies only
    // [waits] get CmDword: bytes taken that the peer's system has not acknowledged; 0 over UDP, and over Unix sockets, where it
    // has them at once. A protocol connection adds the bytes that it has not sent yet to the value of its own transport.
    CM_OPT_TRANSPORT_UNACKNOWLEDGED = 144,
    // [waits] get CmDword: protocol connections only, the longest message that one SendData can take now.
    CM_OPT_TRANSPORT_MAX_MESSAGE = 145,
    // [waits] set CmBool: protocol connections only. TRUE: SendData gathers; FALSE: sends the gathered data with few system
    // calls. Any upcall may come inside, OnDisconnect included.
    CM_OPT_TRANSPORT_CORK = 146,
    // set CmBool TRUE: half-close. The peer gets the end after all data taken, and reception continues. A SendData afterwards
    // is CM_ERROR_NETWORK_SOCKET_ERROR, and no OnDisconnect follows. A second TRUE is CM_OK and has no effect; FALSE is
    // CM_ERROR_INVALID_ARG. Raw TCP only.
    CM_OPT_TRANSPORT_END_SENDING = 147,
    // set CmBool TRUE: the peer's half-close is one OnReceive with an empty block, after all data; the transport stays open and
    // can send. A hang-up or failure is still OnDisconnect. Raw TCP only; a half-close that came before
    // it is OnDisconnect, so set it before OpenWithSink.
    CM_OPT_TRANSPORT_TELL_END = 148,
    // [waits] get, set CmDword: the most bytes of one read, and so of one OnReceive of a raw transport; 4,096 to 1,048,576. TCP
    // starts with the key "ReadSize" (16,384). Proxies, protocol connections and HTTP set 65,536.
    CM_OPT_TRANSPORT_READ_SIZE = 149,
    // set CmBool TRUE: a layer above, a protocol connection or a thread proxy, ends this transport gracefully, so
    // CCmConnectionManager::Drain does not. Set it before OpenWithSink.
    CM_OPT_TRANSPORT_LAYERED = 160,
    // [waits] get ucred (<sys/socket.h>): process, user and group of the peer of a Unix socket when it connected or listened,
    // as SO_PEERCRED. CM_ERROR_INVALID_ARG: not a Unix socket.
    CM_OPT_TRANSPORT_PEER_CREDENTIALS = 158,
    // get CCmSslInfo: TLS only, the properties of the session.
    CM_OPT_TRANSPORT_SSL_INFO = 151,
    // get CCmString: TLS only, the peer's certificate (DER). CM_ERROR_NOT_FOUND: it has sent none.
    CM_OPT_TRANSPORT_SSL_PEER_CERTIFICATE = 152,
    // [waits] get CCmString: TCP and TLS, the proxy server of the connection, "http://host:3128", without credentials;
    // "direct://" without one. CM_OPT_TRANSPORT_PEER_ADDR is then the address of the server.
    CM_OPT_TRANSPORT_ROUTE = 153,
    // get CCmFailure: the failure that ended the connection. CM_FAILURE_NONE: it runs, the peer ended it gracefully, or after
    // Disconnect. Inside and after OnDisconnect, in the thread of the upcalls; a thread proxy answers without waiting.
    CM_OPT_TRANSPORT_LAST_FAILURE = 159
};

// Commands of ICmConnectOptions. Three of ECmTransportOption are also valid: CM_OPT_TRANSPORT_SNDBUF and _RCVBUF (get, set int)
// and CM_OPT_TRANSPORT_READ_SIZE (get, set CmDword; not over datagrams). They apply to the sockets that the next AsycConnect or
// StartListen opens, instead of the configuration's keys; 0, the default: the keys apply. A receive buffer is set before the
// connect, because it then limits the window that the peer can get. A protocol's connector or acceptor passes all commands but
// 165 to the one below. A thread proxy copies the value at once, and passes it on when the next attempt or StartListen begins;
// if the object behind it refuses the value, that one fails with the refusal's result.
//
// "TLS only": CM_ERROR_INVALID_ARG on types 1 and 2. Each value applies from the next AsycConnect or StartListen.
enum ECmConnectOption : CmDword {
    // get, set CCmRefPtrT<CCmSslContext>: TLS only. Null, the default: a client uses CCmSslContext::GetDefault(), and
    // StartListen fails.
    CM_OPT_CONNECT_SSL_CONTEXT = 161,
    // get, set CCmString: connectors of TLS only. The name that the server's certificate must have, also sent to it. "", the
    // default: the given name of the address, or else the address; a path then has none, and the attempt fails with
    // CM_ERROR_INVALID_ARG. CM_ERROR_INVALID_ARG: more than 255 bytes, a NUL, "*", or a dot at the front.
    CM_OPT_CONNECT_SERVER_NAME = 162,
    // get, set CCmProxyRoute: connectors of the types 1, 4, 8, 12 and 0x8000. The proxy servers to use, in this order, without
    // any rule of the user's settings. Empty, the default: CM_OPT_CONNECT_PROXY decides. A path is connected directly.
    CM_OPT_CONNECT_ROUTE = 163,
    // get, set CmDword: likewise, an ECmConnectProxy for attempts without a route.
    CM_OPT_CONNECT_PROXY = 164,
    // get CCmFailure: the failure of a connector's last attempt, inside its indication and until the next AsycConnect; the
    // failure of an acceptor's last StartListen. CM_FAILURE_NONE: no failure. A thread proxy answers without waiting.
    CM_OPT_CONNECT_FAILURE = 165,
    // get, set CmDword: TLS only, the milliseconds that a handshake may take. 0, the default: 10,000; a connector whose
    // AsycConnect has a time-out then has only that one.
    CM_OPT_CONNECT_HANDSHAKE_TIME = 166,
    // get, set CmDword: acceptors of TLS only, the most handshakes at the same time. 0, the default: 1,024. Beyond it a further
    // peer replaces the one that has been silent longest, if that is a second or more; otherwise peers wait in the backlog.
    CM_OPT_CONNECT_MAX_HANDSHAKES = 167,
    // get, set CCmString: TLS only. The protocols of the connections, as for CCmSslContext::SetAlpn and instead of the
    // context's; "", the default: the context's.
    CM_OPT_CONNECT_ALPN = 168
};

// Values of CM_OPT_CONNECT_PROXY.
enum ECmConnectProxy : CmDword {
    CM_CONNECT_PROXY_DEFAULT = 0,    // DISCOVERED for type 0x8000, NEVER for all others
    CM_CONNECT_PROXY_NEVER = 1,      // directly
    CM_CONNECT_PROXY_DISCOVERED = 2  // the route of the process's proxy source, see ICmProxySource; without one directly
};

// The user of a transport implements it. All calls come in the transport's thread; a thread proxy's in the thread that made it.
// Inside any call the sink may send, set options, disconnect and release the transport.
class TALVO_API ICmTransportSink {
public:
    // A chunk of bytes, or one datagram or message. aData is valid during the call: duplicate it to keep it.
    virtual void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) = 0;

    // A send has returned CM_ERROR_PARTIAL_DATA; now the transport can take data again. One call for any number of such sends.
    // A protocol connection also calls it without such a send.
    virtual void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) = 0;

    // The last call: the peer has closed or the connection has failed. Both are CM_ERROR_NETWORK_SOCKET_ERROR on a socket's
    // transport. A thread proxy adds CM_ERROR_NETWORK_SOCKET_CLOSE when the network thread ends. Afterwards the transport may
    // only be released.
    virtual void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) = 0;

    virtual ~ICmTransportSink();
};

// A connected byte stream or datagram flow. Acceptors and connectors make it, and pass it to their sink unopened. After the end
// of its thread a transport without a proxy gets no upcalls. Its operations may still be called; OpenWithSink fails.
class TALVO_API ICmTransport : public ICmReferenceControl {
public:
    // Attaches the sink (not owned) and starts reception; no data is delivered before. On an open transport it replaces the
    // sink. CM_ERROR_INVALID_ARG: aSink is null. On any other failure the transport is closed and has no sink; a thread proxy
    // returns at once and reports a later failure with OnDisconnect. A protocol connection without a sink loses received data:
    // open it inside OnConnectIndication. A thread proxy keeps the data, see CCmTransportThreadProxy.
    virtual CmResult OpenWithSink(ICmTransportSink* aSink) = 0;
    virtual ICmTransportSink* GetSink() = 0;  // the attached sink, or null

    // Takes and consumes as much of the chain as it can: another transport needs a duplicate, see cm_send_shared. aPara (out):
    // the count. CM_OK: all was taken; also for an empty chain. CM_ERROR_PARTIAL_DATA: the rest, perhaps all of it, stays in
    // aData. The caller keeps it and sends it again after the OnSend that follows. CM_ERROR_NOT_INITIALIZED: the transport is
    // closed; CM_ERROR_NULL_POINTER: a thread proxy's transport is closed, and its OnDisconnect may still follow.
    // CM_ERROR_NETWORK_SOCKET_ERROR: the connection is broken, and OnDisconnect comes from the loop; or
    // CM_OPT_TRANSPORT_END_SENDING was set, and no OnDisconnect comes. CM_ERROR_INVALID_ARG: a datagram or message is too long,
    // or a chain has 4 GiB or more. CM_ERROR_NOT_AVAILABLE: a protocol connection is not connected, or the network thread of a
    // proxy has ended. CM_ERROR_OUT_OF_MEMORY: nothing was taken, and no OnSend follows; a protocol connection has ended with
    // OnDisconnect.
    virtual CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) = 0;

    // See ECmTransportOption. CM_ERROR_INVALID_ARG: an unknown command, or a null argument. CM_ERROR_NETWORK_SOCKET_ERROR: the
    // system refuses. CM_ERROR_NULL_POINTER: the transport of a thread proxy has ended. CM_ERROR_NOT_INITIALIZED: the option
    // needs the transport's thread, which has ended.
    virtual CmResult SetOption(CmDword aCommand, void* aArg) = 0;
    virtual CmResult GetOption(CmDword aCommand, void* aArg) = 0;

    // Closes and detaches the sink: no upcall follows. With CM_OK the peer gets an orderly end. The caller still releases.
    virtual CmResult Disconnect(CmResult aReason) = 0;
};

// The common part of acceptors and connectors: the identity in OnConnectIndication.
class TALVO_API ICmAcceptorConnectorId : public ICmReferenceControl {
public:
    // FALSE: it is an acceptor.
    virtual CmBool IsConnector() = 0;
};

// Gets the connections of acceptors and connectors.
class TALVO_API ICmAcceptorConnectorSink {
public:
    // CM_OK: aTrpt is a new, unopened transport. It lives during the call: take a reference to keep it, call OpenWithSink to
    // use it; otherwise it is closed afterwards. Any other reason: aTrpt is null. aRequestId is the acceptor or connector,
    // which this call may release or use again.
    virtual void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) = 0;
    virtual ~ICmAcceptorConnectorSink();
};

// The options of connectors and acceptors, in the thread that uses them; see cm_get_connect_options.
class TALVO_API ICmConnectOptions {
public:
    // See ECmConnectOption. CM_ERROR_INVALID_ARG: an unknown command, a read-only one, an invalid value, or a null argument.
    virtual CmResult SetOption(CmDword aCommand, void* aArg) = 0;
    virtual CmResult GetOption(CmDword aCommand, void* aArg) = 0;

protected:
    virtual ~ICmConnectOptions();
};

// The options of a connector or acceptor; null for null, and for an application's class without options. They live as long as
// the object.
TALVO_API ICmConnectOptions* cm_get_connect_options(ICmAcceptorConnectorId* aId);

// Opens one connection at a time.
class TALVO_API ICmConnector : public ICmAcceptorConnectorId {
public:
    // Starts an attempt. Exactly one OnConnectIndication follows, after the return, unless CancelConnect comes first. Reasons:
    // CM_ERROR_NETWORK_CONNECT_TIMEOUT (20005): the attempt failed at once; CM_ERROR_NETWORK_CONNECT_ERROR (20006): it failed
    // later or aTimeout passed (despite the names of these two; CM_OPT_CONNECT_FAILURE has the cause);
    // CM_ERROR_NETWORK_DNS_FAILURE: a name that cannot be resolved; CM_ERROR_NETWORK_TLS_CERTIFICATE (20102): the server's
    // certificate is refused; CM_ERROR_NETWORK_TLS_HANDSHAKE (20101): TLS failed otherwise, also by an end of the connection;
    // CM_ERROR_NOT_AVAILABLE: CCmConnectionManager::Drain ends the attempt, or the network thread ends. After 20101 and 20102
    // no further address of a name is tried: a server has answered. aTimeout covers everything; null: the system's limit, none
    // at a path, and 10 s for handshakes. aAddrLocal: the address to connect from, of the peer's family; null: any. A path as
    // aAddrLocal is not removed at the end. At a path whose listener has no room the attempt waits for room. The arguments are
    // copied. While an attempt runs, without a sink, or after the end of the network thread, the call is refused: it is traced
    // and has no other effect.
    virtual void AsycConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                             CCmInetAddr* aAddrLocal = nullptr) = 0;
    // The same under its right spelling, not to be overridden.
    void AsyncConnect(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrPeer, CCmTimeValue* aTimeout = nullptr,
                      CCmInetAddr* aAddrLocal = nullptr) {
        AsycConnect(aSink, aAddrPeer, aTimeout, aAddrLocal);
    }

    // Abandons the attempt; no indication follows.
    virtual void CancelConnect() = 0;
};

// Races several connections: the first one to be connected wins, and is the only one indicated, with this connector as its id.
// Of two in one turn of the loop the one added first wins, except that a protocol connection wins at once. The others are
// cancelled, or closed, before the indication. Made by CCmConnectionManager::CreateDetectionConnectionClient.
//
// Each connection has an option value of its own: ICmConnectOptions sets and gets those of the connection added last. Before
// the first AddConnection it sets the values of all connections that have the option.
class TALVO_API ICmDetectionConnector : public ICmConnector {
public:
    // aType: of a client, with flags of a protocol; its thread flags have no effect. The connection starts aDelay after the one
    // before, at least 10 ms; null: 250 ms. The first one starts aDelay after the race; null: at once. If all connections that
    // have started have failed, the next one starts at once. The connections stay for later races. CM_ERROR_NOT_AVAILABLE: a
    // race runs, or there are 16. CM_ERROR_INVALID_ARG: type 0x8001. Otherwise the results of
    // CCmConnectionManager::CreateConnectionClient for the type.
    virtual CmResult AddConnection(CmDword aType, const CCmInetAddr& aAddrPeer, CCmTimeValue* aDelay = nullptr) = 0;

    // Starts a race, as AsycConnect starts an attempt, to the addresses of AddConnection. AsycConnect starts the same race to
    // its own address. aTimeout covers the race. If all connections have failed, the reason and CM_OPT_CONNECT_FAILURE are
    // those of the one added first, and the trace has a line for each. CM_ERROR_NETWORK_CONNECT_TIMEOUT: there is no
    // connection.
    virtual void StartDetectionConnect(ICmAcceptorConnectorSink* aSink, CCmTimeValue* aTimeout = nullptr) = 0;
};

// Listens, and passes every connection to its sink.
class TALVO_API ICmAcceptor : public ICmAcceptorConnectorId {
public:
    // OnConnectIndication follows for every connection. CM_ERROR_ALREADY_INITIALIZED: it listens. CM_ERROR_INVALID_ARG: aSink
    // is null. CM_ERROR_NETWORK_SOCKET_ERROR: the address cannot be bound or listened on; CM_OPT_CONNECT_FAILURE has the cause.
    // CM_ERROR_NOT_INITIALIZED: there is no network thread, or it has ended; or an acceptor of TLS has no context, or its
    // context no certificate. CM_ERROR_NOT_AVAILABLE: CCmConnectionManager::Drain runs. It stops all acceptors as StopListen
    // does: they may listen again afterwards. The call may be repeated after any failure. Port 0: the system chooses one;
    // GetListenAddr returns it.
    // "::": peers of IPv4, too, which have IPv4 addresses. A path (not for datagrams): its file gets the mode of key "UnixMode"
    // in section "Transport" and is removed by StopListen. A socket that no process listens on is replaced; any other file at
    // the path is a failure.
    virtual CmResult StartListen(ICmAcceptorConnectorSink* aSink, const CCmInetAddr& aAddrListen) = 0;

    // No indication follows. Earlier connections stay. aReason is for the trace and for overriding classes. CM_OK.
    virtual CmResult StopListen(CmResult aReason) = 0;

    // aAddr (out): the bound address. CM_ERROR_NOT_INITIALIZED: it does not listen. CM_ERROR_NOT_IMPLEMENTED unless overridden.
    virtual CmResult GetListenAddr(CCmInetAddr& aAddr);
};
