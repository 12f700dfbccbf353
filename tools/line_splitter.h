// Cuts a stream of bytes into lines.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// A line that is longer than the limit is cut into several.
class LineSplitter {
public:
    explicit LineSplitter(size_t aLimit) : m_stLimit(aLimit) {}

    void Feed(std::string_view aBytes) { m_strRest.append(aBytes); }

    // aLine (out): the next line, without its end. false: the rest has no end yet.
    bool Next(std::string& aLine) {
        const size_t stEnd = m_strRest.find('\n', m_stSeen);
        if (stEnd == std::string::npos && m_strRest.size() - m_stBegin <= m_stLimit) {
            m_strRest.erase(0, m_stBegin);
            m_stBegin = 0;
            m_stSeen = m_strRest.size();
            return false;
        }
        const size_t stLength = std::min(stEnd - m_stBegin, m_stLimit);
        aLine = m_strRest.substr(m_stBegin, stLength);
        m_stBegin += stLength + (m_stBegin + stLength == stEnd);
        m_stSeen = m_stBegin;
        return true;
    }

    // The rest as a last line, which may be empty.
    std::string TakeRest() {
        std::string strRest = m_strRest.substr(m_stBegin);
        m_strRest.clear();
        m_stBegin = m_stSeen = 0;
        return strRest;
    }

private:
    const size_t m_stLimit;
    std::string m_strRest;
    size_t m_stBegin = 0;  // of the next line
    size_t m_stSeen = 0;   // no end of a line between m_stBegin and this
};

}  // namespace tool
