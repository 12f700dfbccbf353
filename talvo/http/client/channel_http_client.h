// A channel over an HTTP exchange: one request, and the answer to it.
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

// What is asked and what came back. Made by CCmChannelManager::CreateChannelHttpClient; docs/http_client.md shows it in use.
//
// Set the request, then AsyncOpen. The sink hears OnConnect(CM_OK) when the head of the final answer is there, whatever its
// status; OnReceive for each piece of the body as it arrives, a view on what arrived, copied nowhere; OnDisconnect
// (CM_OK) behind the last. On the way there, redirects are followed, credentials given when they are asked for, and interim
// answers passed over. A failure is OnDisconnect(CM_ERROR_NETWORK_HTTP_FAILURE), for want of memory OnDisconnect
// (CM_ERROR_OUT_OF_MEMORY), and a line at level 0; GetFailure has it in words and as the reason beneath. Any operation that
// returns a result may return CM_ERROR_OUT_OF_MEMORY, and has then done nothing unless it says so.
//
// Belongs to the thread that made it, which needs an event queue and a timer queue: the main thread, the network thread, task
// threads. The connection comes from that thread's pool and goes back there.
//
// A sink that cannot keep up sets CM_OPT_TRANSPORT_PAUSE_READING: neither OnReceive nor the end come until it is FALSE again,
// and what the server sends meanwhile stays with the system, so that a body of any size takes constant memory.
class TALVO_API ICmChannelHttpClient : public ICmChannel {
public:
    // The request; GET without more. All before AsyncOpen: CM_ERROR_ALREADY_INITIALIZED after it.

    // Any method; CM_ERROR_INVALID_ARG unless its text is a token. CONNECT is for proxies: AsyncOpen refuses it.
    virtual CmResult SetRequestMethod(const CCmHttpAtom& aMethod) = 0;

    // As CCmHttpHeaderArray::SetHeader: replaces, with aMerge adds; an empty value removes. Some mean more than their text:
    //    Host               instead of the URL's, while redirects stay with that host
    //    Content-Length     without a body from SetRequestBody: so many bytes will follow with SendData
    //    Transfer-Encoding  "chunked": the body goes out in chunks; without SetRequestBody it comes with SendData
    //    Expect             "100-continue": the body waits for the server's leave, see CM_OPT_CHANNEL_CONTINUE_TIMEOUT
    //    Authorization, Cookie, Proxy-Authorization    are never carried to another scheme, host or port by a redirect
    // CM_ERROR_INVALID_ARG: a name that is no token, a value with CR, LF or NUL, a Content-Length that is no number, another
    // Transfer-Encoding.
    virtual CmResult SetRequestHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, BOOL aMerge = FALSE) = 0;
    // What was set; FALSE, and aValue untouched, without.
    virtual BOOL GetRequestHeader(const CCmHttpAtom& aAtom, CCmString& aValue) = 0;

    // The whole body: a duplicate of the chain's unread bytes, which can be sent again where a redirect, a challenge or a stale
    // connection asks for it. CM_ERROR_OUT_OF_MEMORY. CM_ERROR_INVALID_ARG: 4 GiB and more.
    virtual CmResult SetRequestBody(const CCmMessageBlock& aBody) = 0;

    // For Basic and Digest (MD5 and SHA-256); the strongest that the server offers is used, and nothing is sent before it
    // asks. Refused, the 401 is delivered. Only for the URL's own scheme, host and port. CM_ERROR_INVALID_ARG: control
    // characters, or a colon in the name.
    virtual CmResult SetCredentials(const CCmString& aUser, const CCmString& aPassword) = 0;

    // Ends a body that is sent in chunks with SendData. CM_ERROR_NOT_AVAILABLE: there is none under way.
    virtual CmResult EndRequestBody() = 0;

    // The answer; from OnConnect on, and as long as the channel. Before that status 0 and no headers.
    virtual long GetResponseStatus() = 0;
    virtual BOOL GetResponseHeader(const CCmHttpAtom& aAtom, CCmString& aValue) = 0;  // FALSE: no such header
    virtual const CCmHttpResponseHead& GetResponseHead() = 0;
    virtual const CCmHttpHeaderArray& GetResponseTrailer() = 0;  // behind a chunked body; complete with OnDisconnect(CM_OK)

    // After a failure: CM_ERROR_TIMEOUT, CM_ERROR_OUT_OF_MEMORY, the connector's or transport's reason, or
    // CM_ERROR_NETWORK_HTTP_FAILURE itself when the server broke the rules; aText says what failed, as the line does. CM_OK:
    // nothing has.
    virtual CmResult GetFailure(CCmString& aText) = 0;
};

