// The head of an answer.
#pragma once

#include <string_view>

#include "talvo/http/message/http_body.h"
#include "talvo/http/message/http_request_head.h"

namespace talvo {

// Status and headers as the application sets them, and their printed form. Keeps its memory for the next answer.
class CHttpServerAnswer final : private CCmHttpHeaderArray {
public:
    void Reset();

    // As in ICmChannelHttpServer: CM_ERROR_INVALID_ARG for invalid texts, and for headers that the server sets itself.
    CmResult SetStatus(long aStatus, std::string_view aText);
    CmResult SetHeader(const CCmHttpAtom& aAtom, std::string_view aValue, BOOL aMerge);

    // "Connection" has been set to "close"; no other value of it is used.
    BOOL IsToClose() const { return m_bToClose; }

    // The status forbids a body. A client still expects the body of a 205, so its length is printed as 0.
    BOOL IsWithoutBody() const;

    // The framing of a body of aLength bytes (or ICmChannelHttpServer::UNKNOWN_LENGTH) for the client of aRequest.
    EHttpBody GetBody(const CCmHttpRequestHead& aRequest, uint64_t aLength) const;

    // Appends the whole head to aOut (out): status line, headers, framing, then aTail, which ends it.
    void Print(EHttpBody aBody, uint64_t aLength, std::string_view aTail, CCmString& aOut) const;

private:
    long m_lStatus = 200;
    CCmString m_strText;  // empty: the usual one
    BOOL m_bToClose = FALSE;
};

}  // namespace talvo
