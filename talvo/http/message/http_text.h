// The elements of header texts: case, spaces, tokens and lists of them.
#pragma once

#include <string_view>

#include "talvo/base/ascii.h"
#include "talvo/base/export.h"
#include "talvo/base/types.h"

namespace talvo {

// Below, at or above zero, in the order of _stricmp: bytes as unsigned numbers, letters in lower case.
TALVO_API int compare_no_case(std::string_view aLeft, std::string_view aRight);
inline CmBool equal_no_case(std::string_view aLeft, std::string_view aRight) {
    return aLeft.size() == aRight.size() && compare_no_case(aLeft, aRight) == 0;  // most compared texts differ in length
}

// Removes the characters 0x20 around it; tabs stay.
constexpr std::string_view trim_spaces(std::string_view aText) {
    while (!aText.empty() && aText.front() == ' ')
        aText.remove_prefix(1);
    while (!aText.empty() && aText.back() == ' ')
        aText.remove_suffix(1);
    return aText;
}

// Removes spaces and tabs around it.
constexpr std::string_view trim_blanks(std::string_view aText) {
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    while (!aText.empty() && isBlank(aText.front()))
        aText.remove_prefix(1);
    while (!aText.empty() && isBlank(aText.back()))
        aText.remove_suffix(1);
    return aText;
}

// TRUE: one or more of the characters allowed in the names of headers and methods.
TALVO_API CmBool is_token(std::string_view aText);

// FALSE: contains CR, LF or NUL. When sent, it would end its line or be read differently by others.
TALVO_API CmBool is_sendable(std::string_view aText);

// TRUE: aToken is one of the list's elements, in any case.
TALVO_API CmBool has_token(std::string_view aList, std::string_view aToken);

}  // namespace talvo
