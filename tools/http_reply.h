// Finds the ends of HTTP replies in a stream, for measurements.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// Replies to GET, with a length or in chunks, one after the other. Their bodies are not kept.
class HttpReply {
public:
    enum EResult { MORE, COMPLETE, BROKEN };

    // Takes bytes from the front of aBytes, at most those of one reply.
    EResult Feed(std::string_view& aBytes);

    // Of the last complete one.
    int GetStatus() const { return m_nStatus; }
    bool IsLast() const { return m_bClose; }  // the server closes the connection behind it

private:
    enum EState { HEAD, BODY, CHUNK_SIZE, CHUNK, TRAILER };

    EResult OnLine(std::string_view aLine);
    EResult OnHeadLine(std::string_view aLine);
    EResult OnHeadEnd();
    EResult Finish();

    EState m_State = HEAD;
    std::string m_strLine;
    bool m_bFirst = true;  // the status line comes next
    bool m_bChunked = false;
    bool m_bSized = false;
    bool m_bClose = false;
    int m_nStatus = 0;
    uint64_t m_ullLeft = 0;  // of the body or the chunk
};

}  // namespace tool
