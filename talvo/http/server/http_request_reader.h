// Reads the heads of requests from one connection.
#pragma once

#include "talvo/base/message_block.h"
#include "talvo/http/message/http_request_check.h"
#include "talvo/http/message/http_request_head.h"
#include "talvo/http/server/http_server_settings.h"

namespace talvo {

// Reads lines in place; only a line that comes in pieces is stored until its end. Checks each line as soon as it is complete,
// so that an invalid one is refused at once.
class CHttpRequestReader {
public:
    // Results of Feed besides the status of an answer.
    enum EResult : int { MORE = 0, COMPLETE = 1 };

    explicit CHttpRequestReader(const CHttpServerSettings& aSettings) : m_Settings(aSettings) {}

    // Takes bytes from the chain up to the end of a head, or all of them, and fills aHead (out). After any result but MORE it
    // starts again. Statuses: 400, 414, 431, 503 (memory ran out), 505.
    int Feed(CCmMessageBlock& aChain, CCmHttpRequestHead& aHead);

    // TRUE: a part of a head is read. The empty lines that may precede a head do not count.
    BOOL HasBegun() const { return !m_strPartial.empty() || m_Check.GetLines() > 0; }

private:
    int FeedBlock(CCmMessageBlock& aBlock, CCmHttpRequestHead& aHead);
    int OnLine(CHttpLine aLine, CCmHttpRequestHead& aHead);
    int OnRequestLine(std::string_view aLine, CCmHttpRequestHead& aHead);
    int OnHeaderLine(const CHttpLine& aLine, CCmHttpRequestHead& aHead);
    int OnEnd(CCmHttpRequestHead& aHead);
    BOOL IsHeadTooLarge() const { return m_stHead > m_Settings.m_dwMaxHead; }
    int OnPart(std::string_view aPart);
    int TooLong() const;
    void Reset();

    const CHttpServerSettings& m_Settings;
    CHttpRequestCheck m_Check;
    CCmString m_strPartial;  // a line without its end
    size_t m_stHead = 0;     // bytes of all lines
};

}  // namespace talvo
