// What header texts are made of: case, spaces, tokens and lists of them.
#pragma once

#include <string_view>

#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// Only ASCII letters; the locale has no say.
constexpr char lower_case(char aLetter) { return aLetter >= 'A' && aLetter <= 'Z' ? static_cast<char>(aLetter + 32) : aLetter; }

// Below, at or above zero, as _stricmp orders: bytes as unsigned numbers, letters in lower case.
TALVO_API int compare_no_case(std::string_view aLeft, std::string_view aRight);
inline BOOL equal_no_case(std::string_view aLeft, std::string_view aRight) {
    return aLeft.size() == aRight.size() && compare_no_case(aLeft, aRight) == 0;  // most that are compared differ in length
}

// Without the characters 0x20 around it; tabs stay.
constexpr std::string_view trim_spaces(std::string_view aText) {
    while (!aText.empty() && aText.front() == ' ')
        aText.remove_prefix(1);
    while (!aText.empty() && aText.back() == ' ')
        aText.remove_suffix(1);
    return aText;
}

// Without spaces and tabs around it.
constexpr std::string_view trim_blanks(std::string_view aText) {
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    while (!aText.empty() && isBlank(aText.front()))
        aText.remove_prefix(1);
    while (!aText.empty() && isBlank(aText.back()))
        aText.remove_suffix(1);
    return aText;
}

// One or more of the characters that names of headers and methods are made of.
TALVO_API BOOL is_token(std::string_view aText);

// FALSE: holds CR, LF or NUL and would, when sent, end its line or be read differently by others.
TALVO_API BOOL is_sendable(std::string_view aText);

// Takes the first element off a comma-separated list, without the blanks around it; empty elements are left out. FALSE: there
// is none left. A comma inside a quoted string separates nothing.
TALVO_API BOOL next_element(std::string_view& aList, std::string_view& aElement);

// Whether one of the list's elements is aToken, whatever the case.
TALVO_API BOOL has_token(std::string_view aList, std::string_view aToken);

}  // namespace talvo
