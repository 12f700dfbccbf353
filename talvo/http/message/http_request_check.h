// Checks a request's head against RFC 9112.
#pragma once

#include <string_view>

#include "talvo/base/types.h"

namespace talvo {

// Checks each line before it is parsed: if a server reads a head differently from the proxy before it, an attacker can hide
// requests in requests. Uses no socket and has no limits.
class CHttpRequestCheck {
public:
    void Reset() { *this = CHttpRequestCheck(); }

    // The next line, without its end. 0, or the status of the answer: 400, or 505 for another major version than 1.
    int OnLine(std::string_view aLine) { return m_dwLines++ == 0 ? OnRequestLine(aLine) : OnHeaderLine(aLine); }

    // The head is complete. 0 or 400.
    int OnEnd() const { return m_bHostNeeded && m_dwHosts == 0 ? 400 : 0; }

    // TRUE: the request is of HTTP/1.2 or a later minor version, which a server handles as 1.1 (RFC 9110, 6.2).
    BOOL IsLaterMinor() const { return m_bLaterMinor; }

    // The number of lines so far.
    DWORD GetLines() const { return m_dwLines; }

private:
    int OnRequestLine(std::string_view aLine);
    int OnHeaderLine(std::string_view aLine);
    int OnHeader(std::string_view aName, std::string_view aValue);

    DWORD m_dwLines = 0;
    DWORD m_dwHosts = 0;
    DWORD m_dwLengths = 0;
    BOOL m_bHostNeeded = FALSE;
    BOOL m_bLaterMinor = FALSE;
};

}  // namespace talvo
