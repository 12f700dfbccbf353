// A channel over an HTTP exchange: one request and its answer.
#pragma once

#include "talvo/http/channel/channel.h"
#include "talvo/http/message/http_response_head.h"

// A request and its answer. CCmChannelManager::CreateChannelHttpClient makes it; docs/http_client.md shows it in use.
//
// Set the request, then call AsyncOpen. The sink gets OnConnect(CM_OK) with the head of the final answer, whatever its status;
// OnReceive for each piece of the body as it arrives, a view without a copy; OnDisconnect(CM_OK) after the last piece. The
// channel follows redirects, sends credentials when the server requires them, and skips interim answers. A failure is
// OnDisconnect(CM_ERROR_NETWORK_HTTP_FAILURE), or OnDisconnect(CM_ERROR_OUT_OF_MEMORY), and a trace line at level 0. GetFailure
// has its text and its underlying reason. Any operation with a result may return CM_ERROR_OUT_OF_MEMORY, and has then done
// nothing unless its comment lists an effect.
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
    //    User-Agent         replaces the library's; an empty value removes it
    //    Proxy-Authorization    is sent to the first proxy of the route, if that gets requests in absolute form
    // CM_ERROR_INVALID_ARG: a name that is not a token, a value with CR, LF or NUL, a Content-Length that is not a number,
    // another Transfer-Encoding.
    virtual CmResult SetRequestHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, CmBool aMerge = CM_FALSE) = 0;
    // aValue (out): the value that was set. FALSE: none was set, and aValue is unchanged.
    virtual CmBool GetRequestHeader(const CCmHttpAtom& aAtom, CCmString& aValue) = 0;

    // The whole body: a duplicate of the chain's unread bytes, which can be sent again after a redirect, a challenge or a stale
    // connection. CM_ERROR_OUT_OF_MEMORY. CM_ERROR_INVALID_ARG: 4 GiB and more.
    virtual CmResult SetRequestBody(const CCmMessageBlock& aBody) = 0;

    // For Basic, Digest (MD5 and SHA-256) and, if it is allowed, NTLM, where aUser may be "DOMAIN\user". Uses the strongest
    // scheme that the server offers, and sends nothing before its challenge. If the server refuses them, the 401 is delivered.
    // Only for the URL's own scheme, host and port. CM_ERROR_INVALID_ARG: control characters, or a colon in the name.
    virtual CmResult SetCredentials(const CCmString& aUser, const CCmString& aPassword) = 0;

    // Ends a body that is sent in chunks with SendData. CM_ERROR_NOT_AVAILABLE: no such body is in progress.
    virtual CmResult EndRequestBody() = 0;

    // The answer; from OnConnect on, and as long as the channel. Before that, status 0 and no headers.
    virtual long GetResponseStatus() = 0;
    virtual CmBool GetResponseHeader(const CCmHttpAtom& aAtom, CCmString& aValue) = 0;  // FALSE: no such header
    virtual const CCmHttpResponseHead& GetResponseHead() = 0;
    virtual const CCmHttpHeaderArray& GetResponseTrailer() = 0;  // after a chunked body; complete with OnDisconnect(CM_OK)

    // After a failure: CM_ERROR_TIMEOUT, CM_ERROR_OUT_OF_MEMORY, the connector's or transport's reason, such as
    // CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, or CM_ERROR_NETWORK_HTTP_FAILURE if the server violated the protocol. aText
    // (out): the failure in words, as in the trace line. CM_OK: no failure.
    virtual CmResult GetFailure(CCmString& aText) = 0;
};
