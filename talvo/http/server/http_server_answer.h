// What an answer says before its body.
#pragma once

#include <string_view>

#include "talvo/http/message/http_body.h"
#include "talvo/http/message/http_request_head.h"

namespace talvo {

// Status and headers as the application sets them, and how they are printed. Keeps its memory for the next answer.
class CHttpServerAnswer final : private CCmHttpHeaderArray {
public:
    void Reset();

    // As ICmChannelHttpServer has them: CM_ERROR_INVALID_ARG for what must not be sent, and for what is not theirs.
    CmResult SetStatus(long aStatus, std::string_view aText);
    CmResult SetHeader(const CCmHttpAtom& aAtom, std::string_view aValue, BOOL aMerge);

    // "Connection" has been set to "close", which is all that is taken from it.
    BOOL IsToClose() const { return m_bToClose; }

    // The status says that there is none. A client looks for the body of a 205 all the same: its length is printed as 0.
    BOOL IsWithoutBody() const;

    // How a body of aLength bytes, perhaps ICmChannelHttpServer::UNKNOWN_LENGTH, is sent to that client.
    EHttpBody GetBody(const CCmHttpRequestHead& aRequest, uint64_t aLength) const;

    // Appends the whole head: status line, headers, framing, then aTail, which ends it.
    void Print(EHttpBody aBody, uint64_t aLength, std::string_view aTail, CCmString& aOut) const;

private:
    long m_lStatus = 200;
    CCmString m_strText;  // empty: the usual one
    BOOL m_bToClose = FALSE;
};

}  // namespace talvo
