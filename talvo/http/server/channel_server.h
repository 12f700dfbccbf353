// An HTTP server: its acceptor, and the channel of each request and its answer.
#pragma once

#include "talvo/http/channel/channel.h"
#include "talvo/http/message/http_atom.h"
#include "talvo/http/message/http_request_head.h"

class ICmChannelHttpServer;
class ICmChannelServerAcceptor;

// Options of ICmChannelServerAcceptor; the argument points at the value. They apply to connections and requests that begin
// afterwards. Times are checked once a second, so a time-out comes up to a second late. A number is at least 1, a time at most
// 0x40000000 s, which is no limit: CM_ERROR_INVALID_ARG otherwise. They do not run while the thread is busy elsewhere.
// An https server also has CM_OPT_CONNECT_HANDSHAKE_TIME and CM_OPT_CONNECT_MAX_HANDSHAKES, from the next StartListen.
enum ECmChannelServerOption : CmDword {
    CM_OPT_CHANNEL_SERVER_MAX_CONNECTIONS = 331,  // CmDword (10,000): a connection beyond it is closed at once, unanswered
    CM_OPT_CHANNEL_SERVER_MAX_BODY = 332,         // uint64_t (64 MiB): a longer request body is answered with 413
    CM_OPT_CHANNEL_SERVER_MAX_LINE = 333,         // CmDword (64 KiB): a longer line of a head is answered with 431 or 414
    CM_OPT_CHANNEL_SERVER_MAX_LINES = 334,        // CmDword (256): more header lines are answered with 431
    CM_OPT_CHANNEL_SERVER_MAX_HEAD = 335,         // CmDword (256 KiB): likewise a longer head
    CM_OPT_CHANNEL_SERVER_HEAD_SECONDS = 336,     // CmDword (10): from a connection, or a head's first byte, to its last: 408
    // CmDword (60): between two requests; also for each KiB of a request's body, and for each progress of an answer that the
    // peer's system does not take.
    CM_OPT_CHANNEL_SERVER_IDLE_SECONDS = 337,
    CM_OPT_CHANNEL_SERVER_STOP_SECONDS = 338,  // CmDword (30): the time that StopListen gives to requests that have begun
    // CCmRefPtrT<CCmSslContext> (null): https with this context, which needs a certificate; null: http. Set it before
    // StartListen; CM_ERROR_ALREADY_INITIALIZED afterwards.
    CM_OPT_CHANNEL_SERVER_SSL_CONTEXT = 339,
    // ICmHttpRefusalSink* (null): gets the answers that the server itself makes. Not owned; it outlives the acceptor, or is
    // removed by null.
    CM_OPT_CHANNEL_SERVER_REFUSAL_SINK = 340
};

// Gets the refusals of an acceptor, for a log. CM_OPT_CHANNEL_SERVER_REFUSAL_SINK sets it.
class TALVO_API ICmHttpRefusalSink {
public:
    // The server has refused a request and ends the connection: 400, 408, 413, 414, 417, 431, 501, 503 or 505. aRequest: the
    // part of its head that was read, perhaps nothing; valid during the call. aBytes: the length of the answer's body. Called
    // in the acceptor's thread, after the request's OnDisconnect or OnRequestLost if one is due; it may do anything to the
    // acceptor. It does not come for the 500 to a request that the application has released.
    virtual void OnRefused(int aStatus, const CCmHttpRequestHead& aRequest, const CCmInetAddr& aPeer, CmDword aBytes) = 0;
    virtual ~ICmHttpRefusalSink();
};

// The upcalls of one request, in the acceptor's thread. Each of them may do anything to the channel: answer, disconnect,
// release.
class TALVO_API ICmChannelHttpServerSink : public ICmChannelSink {
public:
    // A piece of the request's body, without its transfer coding; valid during the call. No piece comes while
    // CM_OPT_TRANSPORT_PAUSE_READING of the channel is set.
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) override;

    // The whole request has been received, with or without a body. Comes once.
    virtual void OnRequestEnd(ICmChannelHttpServer* aChannel);

    // The client sends no more: it has closed, or half-closed and waits for the answer. Only an answer shows which. Comes once,
    // after OnRequestEnd and before the answer is complete. The request may still be answered; OnDisconnect follows if the
    // client has closed. Disconnect of the channel abandons the request.
    virtual void OnClientEnd(ICmChannelHttpServer* aChannel);

    // The answer can take data again, after a SendData that returned CM_ERROR_PARTIAL_DATA.
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) override;

    // The request can no longer be answered; the last call. CM_ERROR_NETWORK_SOCKET_ERROR: the peer has closed, or violates the
    // protocol. CM_ERROR_NETWORK_TLS_CUT: it has closed without close_notify. CM_ERROR_TIMEOUT: it is too slow.
    // CM_ERROR_NETWORK_SOCKET_CLOSE: the server has stopped. CM_ERROR_OUT_OF_MEMORY: memory ran out for received data. It does
    // not come when the answer is complete, nor after the sink's own Disconnect.
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override = 0;

    // Never comes: the channel is connected from the start.
    void OnConnect(CmResult aReason, ICmChannel* aChannel) override;
};

