// The elements of header texts: case, spaces, tokens and lists of them.
#pragma once

#include <string_view>

#include "talvo/base/ascii.h"
#include "talvo/base/export.h"
#include "talvo/base/types.h"
#include "talvo/http/message/http_words.h"

namespace talvo {

// Below, at or above zero, in the order of _stricmp: bytes as unsigned numbers, letters in lower case.
TALVO_API int compare_no_case(std::string_view aLeft, std::string_view aRight);
inline CmBool equal_no_case(std::string_view aLeft, std::string_view aRight) {
    if (aLeft.size() != aRight.size())  // as most compared texts
        return CM_FALSE;
    const auto isEqual = [](uint64_t a, uint64_t b) { return a == b || lower_word(a) == lower_word(b); };
    for (; aLeft.size() > sizeof(uint64_t); aLeft.remove_prefix(sizeof(uint64_t)), aRight.remove_prefix(sizeof(uint64_t))) {
        if (!isEqual(load_word<uint64_t>(aLeft.data()), load_word<uint64_t>(aRight.data())))
            return CM_FALSE;
    }
    return isEqual(word_of(aLeft), word_of(aRight));
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

// As aText = aNew, which is no part of aText. Cheaper if the old text has enough bytes, as the same header of an earlier
// message on a connection mostly has.
inline void replace_text(CCmString& aText, std::string_view aNew) {
    if (aNew.size() > aText.size()) {
        aText.assign(aNew);
        return;
    }
    copy_text(aText.data(), aNew);
    aText.resize(aNew.size());
}

// Appends the texts, with one call of the string for all of them.
template <class... Text>
inline void append_texts(CCmString& aOut, Text... aTexts) {
    const size_t stBefore = aOut.size();
    aOut.resize(stBefore + (aTexts.size() + ...));
    char* pTo = aOut.data() + stBefore;
    ((pTo = copy_text(pTo, aTexts)), ...);
}

// TRUE: contains no control characters but tabs.
TALVO_API CmBool is_field_value(std::string_view aText);

// FALSE: contains CR, LF or NUL. When sent, it would end its line or be read differently by others.
TALVO_API CmBool is_sendable(std::string_view aText);

// TRUE: aToken is one of the list's elements, in any case.
TALVO_API CmBool has_token(std::string_view aList, std::string_view aToken);

}  // namespace talvo
