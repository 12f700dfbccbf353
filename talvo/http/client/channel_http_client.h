// The HTTP client channel.
#pragma once

#include <memory>

#include "talvo/base/failure.h"
#include "talvo/base/ref_ptr.h"
#include "talvo/connection/protocol/receive_chain.h"
#include "talvo/event/timer_delete.h"
#include "talvo/event/timer_wrapper_id.h"
#include "talvo/http/channel/channel_http_client_interface.h"
#include "talvo/http/client/http_client_exchange.h"
#include "talvo/http/client/http_client_request.h"
#include "talvo/http/client/http_client_route.h"
#include "talvo/http/client/proxy_authentication.h"
#include "talvo/http/message/http_auth.h"

// The product of CCmChannelManager::CreateChannelHttpClient and the base of clients that find their proxies.
class TALVO_API CCmChannelHttpClient : public ICmChannelHttpClient,
                                       private talvo::IHttpExchangeUser,
                                       private talvo::IProxyAuthenticationUser,
                                       private CCmTimerWrapperIDSink,
                                       private CCmReferenceControlTimerDeleteT<CCmMutexNullSingleThread> {
public:
    // aUrl is copied. aFlags: no flags are defined yet. aProxies: the proxy servers to use; empty: none.
    CCmChannelHttpClient(const CCmHttpUrl& aUrl, CmDword aFlags, const CCmProxyRoute& aProxies = {});
    ~CCmChannelHttpClient() override;

    CmDword AddReference() override { return CCmReferenceControlTimerDeleteT::AddReference(); }
    CmDword ReleaseReference() override { return CCmReferenceControlTimerDeleteT::ReleaseReference(); }

    // CM_OK: upcalls follow, never inside this call. CM_ERROR_INVALID_ARG: null, or an invalid request (a host or path with
    // control characters, both Content-Length and chunks, a Content-Length other than the body's, a TRACE with a body).
    // CM_ERROR_ALREADY_INITIALIZED: opened before. CM_ERROR_NOT_AVAILABLE: this is not the thread that made the channel, or
    // CCmConnectionManager::Drain runs. CM_ERROR_NOT_IMPLEMENTED, with a trace line: CONNECT, a file URL.
    // CM_ERROR_NULL_POINTER: the calling thread lacks a queue. Else the reason why a connection is impossible. It may be called
    // again after any failure.
    CmResult AsyncOpen(ICmChannelSink* aSink) override;

    // aUrl (out): the last URL requested, redirects included, with a reference for the caller. CM_OK, CM_ERROR_OUT_OF_MEMORY.
    CmResult GetUrl(CCmHttpUrl*& aUrl) override;

    // The next bytes of a body that was announced with Content-Length or chunks; taken and advanced as by ICmTransport.
    // CM_ERROR_PARTIAL_DATA: there is no connection yet, the server's 100 is awaited, or the connection is full: OnSend
    // follows. CM_ERROR_INVALID_ARG: more than the announced length; no data is taken. CM_ERROR_NOT_AVAILABLE: there is no body
    // to send, it is complete, or the server has answered and refused the rest. CM_ERROR_NOT_INITIALIZED: not open.
    CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara = nullptr) override;

    // Options of ECmChannelOption from 302 on, before AsyncOpen: CM_ERROR_ALREADY_INITIALIZED after it. Of ECmTransportOption:
    // CM_OPT_TRANSPORT_PAUSE_READING at any time, the others as for the connection, CM_ERROR_NOT_AVAILABLE without a
    // connection. CM_ERROR_INVALID_ARG: null, unknown, out of range.
    CmResult SetOption(CmDword aCommand, void* aArg) override;
    CmResult GetOption(CmDword aCommand, void* aArg) override;

    // Abandons the exchange and detaches the sink: no upcall follows. aReason goes to the connection. CM_OK.
    CmResult Disconnect(CmResult aReason) override;

    ICmTransportSink* GetSink() override { return m_pSink; }
    CmResult OpenWithSink(ICmTransportSink*) override { return CM_ERROR_NOT_IMPLEMENTED; }  // see AsyncOpen

    CmResult SetRequestMethod(const CCmHttpAtom& aMethod) override;
    CmResult SetRequestHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, CmBool aMerge = CM_FALSE) override;
    CmBool GetRequestHeader(const CCmHttpAtom& aAtom, CCmString& aValue) override;
    CmResult SetRequestBody(const CCmMessageBlock& aBody) override;
    CmResult SetCredentials(const CCmString& aUser, const CCmString& aPassword) override;
    CmResult EndRequestBody() override;
    long GetResponseStatus() override { return GetResponseHead().GetStatus(); }
    CmBool GetResponseHeader(const CCmHttpAtom& aAtom, CCmString& aValue) override;
    const CCmHttpResponseHead& GetResponseHead() override;
    const CCmHttpHeaderArray& GetResponseTrailer() override { return m_Exchange.GetTrailer(); }
    CmResult GetFailure(CCmString& aText) override;

