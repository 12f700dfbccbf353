// A channel over an HTTP exchange: one request and its answer.
#pragma once

#include "talvo/base/failure.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/connection/protocol/receive_chain.h"
#include "talvo/event/timer_delete.h"
#include "talvo/event/timer_wrapper_id.h"
#include "talvo/http/channel/channel.h"
#include "talvo/http/client/http_client_exchange.h"
#include "talvo/http/client/http_client_request.h"
#include "talvo/http/client/http_redirect.h"
#include "talvo/http/message/http_auth.h"

// A request and its answer. CCmChannelManager::CreateChannelHttpClient makes it; docs/http_client.md shows it in use.
//
// Set the request, then call AsyncOpen. The sink gets OnConnect(CM_OK) with the head of the final answer, whatever its status;
// OnReceive for each piece of the body as it arrives, a view without a copy; OnDisconnect(CM_OK) after the last piece. The
// channel follows redirects, sends credentials when the server requires them, and skips interim answers. A failure is
// OnDisconnect(CM_ERROR_NETWORK_HTTP_FAILURE), or OnDisconnect(CM_ERROR_OUT_OF_MEMORY), and a trace line at level 0. GetFailure
// has its text and its underlying reason. Any operation with a result may return CM_ERROR_OUT_OF_MEMORY, and has then done
// nothing unless it says so.
//
// Belongs to the thread that made it, which needs an event queue and a timer queue: the main thread, the network thread, task
// threads. The connection comes from that thread's pool and returns to it.
//
// A slow sink sets CM_OPT_TRANSPORT_PAUSE_READING: neither OnReceive nor the end come until it is FALSE again. Meanwhile the
// server's data stays in the system, so that a body of any size takes constant memory.
class TALVO_API ICmChannelHttpClient : public ICmChannel {
public:
    // The request; by default a GET. All before AsyncOpen: CM_ERROR_ALREADY_INITIALIZED after it.

    // Any method; CM_ERROR_INVALID_ARG unless its text is a token. CONNECT is for proxies: AsyncOpen refuses it.
    virtual CmResult SetRequestMethod(const CCmHttpAtom& aMethod) = 0;

    // As CCmHttpHeaderArray::SetHeader: replaces, with aMerge adds; an empty value removes. Some headers have an effect:
    //    Host               replaces the URL's, while redirects stay with that host
    //    Content-Length     without a body from SetRequestBody: the number of bytes that will follow with SendData
    //    Transfer-Encoding  "chunked": the body is sent in chunks; without SetRequestBody it comes with SendData
    //    Expect             "100-continue": the body waits for the server's 100, see CM_OPT_CHANNEL_CONTINUE_TIMEOUT
    //    Authorization, Cookie, Proxy-Authorization    are never sent to another scheme, host or port by a redirect
    // CM_ERROR_INVALID_ARG: a name that is not a token, a value with CR, LF or NUL, a Content-Length that is not a number,
    // another Transfer-Encoding.
    virtual CmResult SetRequestHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, BOOL aMerge = FALSE) = 0;
    // aValue (out): the value that was set. FALSE: none was set, and aValue is unchanged.
    virtual BOOL GetRequestHeader(const CCmHttpAtom& aAtom, CCmString& aValue) = 0;

    // The whole body: a duplicate of the chain's unread bytes, which can be sent again after a redirect, a challenge or a stale
    // connection. CM_ERROR_OUT_OF_MEMORY. CM_ERROR_INVALID_ARG: 4 GiB and more.
    virtual CmResult SetRequestBody(const CCmMessageBlock& aBody) = 0;

    // For Basic and Digest (MD5 and SHA-256). Uses the strongest scheme that the server offers, and sends nothing before its
    // challenge. If the server refuses them, the 401 is delivered. Only for the URL's own scheme, host and port.
    // CM_ERROR_INVALID_ARG: control characters, or a colon in the name.
    virtual CmResult SetCredentials(const CCmString& aUser, const CCmString& aPassword) = 0;

    // Ends a body that is sent in chunks with SendData. CM_ERROR_NOT_AVAILABLE: no such body is in progress.
    virtual CmResult EndRequestBody() = 0;

    // The answer; from OnConnect on, and as long as the channel. Before that, status 0 and no headers.
    virtual long GetResponseStatus() = 0;
    virtual BOOL GetResponseHeader(const CCmHttpAtom& aAtom, CCmString& aValue) = 0;  // FALSE: no such header
    virtual const CCmHttpResponseHead& GetResponseHead() = 0;
    virtual const CCmHttpHeaderArray& GetResponseTrailer() = 0;  // after a chunked body; complete with OnDisconnect(CM_OK)

    // After a failure: CM_ERROR_TIMEOUT, CM_ERROR_OUT_OF_MEMORY, the connector's or transport's reason, or
    // CM_ERROR_NETWORK_HTTP_FAILURE if the server violated the protocol. aText (out): the failure in words, as in the trace
    // line. CM_OK: no failure.
    virtual CmResult GetFailure(CCmString& aText) = 0;
};

