#include "talvo/http/message/http_text.h"

#include <algorithm>
#include <array>

namespace talvo {

namespace {

constexpr auto TOKEN_LETTERS = [] {
    std::array<bool, 256> table{};
    for (const char c : std::string_view("!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"))
        table[static_cast<BYTE>(c)] = true;
    return table;
}();

// The end of the element at the front. A backslash in quotes escapes the next character.
size_t end_of_element(std::string_view aList) {
    BOOL bQuoted = FALSE;
    for (size_t i = 0; i < aList.size(); ++i) {
        if (aList[i] == '"')
            bQuoted = !bQuoted;
        else if (bQuoted && aList[i] == '\\')
            ++i;
        else if (!bQuoted && aList[i] == ',')
            return i;
    }
    return aList.size();
}

}  // namespace

int compare_no_case(std::string_view aLeft, std::string_view aRight) {
    const size_t stCommon = std::min(aLeft.size(), aRight.size());
    for (size_t i = 0; i < stCommon; ++i) {
        if (aLeft[i] == aRight[i])
            continue;
        const int nDifference = static_cast<BYTE>(lower_case(aLeft[i])) - static_cast<BYTE>(lower_case(aRight[i]));
        if (nDifference != 0)
            return nDifference;
    }
    return aLeft.size() == aRight.size() ? 0 : aLeft.size() < aRight.size() ? -1 : 1;
}

BOOL is_token(std::string_view aText) {
    return !aText.empty() &&
           std::all_of(aText.begin(), aText.end(), [](char c) { return TOKEN_LETTERS[static_cast<BYTE>(c)]; });
}

BOOL is_sendable(std::string_view aText) {
    return aText.find('\r') == std::string_view::npos && aText.find('\n') == std::string_view::npos &&
           aText.find('\0') == std::string_view::npos;
}

BOOL next_element(std::string_view& aList, std::string_view& aElement) {
    while (!aList.empty()) {
        const size_t stEnd = end_of_element(aList);
        aElement = trim_blanks(aList.substr(0, stEnd));
        aList.remove_prefix(std::min(stEnd + 1, aList.size()));
        if (!aElement.empty())
            return TRUE;
    }
    return FALSE;
}

BOOL has_token(std::string_view aList, std::string_view aToken) {
    for (std::string_view element; next_element(aList, element);) {
        if (equal_no_case(element, aToken))
            return TRUE;
    }
    return FALSE;
}

}  // namespace talvo
