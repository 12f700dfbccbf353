// Cuts a stream of bytes into lines.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// A line without its end. One that is longer than the limit of its splitter has lost its text.
struct Line {
    std::string m_strText;
    uint64_t m_ullLength = 0;
    uint64_t m_ullNumber = 0;  // from 1 on

    bool IsWhole() const { return m_strText.size() == m_ullLength; }
};

// Its memory stays below twice the limit and what is fed at once.
class LineSplitter {
public:
    explicit LineSplitter(size_t aLimit) : m_stLimit(aLimit) {}

    void Feed(std::string_view aBytes) { m_strRest.append(aBytes); }

    // aLine (out): the next line. false: the rest has no end yet.
    bool Next(Line& aLine) {
        const size_t stEnd = m_strRest.find('\n', m_stSeen);
        if (stEnd == std::string::npos) {
            KeepRest();
            return false;
        }
        TakeTo(stEnd, aLine);
        m_stBegin = m_stSeen = stEnd + 1;
        return true;
    }

    // After Next: the rest as a last line. false: it is empty.
    bool TakeRest(Line& aLine) {
        TakeTo(m_strRest.size(), aLine);
        m_strRest.clear();
        m_stBegin = m_stSeen = 0;
        return aLine.m_ullLength > 0;
    }

private:
    void TakeTo(size_t aEnd, Line& aLine) {
        const size_t stLength = aEnd - m_stBegin;
        aLine.m_ullLength = m_ullLost + stLength;
        aLine.m_ullNumber = ++m_ullLines;
        aLine.m_strText = m_strRest.substr(m_stBegin, aLine.m_ullLength > m_stLimit ? 0 : stLength);
        m_ullLost = 0;
    }
    void KeepRest() {
        m_strRest.erase(0, m_stBegin);
        if (m_ullLost > 0 || m_strRest.size() > m_stLimit) {
            m_ullLost += m_strRest.size();
            m_strRest.clear();
        }
        m_stBegin = 0;
        m_stSeen = m_strRest.size();
    }

    const size_t m_stLimit;
    std::string m_strRest;
    size_t m_stBegin = 0;    // of the next line
    size_t m_stSeen = 0;     // no end of a line between m_stBegin and this
    uint64_t m_ullLost = 0;  // bytes of the next line
    uint64_t m_ullLines = 0;
};

}  // namespace tool