protected:
    // A request to a new URL, the first one or that of a redirect, begins. CM_OK: its proxies are set. CM_ERROR_WOULD_BLOCK:
    // OnProxiesFound follows, after the return. Any other result is the reason why there can be no connection. Throws
    // std::bad_alloc.
    virtual CmResult FindProxies(const CCmHttpUrl&) { return CM_OK; }
    // Ends a search that is in progress; no OnProxiesFound follows.
    virtual void StopFinding() {}

    void SetProxies(const CCmProxyRoute& aProxies) { m_Route.SetProxies(aProxies); }
    // CM_OK: they are set. The channel's user may release it inside.
    void OnProxiesFound(CmResult aReason);

    void OnReferenceDestory() override;

private:
    enum EStatus { SETTING_UP, OPEN, OVER };
    // The next step after an answer that is not for the user. ASK: repeat it when the credentials for the proxy are known.
    // BEGIN: the proxies of a new URL are known.
    enum ENext { NOTHING, REPEAT, REDIRECT, ASK, BEGIN };

    CCmString OnExchangeConnection(talvo::EHttpConnection aConnection) override;
    CmBool OnExchangeHead() override;
    void OnExchangeBody(CCmMessageBlock& aData) override;
    void OnExchangeRoom() override;
    void OnExchangeEnd(CmResult aCause, const char* aText) override;
    void OnProxyAuthentication(CmResult aResult) override;
    void OnTimer(CCmTimerWrapperID* aId) override;

    CmResult CheckUrl_i() const;
    CmResult FindProxies_i();
    CmResult BeginRoute_i();
    CmResult StartExchange_i();
    void StartNext_i();
    CmResult MeetProxy_i(const CCmProxyServer& aProxy);
    CmResult AddProxyParts_i(talvo::CHttpHeadParts& aParts);
    ENext JudgeHead_i();
    ENext JudgeProxy_i();
    CmBool JudgeOrigin_i();
    CmBool NeedsSameConnection_i() const;
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
    CmResult Pause_i(CmBool aPause);
    CmDword* FindOption_i(CmDword aCommand);

    const CmDword m_dwThread;  // the thread that made it
    EStatus m_Status = SETTING_UP;
    ICmChannelSink* m_pSink = nullptr;  // not owned; set by AsyncOpen, cleared by Disconnect, the end and the last release
    CCmRefPtrT<CCmHttpUrl> m_pUrl;
    talvo::CHttpClientRequest m_Request;
    talvo::CHttpClientRoute m_Route;
    talvo::CHttpAuthenticator m_Authenticator;
    talvo::CHttpClientExchange m_Exchange;
    // Of proxies that get requests in absolute form.
    CCmProxyServer m_FirstProxy;  // the one that the application's Proxy-Authorization is for
    CCmProxyServer m_Proxy;       // the one that m_pProxyAuthentication is for
    std::unique_ptr<talvo::CProxyAuthentication> m_pProxyAuthentication;
    CmBool m_bProxyRefuses = CM_FALSE;  // the next 407 is for the user
    ENext m_Next = NOTHING;
    CmBool m_bAnswered = CM_FALSE;  // the user gets this head
    CCmString m_strLocation;        // of the next redirect
    CmDword m_dwRedirects = 0;

    CmDword m_dwConnectTimeout = 30'000;
    CmDword m_dwWholeBody = CM_FALSE;
    CmDword m_dwMaxRedirects;
    CmBool m_bMayDowngrade = CM_FALSE;

    CmBool m_bPaused = CM_FALSE;
    talvo::CReceiveChain m_Held;  // came during a pause
    CCmString m_strWhole;         // the body so far, if it is delivered whole
    CmBool m_bWholeGiven = CM_FALSE;
    CmBool m_bEnded = CM_FALSE;  // the end is due after the data on hold
    CmResult m_EndReason = CM_OK;
    CCmTimerWrapperID m_Timer;  // delivers data on hold after a pause

    CmResult m_Cause = CM_OK;
    CCmString m_strFailure;
    CCmFailure m_LastFailure;
};
