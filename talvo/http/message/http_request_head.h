// The head of a request.
#pragma once

#include "talvo/http/message/http_header_array.h"
#include "talvo/http/message/http_version.h"

// Request line and headers. A value.
class TALVO_API CCmHttpRequestHead : public CCmHttpHeaderArray {
public:
    // Null: none. Like a header's name it may belong to the head, and is then invalid after Clear.
    CCmHttpAtom GetMethod() const { return m_Method; }
    // FALSE, and nothing changes: not one of the ten known methods. For other methods use SetAnyMethod.
    CmBool SetMethod(const CCmHttpAtom& aMethod);
    // FALSE, and nothing changes: not a token, or memory ran out. The text's atom is that of ResolveName.
    CmBool SetAnyMethod(std::string_view aMethod);

    // Path and query, as on the request line.
    const CCmString& GetRequestURI() const { return m_strRequestURI; }
    void SetRequestURI(std::string_view aURI) { m_strRequestURI.assign(aURI); }

    // The version of HTTP.
    CCmHttpVersion GetVerion() const { return m_Version; }
    void SetVerion(CCmHttpVersion aVersion) { m_Version = aVersion; }
    // The same under their right spelling.
    CCmHttpVersion GetVersion() const { return GetVerion(); }
    void SetVersion(CCmHttpVersion aVersion) { SetVerion(aVersion); }

    // "GET /path HTTP/1.1\r\n" and the headers, without the empty line behind them. Any version but 1.1 is printed as 1.0.
    CCmString Flatten() const;

    // Appends the whole head in a form that may be sent: merged challenges and cookies on a line each, and the empty line.
    void FlattenToSend(CCmString& aOut) const;

    // TRUE: version 1.1, and Connection, or without it Proxy-Connection, is exactly "keep-alive". This is the framework's old
    // and strict rule; talvo::is_persistent is that of RFC 9112.
    CmBool IsPersistent() const;

    CmBool Clear() override;

    // For parsers: the parts of a first line that is valid by RFC 9112. FALSE: memory ran out (CM_HTTP_FAULT_MEMORY).
    CmBool SetFirstLine_i(std::string_view aMethod, std::string_view aURI, CCmHttpVersion aVersion);

protected:
    CmBool ParseFirstLine_t(const char* aLine) override;

private:
    void FlattenFirstLine(CCmString& aOut) const;

    CCmHttpAtom m_Method;
    CCmHttpVersion m_Version = CM_HTTP_VERSION_UNKNOWN;
    CCmString m_strRequestURI;
};
