// One request and its answer, over a connection of the pool.
#pragma once

#include "talvo/http/client/http_client_connection.h"
#include "talvo/http/client/http_client_sender.h"
#include "talvo/http/client/http_destination.h"
#include "talvo/http/message/http_body.h"
#include "talvo/http/message/http_framing.h"
#include "talvo/http/message/http_parser.h"
#include "talvo/http/message/http_response_head.h"

namespace talvo {

enum class EHttpConnection {
    FRESH,
    REUSED,  // it has served other exchanges
    SAME     // that of the exchange before, see CHttpClientExchange::KeepConnection
};

// The user of an exchange. Each call may close the exchange; a new one is started in OnExchangeEnd or later.
class IHttpExchangeUser {
public:
    // A connection is there: the head of the request in wire format, also when the request is repeated.
    virtual CCmString OnExchangeConnection(EHttpConnection aConnection) = 0;
    // The final head is complete. TRUE: deliver its body; FALSE: skip it, if it is not too long.
    virtual CmBool OnExchangeHead() = 0;
    virtual void OnExchangeBody(CCmMessageBlock& aData) = 0;  // views the received data, valid during the call
    virtual void OnExchangeRoom() = 0;                        // a streamed body that was refused for lack of room can continue
    // The last call. CM_OK: the answer was complete, or has been skipped. Else the underlying reason and its text, which stays
    // valid. This call must not run out of memory. If another call does, this one comes with CM_ERROR_OUT_OF_MEMORY.
    virtual void OnExchangeEnd(CmResult aCause, const char* aText) = 0;

protected:
    virtual ~IHttpExchangeUser() = default;
};

// Acquires a connection, sends, reads interim heads until the final one, extracts the body, and gives the connection back if it
// is reusable. If a reused connection fails before the first byte of the answer, a fresh one replaces it once, if the request
// may be repeated. A request that may not be repeated uses a connection that was used a moment ago, or a fresh one. Of one
// thread; used for one exchange after another.
class CHttpClientExchange : private IHttpConnectionUser, private CHttpBodySink {
public:
    // See ECmChannelOption; times in milliseconds.
    struct CSettings {
        CmDword m_dwSilenceTimeout = 60'000;
        CmDword m_dwContinueTimeout = 1'000;
        CmDword m_dwKeepAlive = CM_TRUE;
    };

    explicit CHttpClientExchange(IHttpExchangeUser& aUser);
    ~CHttpClientExchange() override { Close(CM_ERROR_NETWORK_SOCKET_CLOSE); }
    CHttpClientExchange(const CHttpClientExchange&) = delete;
    CHttpClientExchange& operator=(const CHttpClientExchange&) = delete;

    CSettings& GetSettings() { return m_Settings; }

    // Start follows later, or Close: takes calls for a streamed body already. CM_ERROR_OUT_OF_MEMORY.
    CmResult Prepare(const CHttpClientRequest& aRequest);
    // CM_OK: OnExchangeEnd follows, not inside this call. CM_ERROR_NULL_POINTER: the thread lacks a queue. Else as the pool.
    // aRequest must live until the end; aTo is not considered for a kept connection. aConnectMs: the limit for a new
    // connection, 0 for none. If this fails, or memory runs out inside (std::bad_alloc), close the exchange.
    CmResult Start(const CHttpClientRequest& aRequest, const CHttpDestination& aTo, CmDword aConnectMs);
    // Abandons the exchange; no call follows.
    void Close(CmResult aReason);

    // A streamed body, see CHttpClientSender.
    CmResult SendBody(CCmMessageBlock& aData, CCmTransportParameter* aPara);
    CmResult EndBody();

    // TRUE stops reading until it is FALSE again; at any time.
    void Pause(CmBool aPause);
    // The connection's; CM_ERROR_NOT_AVAILABLE without one.
    CmResult SetOption(CmDword aCommand, void* aArg);
    CmResult GetOption(CmDword aCommand, void* aArg);

    // TRUE: no exchange is in progress.
    CmBool IsOver() const { return m_State == IDLE; }
    // In OnExchangeHead: the connection can carry another request after the answer, unless the body is too long to be skipped.
    CmBool MayStayOpen() const;
    // Likewise: the next exchange, started in OnExchangeEnd, goes over this connection and no other.
    void KeepConnection() { m_bKeep = CM_TRUE; }
    // In OnExchangeEnd: the connection was kept.
    CmBool HasKeptConnection() const { return m_bKeep && m_pConnection; }

    // Of the last exchange; a new one clears it.
    const CCmHttpResponseHead& GetHead() const { return m_Head; }
    const CCmHttpHeaderArray& GetTrailer() const { return m_Body.GetTrailers(); }
    // The connection's reason for its end; CM_FAILURE_NONE unless that was the failure.
    const CCmFailure& GetFailure() const { return m_Failure; }
    CmBool IsUnconnected() const { return m_bUnconnected; }  // the failure: no connection came
    // The announced length of the body, 0 if it is unknown.
    uint64_t GetExpected() const { return m_Framing.m_Body == EHttpBody::LENGTH ? m_Framing.m_ullLength : 0; }

private:
    enum EState { IDLE, WAITING /* for a connection */, HEAD, BODY };

    void OnConnectionReady(CHttpClientConnection& aConnection, CmBool aReused) override;
    void OnConnectionFailed(CmResult aReason, const CCmFailure& aFailure) override;
    void OnConnectionReceive(CCmMessageBlock& aData) override;
    void OnConnectionSend() override;
    void OnConnectionDeadline() override;
    void OnConnectionLost(CmResult aReason, const CCmFailure& aFailure) override;
    CmBool OnBody(CCmMessageBlock& aView) override;

    CmResult Acquire_i(int64_t aMaxRest);
    CmResult Repeat_i();
    void Flush_i();
    void TellRoom_i();
    void Touch_i();
    void TouchInCall_i();
    void ReadHead_i(CCmMessageBlock& aData);
    void OnInterim_i();
    void OnFinal_i();
    void ReadBody_i(CCmMessageBlock& aData);
    void ResetHead_i();
    void Use_i(EHttpConnection aConnection);
    CmBool IsRefused_i() const;
    void End_i(CmBool aReusable);
    void Fail_i(CmResult aCause, const char* aText);

    IHttpExchangeUser& m_User;
    CSettings m_Settings;
    EState m_State = IDLE;
    CCmRefPtrT<CHttpClientConnection> m_pConnection;
    CmBool m_bReused = CM_FALSE;
    CmBool m_bKeep = CM_FALSE;
    CmBool m_bPaused = CM_FALSE;

    const CHttpClientRequest* m_pRequest = nullptr;  // not owned
    CHttpDestination m_To;
    CmDword m_dwConnectMs = 0;
    CHttpClientSender m_Sender;
    CmBool m_bPrepared = CM_FALSE;  // m_Sender has the next request
    int64_t m_llContinueUntil = 0;

    CCmHttpResponseHead m_Head;
    CCmHttpParserT<CCmHttpResponseHead> m_Parser{&m_Head};
    CmBool m_bAnswered = CM_FALSE;  // data of the answer has come
    CmDword m_dwInterims = 0;
    CHttpFraming m_Framing;
    CHttpBodyReader m_Body;
    CmBool m_bWanted = CM_FALSE;
    CCmFailure m_Failure;
    CmBool m_bUnconnected = CM_FALSE;
};

}  // namespace talvo
