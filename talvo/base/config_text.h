// Texts of section lines "[Name]" and "key=value" lines.
#pragma once

#include <algorithm>
#include <string_view>

#include "talvo/base/ascii.h"
#include "talvo/base/types.h"

namespace talvo {

// Walks over the lines of a text, which must outlive it. Blanks around names, keys and values are removed, and so is a trailing
// ";" of a value. Empty lines and lines that begin with '#' or ';' are skipped. Allocates nothing.
class CConfigLines {
public:
    enum EKind {
        VALUE,      // GetSection, GetKey and GetValue are valid
        MALFORMED,  // neither a section, nor a key with its value
        END
    };

    explicit CConfigLines(std::string_view aText) : m_Rest(aText) {}

    // Goes to the next line with a value, or to the next malformed one.
    EKind Next();

    DWORD GetNumber() const { return m_dwNumber; }  // of the line, from 1
    std::string_view GetSection() const { return m_Section; }
    std::string_view GetKey() const { return m_Key; }
    std::string_view GetValue() const { return m_Value; }

private:
    EKind Read_i(std::string_view aLine);

    std::string_view m_Rest;
    DWORD m_dwNumber = 0;
    std::string_view m_Section, m_Key, m_Value;  // parts of the text
};

// aText without the blanks at both ends: space, tab, carriage return, line, vertical and form feed.
std::string_view TrimBlanks(std::string_view aText);

inline BOOL IsSameNoCase(std::string_view aLeft, std::string_view aRight) {
    return std::ranges::equal(aLeft, aRight, [](char a, char b) { return lower_case(a) == lower_case(b); });
}

}  // namespace talvo
