// An HTTP server: what listens, and the channel that each request and its answer go through.
#pragma once

#include "talvo/http/channel/channel.h"
#include "talvo/http/message/http_atom.h"
#include "talvo/http/message/http_request_head.h"

class ICmChannelHttpServer;
class ICmChannelServerAcceptor;

// Options of ICmChannelServerAcceptor; the argument points at the value. They count for what begins afterwards. Times are
// looked at once a second and end up to a second late; while the thread is busy elsewhere they stand still.
enum ECmChannelServerOption : DWORD {
    CM_OPT_CHANNEL_SERVER_MAX_CONNECTIONS = 331,  // DWORD (10,000): a connection beyond it is closed at once, unanswered
    CM_OPT_CHANNEL_SERVER_MAX_BODY = 332,         // uint64_t (64 MiB): a longer request body is answered with 413
    CM_OPT_CHANNEL_SERVER_MAX_LINE = 333,         // DWORD (64 KiB): a longer line of a head is answered with 431 or 414
    CM_OPT_CHANNEL_SERVER_MAX_LINES = 334,        // DWORD (256): more header lines are answered with 431
    CM_OPT_CHANNEL_SERVER_MAX_HEAD = 335,         // DWORD (256 KiB): likewise a longer head
    CM_OPT_CHANNEL_SERVER_HEAD_SECONDS = 336,     // DWORD (10): from a connection, or a head's first byte, to its last: 408
    // DWORD (60): between two requests; and for each KiB of a request's body and each progress of an answer that the peer's
    // system does not take.
    CM_OPT_CHANNEL_SERVER_IDLE_SECONDS = 337,
    CM_OPT_CHANNEL_SERVER_STOP_SECONDS = 338  // DWORD (30): how long StopListen waits for what has begun
};

// Hears what happens to one request, in the acceptor's thread. Inside any call anything may be done to the channel: answer,
// disconnect, release.
class TALVO_API ICmChannelHttpServerSink : public ICmChannelSink {
public:
    // A piece of the request's body, transfer coding removed; valid during the call. Nothing more comes while
    // CM_OPT_TRANSPORT_PAUSE_READING of the channel is set.
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) override;

    // The whole request has been received, with or without a body. Comes once.
    virtual void OnRequestEnd(ICmChannelHttpServer* aChannel);

    // The client sends no more: it has closed, or it has ended its side alone and waits for the answer, and nothing but an
    // answer tells which. Once, behind OnRequestEnd and before the answer is complete. The request may still be answered;
    // OnDisconnect follows if the client has gone. Disconnect of the channel gives the request up.
    virtual void OnClientEnd(ICmChannelHttpServer* aChannel);

    // The answer can take data again, after a SendData that returned CM_ERROR_PARTIAL_DATA.
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter* aPara = nullptr) override;

    // The request cannot be answered any more; the last call. CM_ERROR_NETWORK_SOCKET_ERROR: the peer has gone, or does not
    // keep to the protocol. CM_ERROR_TIMEOUT: it is too slow. CM_ERROR_NETWORK_SOCKET_CLOSE: the server has stopped.
    // CM_ERROR_OUT_OF_MEMORY: there was no memory for what the connection brought. It does
    // not come when the answer is complete, nor after the sink's own Disconnect.
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override = 0;

    // The channel is connected from the start: never comes.
    void OnConnect(CmResult aReason, ICmChannel* aChannel) override;
};

