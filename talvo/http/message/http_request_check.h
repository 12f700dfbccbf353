// Checks a request's head against RFC 9112.
#pragma once

#include <string_view>

#include "talvo/base/types.h"
#include "talvo/http/message/http_atom.h"
#include "talvo/http/message/http_header_array.h"
#include "talvo/http/message/http_lines.h"
#include "talvo/http/message/http_version.h"

namespace talvo {

// A valid request line.
struct CHttpRequestLine {
    std::string_view m_Method;
    std::string_view m_Target;
    CCmHttpVersion m_Version = CM_HTTP_VERSION_UNKNOWN;  // 1.1 also for a later minor version (RFC 9110, 6.2)
};

// A valid header line, with the blanks around the value.
struct CHttpField {
    CCmHttpAtom m_Known;  // null: the name is no known one
    CCmHttpAtom m_Other;  // of another name; null: not looked up
    std::string_view m_Name;
    std::string_view m_Value;
};

// Checks each line before it is parsed: if a server reads a head differently from the proxy before it, an attacker can hide
// requests in requests. Uses no socket and has no limits.
class CHttpRequestCheck {
public:
    void Reset() { *this = CHttpRequestCheck(); }

    // The first line, without its end. 0, or the status of the answer: 400, or 505 for another major version than 1.
    // aParts (out): views on it.
    int OnRequestLine(std::string_view aLine, CHttpRequestLine& aParts);

    // The next line. aField (out): its parts, which are views on it. aHead: the fields before it. 0 or 400.
    int OnHeaderLine(const CHttpLine& aLine, const CCmHttpHeaderArray& aHead, CHttpField& aField);

    // The head is complete. 0 or 400.
    int OnEnd() const { return m_bHostNeeded && m_dwHosts == 0 ? 400 : 0; }

    // The number of lines so far.
    DWORD GetLines() const { return m_dwLines; }

private:
    int OnField(const CHttpField& aField);

    DWORD m_dwLines = 0;
    DWORD m_dwHosts = 0;
    DWORD m_dwLengths = 0;
    BOOL m_bHostNeeded = FALSE;
};

}  // namespace talvo
