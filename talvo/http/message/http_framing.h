// Where messages end and whether another follows, by RFC 9112.
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
    int m_nError = 0;          // 0: fine. Of a request: the status to refuse it with. Of a response: 502 or 501, it is unusable
    BOOL m_bMustClose = FALSE;  // whatever the head says about persistence
};

// Sections 6.1 and 6.3. 400: both Transfer-Encoding and Content-Length, chunked in 1.0, twice or not last, a length that is no
// number or differs. 501: a coding other than chunked, "identity" too. Either is refused because others may see another end of
// the message.
TALVO_API CHttpFraming get_request_framing(const CCmHttpRequestHead& aHead);

// The same of the response to a request of aMethod: none for HEAD, 1xx, 204, 304 and a CONNECT that succeeded. With both
// fields, or chunked in 1.0, chunked counts and the connection must be closed. 502: a bad length or chunked not last. 501: a
// coding other than chunked and "identity".
TALVO_API CHttpFraming get_response_framing(const CCmHttpResponseHead& aHead, const CCmHttpAtom& aMethod);

// Section 9.3: not with the Connection option "close"; else in 1.1, and in 1.0 with "keep-alive".
TALVO_API BOOL is_persistent(CCmHttpVersion aVersion, const CCmHttpHeaderArray& aHeaders);

}  // namespace talvo