// One request and its answer. Belongs to the acceptor's thread.
//
// The request's head is complete from the start. Call ReceiveRequest, within OnRequest or later, to get its body. Until then
// the body is held back, and a client that sent "Expect: 100-continue" gets no 100 (Continue). An answer may be given at any
// time, also before the body's end: the rest of the body is then read and dropped.
//
// The answer is Answer, or BeginAnswer, SendData as often as there is data, EndAnswer. The server adds "Date", the framing
// ("Content-Length" or "Transfer-Encoding") and "Connection". It omits the body where HTTP forbids one: HEAD, 204, 205, 304.
// The server delivers a complete answer by itself: the channel may be released, and no upcall follows.
// Delivery takes time: before its threads end, an application calls CCmConnectionManager::Drain, or StopListen and waits for
// OnStopped. A shutdown without either cuts answers off.
//
// The end of the thread ends the connection, without an upcall. An operation that needs the connection then returns
// CM_ERROR_NOT_INITIALIZED.
//
// AsyncOpen, OpenWithSink and GetUrl are not for servers: CM_ERROR_NOT_IMPLEMENTED. Each operation may also return
// CM_ERROR_OUT_OF_MEMORY. An operation that sends a part of the answer has then closed the connection; any other has done
// nothing.
//
// If the application releases its last reference without an answer, the server answers with 500. If the answer has begun and is
// not complete, the connection ends.
class TALVO_API ICmChannelHttpServer : public ICmChannel {
public:
    static constexpr uint64_t UNKNOWN_LENGTH = ~uint64_t{0};  // of a body whose length no header gives

    // The request line and headers as received. Lives as long as the channel.
    virtual const CCmHttpRequestHead& GetRequest() const = 0;

    // Attaches the sink (not owned) and lets the body come: OnReceive, OnRequestEnd, never inside this call. A second call
    // replaces the sink. CM_ERROR_INVALID_ARG: aSink is null. CM_ERROR_NOT_AVAILABLE: the request is answered.
    // CM_ERROR_NOT_INITIALIZED: the connection has ended.
    virtual CmResult ReceiveRequest(ICmChannelHttpServerSink* aSink) = 0;

    // Status and headers of the answer; before it begins, else CM_ERROR_NOT_AVAILABLE. The default status is 200, the default
    // text the usual one. CM_ERROR_INVALID_ARG: a status below 200 or above 999; a text or value with CR, LF or NUL, which
    // could end a line; a header that the server sets itself ("Content-Length", "Transfer-Encoding", "Date"). aMerge as in
    // SetHeader of CCmHttpHeaderArray. "Connection: close" ends the connection after this answer.
    virtual CmResult SetStatus(long aStatus, const CCmString& aText = CCmString()) = 0;
    virtual CmResult SetHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, CmBool aMerge = CM_FALSE) = 0;

    // The whole answer, with a body or (null) without one. Takes the whole chain and keeps the part that the peer does not take
    // at once, sharing the storage. CM_ERROR_NOT_AVAILABLE: the answer is complete, or begun. CM_ERROR_NOT_INITIALIZED: the
    // connection has ended. CM_ERROR_OUT_OF_MEMORY: it has ended now.
    virtual CmResult Answer(CCmMessageBlock* aBody) = 0;
    // The same with status, "Content-Type" and body in one call; aBody is copied. Also CM_ERROR_INVALID_ARG.
    virtual CmResult AnswerText(long aStatus, const CCmString& aContentType, const CCmString& aBody) = 0;

    // Begins an answer with a body in pieces. aLength in bytes. With UNKNOWN_LENGTH the body is sent in chunks, or to an
    // HTTP/1.0 client until the connection's end. The head is sent with the first piece, or at the end of the upcall that makes
    // this call. Results as Answer.
    virtual CmResult BeginAnswer(uint64_t aLength = UNKNOWN_LENGTH) = 0;

    // The next piece; begins an answer of unknown length if none has begun. Takes as much as it can, like ICmTransport, but a
    // chunk as a whole. Small pieces from inside an upcall are sent together at its end. CM_ERROR_PARTIAL_DATA: OnSend follows,
    // if there is a sink. CM_ERROR_INVALID_ARG: more than the length; no data is taken. CM_ERROR_NOT_AVAILABLE: the answer is
    // complete. CM_ERROR_NOT_INITIALIZED: the connection has ended. If the answer has no body, the data is taken and dropped.
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override = 0;

    // Completes the answer. CM_OK, also after the last byte of a length, which completes it by itself. CM_ERROR_FAILURE: bytes
    // of the length are missing; the connection is ended. If no answer has begun, sends one without a body.
    virtual CmResult EndAnswer() = 0;

    // Abandons the request: no upcall follows. Unless the answer is complete, the connection is closed. CM_OK.
    CmResult Disconnect(CmResult aReason) override = 0;

    // CM_OPT_TRANSPORT_PAUSE_READING applies to the channel and holds the body back. Other options are the connection's.
    // CM_OPT_TRANSPORT_LOCAL_ADDR, _PEER_ADDR and _TRAN_TYPE are answered as long as the channel exists, in its last upcall
    // too. CM_ERROR_NOT_INITIALIZED: any other after the complete answer or the connection's end.
    CmResult SetOption(CmDword aCommand, void* aArg) override = 0;
    CmResult GetOption(CmDword aCommand, void* aArg) override = 0;
};