// The implementation.
class TALVO_API CCmChannelHttpClient : public ICmChannelHttpClient,
                                       private talvo::IHttpExchangeUser,
                                       private CCmTimerWrapperIDSink,
                                       private CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    // aUrl is copied. aFlags: no flags are defined yet.
    CCmChannelHttpClient(const CCmHttpUrl& aUrl, DWORD aFlags);
    ~CCmChannelHttpClient() override;

    DWORD AddReference() override { return CCmReferenceControlTimerDeleteT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlTimerDeleteT::ReleaseReference(); }

    // CM_OK: upcalls follow, never inside this call. CM_ERROR_INVALID_ARG: null, or an invalid request (a host or path with
    // control characters, both Content-Length and chunks, a Content-Length other than the body's, a TRACE with a body).
    // CM_ERROR_ALREADY_INITIALIZED: opened before. CM_ERROR_NOT_AVAILABLE: this is not the thread that made the channel, or
    // CCmConnectionManager::Drain runs. CM_ERROR_NOT_IMPLEMENTED, with a trace line: https, CONNECT, a file URL.
    // CM_ERROR_NULL_POINTER: the calling thread lacks a queue. Else the reason why a connection is impossible. It may be called
    // again after any failure.
    CmResult AsyncOpen(ICmChannelSink* aSink) override;

    // aUrl (out): the last URL requested, redirects included, with a reference for the caller. CM_OK, CM_ERROR_OUT_OF_MEMORY.
    CmResult GetUrl(CCmHttpUrl*& aUrl) override;

    // The next bytes of a body that was announced with Content-Length or chunks; taken and advanced as ICmTransport says.
    // CM_ERROR_PARTIAL_DATA: there is no connection yet, the server's 100 is awaited, or the connection is full: OnSend
    // follows. CM_ERROR_INVALID_ARG: more than the announced length; no data is taken. CM_ERROR_NOT_AVAILABLE: there is no body
    // to send, it is complete, or the server has answered and refused the rest. CM_ERROR_NOT_INITIALIZED: not open.
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;

    // Options of ECmChannelOption from 302 on, before AsyncOpen: CM_ERROR_ALREADY_INITIALIZED after it. Of ECmTransportOption:
    // CM_OPT_TRANSPORT_PAUSE_READING at any time, the others as the connection says, CM_ERROR_NOT_AVAILABLE without a
    // connection. CM_ERROR_INVALID_ARG: null, unknown, out of range.
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;

    // Abandons the exchange and detaches the sink: no upcall follows. aReason goes to the connection. CM_OK.
    CmResult Disconnect(CmResult aReason) override;

    ICmTransportSink* GetSink() override { return m_pSink; }
    CmResult OpenWithSink(ICmTransportSink*) override { return CM_ERROR_NOT_IMPLEMENTED; }  // see AsyncOpen

    CmResult SetRequestMethod(const CCmHttpAtom& aMethod) override;
    CmResult SetRequestHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, BOOL aMerge = FALSE) override;
    BOOL GetRequestHeader(const CCmHttpAtom& aAtom, CCmString& aValue) override;
    CmResult SetRequestBody(const CCmMessageBlock& aBody) override;
    CmResult SetCredentials(const CCmString& aUser, const CCmString& aPassword) override;
    CmResult EndRequestBody() override;
    long GetResponseStatus() override { return GetResponseHead().GetStatus(); }
    BOOL GetResponseHeader(const CCmHttpAtom& aAtom, CCmString& aValue) override;
    const CCmHttpResponseHead& GetResponseHead() override;
    const CCmHttpHeaderArray& GetResponseTrailer() override { return m_Exchange.GetTrailer(); }
    CmResult GetFailure(CCmString& aText) override;

private:
    enum EStatus { SETTING_UP, OPEN, OVER };
    enum ENext { NOTHING, AUTHENTICATE, REDIRECT };  // the next step after an answer that is not for the user

    BOOL OnExchangeHead() override;
    void OnExchangeBody(CCmMessageBlock& aData) override;
    void OnExchangeRoom() override;
    void OnExchangeEnd(CmResult aCause, const char* aText) override;
    void OnTimer(CCmTimerWrapperID* aId) override;
    void OnReferenceDestory() override;

    CmResult CheckUrl_i() const;
    CmResult StartExchange_i();
    ENext JudgeHead_i();
    CmResult GoOn_i();
    CmResult Follow_i();
    CmResult RefuseLocation_i();
    void KeepWhole_i(const CCmMessageBlock& aData);
    void DeliverHeld_i();
    void DeliverWhole_i();
    void Deliver_i();
    void Over_i(CmResult aReason);
    void Fail_i(CmResult aCause, std::string_view aText);
    void NoteFailure_i(CmResult aCause, std::string_view aText);
    void Close_i(CmResult aReason);
    CmResult Pause_i(BOOL aPause);
    DWORD* FindOption_i(DWORD aCommand);

    const DWORD m_dwThread;  // the thread that made it
    EStatus m_Status = SETTING_UP;
    ICmChannelSink* m_pSink = nullptr;  // not owned; set by AsyncOpen, cleared by Disconnect, the end and the last release
    CCmRefPtrT<CCmHttpUrl> m_pUrl;
    talvo::CHttpClientRequest m_Request;
    talvo::CHttpAuthenticator m_Authenticator;
    talvo::CHttpClientExchange m_Exchange;
    ENext m_Next = NOTHING;
    BOOL m_bAnswered = FALSE;  // the user gets this head
    CCmString m_strLocation;   // of the next redirect
    DWORD m_dwRedirects = 0;

    DWORD m_dwWholeBody = FALSE;
    DWORD m_dwMaxRedirects = talvo::MAX_HTTP_REDIRECTS;

    BOOL m_bPaused = FALSE;
    talvo::CReceiveChain m_Held;  // came during a pause
    CCmString m_strWhole;         // the body so far, if it is delivered whole
    BOOL m_bWholeGiven = FALSE;
    BOOL m_bEnded = FALSE;  // the end is due after the data on hold
    CmResult m_EndReason = CM_OK;
    CCmTimerWrapperID m_Timer;  // delivers data on hold after a pause

    CmResult m_Cause = CM_OK;
    CCmString m_strFailure;
    CCmFailure m_LastFailure;
};
