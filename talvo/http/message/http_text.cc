#include "talvo/http/message/http_text.h"

#include <algorithm>
#include <array>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "talvo/http/message/http_list.h"

namespace talvo {

namespace {

constexpr auto TOKEN_LETTERS = [] {
    std::array<bool, 256> table{};
    for (const char c : std::string_view("!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"))
        table[static_cast<BYTE>(c)] = true;
    return table;
}();

constexpr size_t PIECE = 16;

// TRUE: none of that many bytes is a control character.
bool is_plain_piece(const char* aBytes) {
#ifdef __SSE2__
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(aBytes));
    const __m128i below = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(0x1F)), bytes);
    return _mm_movemask_epi8(_mm_or_si128(below, _mm_cmpeq_epi8(bytes, _mm_set1_epi8(0x7F)))) == 0;
#else
    return !has_control_byte(load_word<uint64_t>(aBytes)) && !has_control_byte(load_word<uint64_t>(aBytes + PIECE / 2));
#endif
}

// TRUE: contains no control character at all, which is usual and quickly established. FALSE: possibly one.
BOOL is_plain(std::string_view aText) {
    if (aText.size() < sizeof(DWORD))
        return !has_control(aText);
    if (aText.size() <= sizeof(uint64_t))
        return !has_control_byte(word_of(aText));
    const char* pBytes = aText.data();
    const char* const pEnd = pBytes + aText.size();
    if (aText.size() < PIECE)
        return !has_control_byte(load_word<uint64_t>(pBytes)) &&
               !has_control_byte(load_word<uint64_t>(pEnd - sizeof(uint64_t)));
    for (; pEnd - pBytes > std::ptrdiff_t{PIECE}; pBytes += PIECE) {
        if (!is_plain_piece(pBytes))
            return FALSE;
    }
    return is_plain_piece(pEnd - PIECE);  // some of its bytes twice
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

BOOL is_field_value(std::string_view aText) {
    return is_plain(aText) || std::all_of(aText.begin(), aText.end(), [](char c) { return c == '\t' || !is_control(c); });
}

BOOL is_sendable(std::string_view aText) {
    if (is_plain(aText))
        return TRUE;
    return aText.find('\r') == std::string_view::npos && aText.find('\n') == std::string_view::npos &&
           aText.find('\0') == std::string_view::npos;
}

BOOL has_token(std::string_view aList, std::string_view aToken) {
    for (std::string_view element; cm_next_list_element(aList, element);) {
        if (equal_no_case(element, aToken))
            return TRUE;
    }
    return FALSE;
}

}  // namespace talvo