// One request and its answer. Belongs to the acceptor's thread.
//
// The request's head is there from the start. Whoever wants its body calls ReceiveRequest, within OnRequest or later: until
// then the body waits, and a client that asked for it is not told to go on ("Expect: 100-continue"). An answer may be given at
// any time, before the body's end too: what is left of the body is then read and dropped.
//
// The answer is Answer, or BeginAnswer, SendData as often as there is data, EndAnswer. The server adds "Date", the framing
// ("Content-Length" or "Transfer-Encoding") and "Connection", and leaves the body out where there must not be one: HEAD, 204,
// 205, 304. Once complete, the answer is the server's to deliver: the channel may be released, and nothing more comes.
//
// AsyncOpen, OpenWithSink and GetUrl are not for servers: CM_ERROR_NOT_IMPLEMENTED. Each operation may also return
// CM_ERROR_OUT_OF_MEMORY; one that sends a part of the answer has then closed the connection, any other has done nothing.
//
// A request that nobody has answered when the last reference of the application is released is answered with 500; an answer
// that is cut short that way ends the connection.
class TALVO_API ICmChannelHttpServer : public ICmChannel {
public:
    static constexpr uint64_t UNKNOWN_LENGTH = ~uint64_t{0};

    // Its request line and headers, as they came. Lives as long as the channel.
    virtual const CCmHttpRequestHead& GetRequest() const = 0;

    // Attaches the sink (not owned) and lets the body come: OnReceive, OnRequestEnd, never inside this call. A second call
    // replaces the sink. CM_ERROR_INVALID_ARG: aSink is null. CM_ERROR_NOT_AVAILABLE: it is answered.
    // CM_ERROR_NOT_INITIALIZED: the connection is gone.
    virtual CmResult ReceiveRequest(ICmChannelHttpServerSink* aSink) = 0;

    // What the answer says; before it begins, else CM_ERROR_NOT_AVAILABLE. The status is 200 unless set, its text the usual
    // one. CM_ERROR_INVALID_ARG: a status below 200 or above 999; a text or value with CR, LF or NUL in it, which could end a
    // line; a header that the server sets itself ("Content-Length", "Transfer-Encoding", "Date"). aMerge as in SetHeader of
    // CCmHttpHeaderArray. "Connection: close" ends the connection behind this answer.
    virtual CmResult SetStatus(long aStatus, const CCmString& aText = CCmString()) = 0;
    virtual CmResult SetHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, BOOL aMerge = FALSE) = 0;

    // The whole answer, with a body or (null) without one. The chain is taken as a whole: what the peer does not take at once
    // is kept, sharing the storage. CM_ERROR_NOT_AVAILABLE: it has been answered, or begun. CM_ERROR_NOT_INITIALIZED: the
    // connection is gone. CM_ERROR_OUT_OF_MEMORY: it is, too, now.
    virtual CmResult Answer(CCmMessageBlock* aBody) = 0;
    // The same with status, "Content-Type" and body in one; aBody is copied. Also CM_ERROR_INVALID_ARG.
    virtual CmResult AnswerText(long aStatus, const CCmString& aContentType, const CCmString& aBody) = 0;

    // An answer whose body comes piece by piece. aLength in bytes; with UNKNOWN_LENGTH it is sent in chunks, or to a client of
    // HTTP/1.0 until the connection's end. The head leaves with the first piece, or at the end of the upcall that this is
    // called in. Results as Answer.
    virtual CmResult BeginAnswer(uint64_t aLength = UNKNOWN_LENGTH) = 0;

    // The next piece; begins an answer of unknown length if none has begun. Takes what it can, as ICmTransport says, a chunk as
    // a whole; small pieces given inside an upcall leave together at its end. CM_ERROR_PARTIAL_DATA: OnSend follows, if there
    // is a sink. CM_ERROR_INVALID_ARG: more than the length; nothing is taken. CM_ERROR_NOT_AVAILABLE: the answer is complete.
    // CM_ERROR_NOT_INITIALIZED: the connection is gone. Where the answer has no body the data is taken and dropped.
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override = 0;

    // The answer is complete. CM_OK, also after the last byte of a length, which completes it by itself. CM_ERROR_FAILURE:
    // bytes of the length are missing; the connection is ended. Without an answer it is one without a body.
    virtual CmResult EndAnswer() = 0;

    // Gives it up: no upcall follows. Unless the answer is complete, the connection is closed. CM_OK.
    CmResult Disconnect(CmResult aReason) override = 0;

    // CM_OPT_TRANSPORT_PAUSE_READING is the channel's own and holds the body back; other options are the connection's, for
    // example CM_OPT_TRANSPORT_PEER_ADDR.
    CmResult SetOption(DWORD aCommand, void* aArg) override = 0;
    CmResult GetOption(DWORD aCommand, void* aArg) override = 0;
};