// The channel itself.
class TALVO_API CCmChannelHttpClient : public ICmChannelHttpClient,
                                       private talvo::IHttpExchangeUser,
                                       private CCmTimerWrapperIDSink,
                                       private CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    // aUrl is copied. No bit of aFlags means anything yet.
    CCmChannelHttpClient(const CCmHttpUrl& aUrl, DWORD aFlags);
    ~CCmChannelHttpClient() override;

    DWORD AddReference() override { return CCmReferenceControlTimerDeleteT::AddReference(); }
    DWORD ReleaseReference() override { return CCmReferenceControlTimerDeleteT::ReleaseReference(); }

    // CM_OK: the sink will hear, never inside this call. CM_ERROR_INVALID_ARG: null, or a request that makes no sense (a host
    // or path with control characters, both Content-Length and chunks, a Content-Length other than the body's, a TRACE with a
    // body). CM_ERROR_ALREADY_INITIALIZED: opened before. CM_ERROR_NOT_AVAILABLE: this is not the thread that made the channel,
    // or CCmConnectionManager::Drain runs. CM_ERROR_NOT_IMPLEMENTED, with a line: https, CONNECT, a file URL.
    // CM_ERROR_NULL_POINTER: the calling thread lacks a queue. Else why there can be no connection. It may be called again
    // after any failure.
    CmResult AsyncOpen(ICmChannelSink* aSink) override;

    // The URL asked last, redirects included, with a reference for the caller. CM_OK, CM_ERROR_OUT_OF_MEMORY.
    CmResult GetUrl(CCmHttpUrl*& aUrl) override;

    // The next bytes of a body that was announced with Content-Length or chunks; taken and advanced as ICmTransport says.
    // CM_ERROR_PARTIAL_DATA: the connection is not there yet, the server's leave is awaited, or it is full: OnSend follows.
    // CM_ERROR_INVALID_ARG: more than the length announced, nothing is taken. CM_ERROR_NOT_AVAILABLE: no body is to be sent,
    // all of it is, or the server has answered without wanting the rest. CM_ERROR_NOT_INITIALIZED: not open.
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;

    // Those of ECmChannelOption from 302 on, before AsyncOpen: CM_ERROR_ALREADY_INITIALIZED after it. Of ECmTransportOption
    // CM_OPT_TRANSPORT_PAUSE_READING at any time, the others as the connection says, CM_ERROR_NOT_AVAILABLE while there is
    // none. CM_ERROR_INVALID_ARG: null, unknown, out of range.
    CmResult SetOption(DWORD aCommand, void* aArg) override;
    CmResult GetOption(DWORD aCommand, void* aArg) override;

    // Gives the exchange up and forgets the sink: no upcall follows. aReason goes to the connection. CM_OK.
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
    enum ENext { NOTHING, AUTHENTICATE, REDIRECT };  // what follows an answer that is not the user's

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

    const DWORD m_dwThread;  // the one that made it
    EStatus m_Status = SETTING_UP;
    ICmChannelSink* m_pSink = nullptr;  // not owned; set by AsyncOpen, cleared by Disconnect, the end and the last release
    CCmRefPtrT<CCmHttpUrl> m_pUrl;
    talvo::CHttpClientRequest m_Request;
    talvo::CHttpAuthenticator m_Authenticator;
    talvo::CHttpClientExchange m_Exchange;
    ENext m_Next = NOTHING;
    BOOL m_bAnswered = FALSE;  // the head is the user's
    CCmString m_strLocation;   // of the redirect that is next
    DWORD m_dwRedirects = 0;

    DWORD m_dwWholeBody = FALSE;
    DWORD m_dwMaxRedirects = talvo::MAX_HTTP_REDIRECTS;

    BOOL m_bPaused = FALSE;
    talvo::CReceiveChain m_Held;  // came while paused
    CCmString m_strWhole;         // the body so far, if it is delivered whole
    BOOL m_bWholeGiven = FALSE;
    BOOL m_bEnded = FALSE;  // the end is to be told after what is held
    CmResult m_EndReason = CM_OK;
    CCmTimerWrapperID m_Timer;  // delivers what was held after a pause

    CmResult m_Cause = CM_OK;
    CCmString m_strFailure;
    CCmFailure m_LastFailure;
};
