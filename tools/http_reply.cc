#include "tools/http_reply.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstring>

namespace tool {

namespace {

constexpr size_t LONGEST_LINE = 16384;

bool ReadNumber(std::string_view aText, int aBase, uint64_t& aValue) {
    const auto result = std::from_chars(aText.data(), aText.data() + aText.size(), aValue, aBase);
    return result.ec == std::errc() && aValue <= INT64_MAX;
}

// The value of the header aName, if aLine has that name.
bool HasName(std::string_view aLine, std::string_view aName, std::string_view& aValue) {
    if (aLine.size() <= aName.size() || aLine[aName.size()] != ':' ||
        strncasecmp(aLine.data(), aName.data(), aName.size()) != 0)
        return false;
    aValue = aLine.substr(aName.size() + 1);
    aValue.remove_prefix(std::min(aValue.find_first_not_of(" \t"), aValue.size()));
    return true;
}

bool IsWord(std::string_view aValue, std::string_view aWord) {
    return aValue.size() == aWord.size() && strncasecmp(aValue.data(), aWord.data(), aWord.size()) == 0;
}

}  // namespace

HttpReply::EResult HttpReply::Feed(std::string_view& aBytes) {
    EResult result = MORE;
    while (!aBytes.empty() && result == MORE) {
        if (m_State == BODY || m_State == CHUNK) {
            const size_t stTaken = std::min<uint64_t>(aBytes.size(), m_ullLeft);
            aBytes.remove_prefix(stTaken);
            m_ullLeft -= stTaken;
            if (m_ullLeft == 0 && m_State == BODY)
                return Finish();
            if (m_ullLeft == 0)
                m_State = CHUNK_SIZE;
            continue;
        }
        const size_t stEnd = aBytes.find('\n');
        m_strLine.append(aBytes.substr(0, stEnd));
        aBytes.remove_prefix(stEnd == std::string_view::npos ? aBytes.size() : stEnd + 1);
        if (m_strLine.size() > LONGEST_LINE)
            return BROKEN;
        if (stEnd == std::string_view::npos)
            return MORE;
        if (m_strLine.ends_with('\r'))
            m_strLine.pop_back();
        result = OnLine(m_strLine);
        m_strLine.clear();
    }
    return result;
}

HttpReply::EResult HttpReply::OnLine(std::string_view aLine) {
    switch (m_State) {
    case HEAD:
        return aLine.empty() && !m_bFirst ? OnHeadEnd() : OnHeadLine(aLine);
    case CHUNK_SIZE:
        if (aLine.empty())
            return MORE;  // behind a chunk
        if (!ReadNumber(aLine, 16, m_ullLeft))
            return BROKEN;
        m_State = m_ullLeft > 0 ? CHUNK : TRAILER;
        return MORE;
    case TRAILER:
        return aLine.empty() ? Finish() : MORE;
    case BODY:
    case CHUNK:
        break;
    }
    return BROKEN;
}

HttpReply::EResult HttpReply::OnHeadLine(std::string_view aLine) {
    std::string_view value;
    if (m_bFirst) {
        uint64_t ullStatus = 0;
        if (!aLine.starts_with("HTTP/1.") || aLine.size() < 12 || !ReadNumber(aLine.substr(9, 3), 10, ullStatus))
            return BROKEN;
        m_bFirst = m_bChunked = m_bSized = false;
        m_bClose = aLine[7] == '0';
        m_nStatus = static_cast<int>(ullStatus);
        m_ullLeft = 0;
        return MORE;
    }
    if (HasName(aLine, "Content-Length", value))
        return (m_bSized = ReadNumber(value, 10, m_ullLeft)) ? MORE : BROKEN;
    if (HasName(aLine, "Transfer-Encoding", value))
        m_bChunked = IsWord(value, "chunked");
    if (HasName(aLine, "Connection", value))
        m_bClose = IsWord(value, "close") || (m_bClose && !IsWord(value, "keep-alive"));
    return MORE;
}

HttpReply::EResult HttpReply::OnHeadEnd() {
    const bool bInterim = m_nStatus / 100 == 1;
    const bool bNoBody = m_nStatus == 204 || m_nStatus == 304;
    m_bFirst = bInterim;
    if (bInterim)
        return MORE;
    if (m_bChunked)
        m_State = CHUNK_SIZE;
    else if (bNoBody || (m_bSized && m_ullLeft == 0))
        return Finish();
    else if (m_bSized)
        m_State = BODY;
    else
        return BROKEN;  // only the end of the connection would end it
    return MORE;
}

HttpReply::EResult HttpReply::Finish() {
    m_State = HEAD;
    m_bFirst = true;
    return COMPLETE;
}

}  // namespace tool
