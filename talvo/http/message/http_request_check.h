// Whether a request's head is written as RFC 9112 has it.
#pragma once

#include <string_view>

#include "talvo/base/types.h"

namespace talvo {

// Looks at each line before anybody makes something of it: a server that reads a head in another way than the proxy before it
// lets a stranger hide requests in requests. Knows no socket and no limits.
class CHttpRequestCheck {
public:
    void Reset() { *this = CHttpRequestCheck(); }

    // The next line, without its end. 0, or the status of the answer: 400, 505 for another major version than 1.
    int OnLine(std::string_view aLine) { return m_dwLines++ == 0 ? OnRequestLine(aLine) : OnHeaderLine(aLine); }

    // The head is complete. 0 or 400.
    int OnEnd() const { return m_bHostNeeded && m_dwHosts == 0 ? 400 : 0; }

    // The request is of HTTP/1.2 or a later minor version, which a server handles as 1.1 (RFC 9110, 6.2).
    BOOL IsLaterMinor() const { return m_bLaterMinor; }

    // How many lines there have been.
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