// Gets the requests of an acceptor.
class TALVO_API ICmChannelServerAcceptorSink {
public:
    // A request's head has come. The channel lives during the call: take a reference to answer later. This upcall may do
    // anything to the channel and to the acceptor.
    virtual void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor* aAcceptor) = 0;

    // A request that the application holds, without a call of ReceiveRequest, can no longer be answered. Once, with the reasons
    // and conditions of ICmChannelHttpServerSink::OnDisconnect, which comes instead if there is a sink.
    virtual void OnRequestLost(CmResult aReason, ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor* aAcceptor);

    // ICmChannelHttpServerSink::OnClientEnd for a request that the application holds, without a call of ReceiveRequest: its
    // client has sent all of it and sends no more. OnRequestLost follows if an answer does not reach the client. A body that is
    // not received hides the client's half-close while it is longer than 64 KiB.
    virtual void OnClientEnd(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor* aAcceptor);

    // StopListen is complete, or the stop of a drain: no connection is left. The acceptor may listen again. The last call of a
    // round.
    virtual void OnStopped(ICmChannelServerAcceptor* aAcceptor);

    virtual ~ICmChannelServerAcceptorSink();
};

// Serves HTTP/1.0 and HTTP/1.1 on one address. Belongs to the thread that makes it, which needs an event queue and a timer
// queue (the main thread, the network thread, a task thread with timers). All upcalls come in that thread. The last release
// and the end of the thread close everything at once, without an upcall.
//
// Connections are kept alive by RFC 9112. Pipelined requests are answered in order: the next one is read after the answer
// to the one before it is complete. The server itself answers an invalid request, and ends the connection: 400, 408, 413, 414,
// 417, 431, 501, 505.
class TALVO_API ICmChannelServerAcceptor : public ICmReferenceControl {
public:
    // CM_ERROR_INVALID_ARG: aSink is null. CM_ERROR_ALREADY_INITIALIZED: it listens, or its stop is not complete.
    // CM_ERROR_NULL_POINTER: the thread has no event queue or no timer queue, or there is no network thread.
    // CM_ERROR_NETWORK_SOCKET_ERROR: the address cannot be used. CM_ERROR_NOT_INITIALIZED: the TLS context has no certificate.
    // CM_ERROR_NOT_AVAILABLE: CCmConnectionManager::Drain runs. Port 0: the system chooses one; GetListenAddr returns it. aSink
    // is not owned.
    virtual CmResult StartListen(ICmChannelServerAcceptorSink* aSink, const CCmInetAddr& aAddrListen) = 0;

    // Ends gracefully: accepts no more connections and closes those without a whole head of a request. The others are closed
    // after their answer, or after CM_OPT_CHANNEL_SERVER_STOP_SECONDS (OnDisconnect with CM_ERROR_NETWORK_SOCKET_CLOSE). Then
    // OnStopped follows, never inside this call. CM_ERROR_NOT_INITIALIZED: it does not listen, or its thread has ended.
    //
    // CCmConnectionManager::Drain does the same with its own limit. It also abandons a request if its body is incomplete and
    // its answer has not begun, with the same OnDisconnect. It does not wait for clients to close.
    virtual CmResult StopListen(CmResult aReason) = 0;

    // aAddr (out): the bound address. CM_ERROR_NOT_INITIALIZED: it does not listen.
    virtual CmResult GetListenAddr(CCmInetAddr& aAddr) = 0;

    // See ECmChannelServerOption. CM_ERROR_INVALID_ARG: an unknown command, a null argument, or 0 for a time or a limit. Also
    // reads CM_OPT_CONNECT_FAILURE, a CCmFailure: the failure of the last StartListen.
    virtual CmResult SetOption(CmDword aCommand, void* aArg) = 0;
    virtual CmResult GetOption(CmDword aCommand, void* aArg) = 0;

    // The number of connections.
    virtual CmDword GetConnections() const = 0;
};
