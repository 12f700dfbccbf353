// The end of a message, and the persistence of its connection, by RFC 9112.
#pragma once

#include "talvo/base/export.h"
#include "talvo/base/types.h"
#include "talvo/http/message/http_body.h"
#include "talvo/http/message/http_request_head.h"
#include "talvo/http/message/http_response_head.h"

namespace talvo {

struct CHttpFraming {
    EHttpBody m_Body = EHttpBody::NONE;
    uint64_t m_ullLength = 0;  // of LENGTH
    int m_nError = 0;          // 0: valid. Of a request: the status of the refusal. Of a response: 502 or 501, it is unusable
    CmBool m_bMustClose = CM_FALSE;  // overrides the persistence of the head
};

// Sections 6.1 and 6.3. 400: both Transfer-Encoding and Content-Length; chunked in 1.0, twice or not last; a length that is not
// a number, or several different ones. 501: a coding other than chunked, including "identity". Both are refused because other
// readers may find another end of the message.
TALVO_API CHttpFraming get_request_framing(const CCmHttpRequestHead& aHead);

// The same for the response to a request of aMethod: none for HEAD, 1xx, 204, 304 and a successful CONNECT. With both fields,
// or with chunked in 1.0, chunked takes precedence and the connection must be closed. 502: an invalid length or chunked not
// last. 501: a coding other than chunked and "identity".
TALVO_API CHttpFraming get_response_framing(const CCmHttpResponseHead& aHead, const CCmHttpAtom& aMethod);

// Section 9.3: FALSE with the Connection option "close"; otherwise TRUE in 1.1, and in 1.0 with "keep-alive".
TALVO_API CmBool is_persistent(CCmHttpVersion aVersion, const CCmHttpHeaderArray& aHeaders);

}  // namespace talvo
