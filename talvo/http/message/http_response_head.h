// The head of a response.
#pragma once

#include "talvo/http/message/http_header_array.h"
#include "talvo/http/message/http_version.h"

// Status line and headers. A value.
class TALVO_API CCmHttpResponseHead : public CCmHttpHeaderArray {
public:
    // The status code.
    long GetStatus() const { return m_lStatus; }
    void SetStatus(long aStatus) { m_lStatus = static_cast<int32_t>(aStatus); }

    // The reason phrase.
    const CCmString& GetStatusText() const { return m_strStatusText; }
    void SetStatusText(std::string_view aText) { m_strStatusText.assign(aText); }

    // The version of HTTP.
    CCmHttpVersion GetVerion() const { return m_Version; }
    void SetVerion(CCmHttpVersion aVersion) { m_Version = aVersion; }
    // The same under their right spelling.
    CCmHttpVersion GetVersion() const { return GetVerion(); }
    void SetVersion(CCmHttpVersion aVersion) { SetVerion(aVersion); }

    // 0 for the statuses 204, 205 and 304, otherwise that of the headers: -1 without Content-Length.
    long GetContentLength() const;

    // "HTTP/1.1 200 OK\r\n" and the headers, without the empty line behind them. An unknown version is omitted.
    CCmString Flatten() const;

    // Appends the whole head in a form that may be sent: merged challenges and cookies on a line each, and the empty line.
    void FlattenToSend(CCmString& aOut) const;

    // A response must declare that its connection persists: FALSE without Connection and Proxy-Connection, for any version.
    // Otherwise the first of them decides: 1.1 unless it is "close", 1.0 if it is "keep-alive". This is the framework's old and
    // strict rule; talvo::is_persistent is that of RFC 9112.
    CmBool IsPersistent() const;

    CmBool Clear() override;

protected:
    CmBool ParseFirstLine_t(const char* aLine) override;

private:
    void FlattenFirstLine(CCmString& aOut) const;

    CCmHttpVersion m_Version = CM_HTTP_VERSION_UNKNOWN;
    int32_t m_lStatus = 0;
    CCmString m_strStatusText;
};