class TALVO_API ICmChannelServerAcceptorSink {
public:
    // A request's head has come. The channel lives during the call: take a reference to answer later. Inside anything may be
    // done to it and to the acceptor.
    virtual void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor* aAcceptor) = 0;

    // A request that the application holds and has not received (ReceiveRequest) cannot be answered any more. Once, for the
    // reasons of ICmChannelHttpServerSink::OnDisconnect, which comes instead where there is a sink, and under its conditions.
    virtual void OnRequestLost(CmResult aReason, ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor* aAcceptor);

    // ICmChannelHttpServerSink::OnClientEnd for a request that the application holds and has not received: its client has sent
    // all of it and sends no more. OnRequestLost follows if an answer does not reach the client. A body that is not received
    // hides the end of the client's side while it is longer than 64 KiB.
    virtual void OnClientEnd(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor* aAcceptor);

    // StopListen is through, or the stop that a drain has made: no connection is left. The acceptor may listen again. The last
    // call of a round.
    virtual void OnStopped(ICmChannelServerAcceptor* aAcceptor);

    virtual ~ICmChannelServerAcceptorSink();
};

// Serves HTTP/1.0 and HTTP/1.1 on one address. Belongs to the thread that makes it, which needs an event queue and a timer
// queue (the main thread, the network thread, a task thread with timers); all upcalls come there. The last release closes
// everything at once, without an upcall.
//
// Connections are kept alive as RFC 9112 says. Requests that a client sends without waiting are answered in order: the next one
// is not looked at before the answer to the one before it is complete. What is wrong with a request is answered here, and ends
// the connection: 400, 408, 413, 414, 417, 431, 501, 505.
class TALVO_API ICmChannelServerAcceptor : public ICmReferenceControl {
public:
    // CM_ERROR_INVALID_ARG: aSink is null. CM_ERROR_ALREADY_INITIALIZED: it listens, or its stop is not through.
    // CM_ERROR_NULL_POINTER: the thread has no event queue or no timer queue, or there is no network thread.
    // CM_ERROR_NETWORK_SOCKET_ERROR: the address cannot be used. CM_ERROR_NOT_AVAILABLE: CCmConnectionManager::Drain runs. Port
    // 0: GetListenAddr tells. aSink is not owned.
    virtual CmResult StartListen(ICmChannelServerAcceptorSink* aSink, const CCmInetAddr& aAddrListen) = 0;

    // Ends in order: no more connections; those without a whole head of a request are closed, the others when they have been
    // answered, or after CM_OPT_CHANNEL_SERVER_STOP_SECONDS (OnDisconnect with CM_ERROR_NETWORK_SOCKET_CLOSE). Then OnStopped
    // follows, never inside this call. CM_ERROR_NOT_INITIALIZED: it does not listen.
    //
    // CCmConnectionManager::Drain does the same with its own limit. It also gives up a request whose body is not whole and
    // whose answer has not begun, with the same OnDisconnect, and does not wait for clients to close.
    virtual CmResult StopListen(CmResult aReason) = 0;

    // CM_ERROR_NOT_INITIALIZED: it does not listen.
    virtual CmResult GetListenAddr(CCmInetAddr& aAddr) = 0;

    // See ECmChannelServerOption. CM_ERROR_INVALID_ARG: an unknown command, a null argument, or 0 for a time or a limit. Also
    // answers CM_OPT_CONNECT_FAILURE, a CCmFailure: why the last StartListen failed.
    virtual CmResult SetOption(DWORD aCommand, void* aArg) = 0;
    virtual CmResult GetOption(DWORD aCommand, void* aArg) = 0;

    // How many connections there are.
    virtual DWORD GetConnections() const = 0;
};
