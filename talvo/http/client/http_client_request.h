// A client's request: method, headers and body, and their changes by redirects.
#pragma once

#include "talvo/base/chain_ptr.h"
#include "talvo/base/result.h"
#include "talvo/base/secret.h"
#include "talvo/http/message/http_request_head.h"

class CCmHttpUrl;

namespace talvo {

// The parts of a head that are not the request's own.
struct CHttpHeadParts {
    CCmString m_strTarget;           // in the form that the receiver of the request needs
    CCmSecret m_Authorization;       // "": the one that the application has set
    CCmSecret m_ProxyAuthorization;  // likewise
    CmBool m_bProxy = CM_FALSE;      // the receiver is a proxy; else Proxy-Authorization is left out
    CmBool m_bKeepAlive = CM_TRUE;
};

class TALVO_API CHttpClientRequest {
public:
    enum EBody {
        NO_BODY,
        WHOLE,           // known from the start, sent with its length
        WHOLE_CHUNKED,   // the same as one chunk
        STREAM,          // comes piece by piece, its length is known
        STREAM_CHUNKED,  // comes piece by piece, each a chunk
    };

    CHttpClientRequest();
    CHttpClientRequest(const CHttpClientRequest&) = delete;
    CHttpClientRequest& operator=(const CHttpClientRequest&) = delete;

    // See ICmChannelHttpClient; CM_ERROR_OUT_OF_MEMORY.
    CmResult SetMethod(const CCmHttpAtom& aMethod);
    CmResult SetHeader(const CCmHttpAtom& aAtom, const CCmString& aValue, CmBool aMerge);
    CmResult SetBody(const CCmMessageBlock& aBody);

    // Checks all settings together, and decides the kind of body. CM_ERROR_INVALID_ARG; CM_ERROR_NOT_IMPLEMENTED: CONNECT.
    CmResult Prepare();

    const CCmHttpRequestHead& GetHead() const { return m_Head; }
    CCmHttpAtom GetMethod() const { return m_Head.GetMethod(); }
    EBody GetBodyKind() const { return m_Body; }
    uint64_t GetBodyLength() const { return m_ullLength; }  // of WHOLE, WHOLE_CHUNKED and STREAM
    CmBool IsStreamed() const { return m_Body == STREAM || m_Body == STREAM_CHUNKED; }
    CmBool IsContinueExpected() const;
    CmBool IsCloseAsked() const;  // by the user's Connection header
    // TRUE: the request may be sent twice: an idempotent method (RFC 9110, section 9.2.2), and a body that can be sent again.
    CmBool MayRepeat() const;

    // A new chain over the whole body; null: it has no bytes, or memory ran out.
    CCmChainPtr DuplicateBody() const { return CCmChainPtr(m_pBody ? m_pBody->DuplicateChained() : nullptr); }

    // Changes the request as a redirect requires.
    void BecomeGet();
    void LeaveOrigin();
    void LeaveProxy();

    // The head for aUrl in wire format, with the empty line. Returns "" if memory runs out. Credentials are in the result only:
    // the caller overwrites it.
    CCmString MakeHead(const CCmHttpUrl& aUrl, const CHttpHeadParts& aParts) const;

private:
    CmBool IsLengthDue_i() const;

    CCmHttpRequestHead m_Head;  // without the headers that MakeHead adds
    CCmChainPtr m_pBody;
    CmBool m_bBodySet = CM_FALSE;
    CmBool m_bOwnAgent = CM_TRUE;  // the library's User-Agent is sent, unless the application has set another
    EBody m_Body = NO_BODY;
    uint64_t m_ullLength = 0;
};

// The request target: path and query of a URL, without a fragment, percent-encoded as necessary.
TALVO_API CCmString MakeHttpTarget(const CCmHttpUrl& aUrl);
// The same in absolute form, for proxies.
TALVO_API CCmString MakeAbsoluteHttpTarget(const CCmHttpUrl& aUrl);

}  // namespace talvo
