#include "talvo/base/config_text.h"

namespace talvo {

std::string_view TrimBlanks(std::string_view aText) {
    constexpr std::string_view BLANKS = " \t\r\n\v\f";
    const size_t stFirst = aText.find_first_not_of(BLANKS);
    if (stFirst == std::string_view::npos)
        return {};
    return aText.substr(stFirst, aText.find_last_not_of(BLANKS) - stFirst + 1);
}

CConfigLines::EKind CConfigLines::Next() {
    while (!m_Rest.empty()) {
        const size_t stEnd = m_Rest.find('\n');
        const EKind kind = Read_i(TrimBlanks(m_Rest.substr(0, stEnd)));
        m_Rest.remove_prefix(stEnd == std::string_view::npos ? m_Rest.size() : stEnd + 1);
        ++m_dwNumber;
        if (kind != END)
            return kind;
    }
    return END;
}

// END: nothing to report.
CConfigLines::EKind CConfigLines::Read_i(std::string_view aLine) {
    if (aLine.empty() || aLine.front() == '#' || aLine.front() == ';')
        return END;
    if (aLine.front() == '[') {
        if (aLine.back() != ']')
            return MALFORMED;
        m_Section = TrimBlanks(aLine.substr(1, aLine.size() - 2));
        return END;
    }
    const size_t stEqual = aLine.find('=');
    m_Key = TrimBlanks(aLine.substr(0, stEqual));
    if (stEqual == std::string_view::npos || m_Key.empty())
        return MALFORMED;
    m_Value = TrimBlanks(aLine.substr(stEqual + 1));
    if (m_Value.ends_with(';'))
        m_Value = TrimBlanks(m_Value.substr(0, m_Value.size() - 1));
    return VALUE;
}

}  // namespace talvo
