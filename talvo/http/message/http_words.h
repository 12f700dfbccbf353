// Header texts, eight bytes at a time.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "talvo/base/types.h"

namespace talvo {

inline constexpr uint64_t EACH_BYTE = 0x0101010101010101;  // times a byte: that byte in each place
inline constexpr uint64_t HIGH_BITS = 0x80 * EACH_BYTE;    // of each byte

template <class Word>
constexpr Word load_word(const char* aBytes) {
    std::array<char, sizeof(Word)> bytes{};
    std::copy_n(aBytes, bytes.size(), bytes.begin());
    return std::bit_cast<Word>(bytes);
}

// All bytes of a text of at most eight, some of them twice: texts of one length are equal if and only if these words are.
constexpr uint64_t word_of(std::string_view aText) {
    const char* pText = aText.data();
    const size_t stLength = aText.size();
    if (stLength >= sizeof(CmDword))
        return load_word<CmDword>(pText) | uint64_t{load_word<CmDword>(pText + stLength - sizeof(CmDword))} << 32;
    if (stLength == 0)
        return 0;
    const auto byte = [=](size_t aAt) { return uint64_t{static_cast<CmByte>(pText[aAt])}; };
    return byte(0) | byte(stLength / 2) << 8 | byte(stLength - 1) << 16;
}

// Copies a text to aTo and returns the position behind it. Most texts of a head are so short that a call costs more than the
// copy. The last piece may overlap the one before it.
inline char* copy_text(char* aTo, std::string_view aText) {
    const char* pText = aText.data();
    const size_t stLength = aText.size();
    char* const pEnd = aTo + stLength;
    const auto copy = [&](auto aSize) {  // the first and the last bytes
        std::memcpy(aTo, pText, aSize);
        std::memcpy(pEnd - aSize, pText + stLength - aSize, aSize);
    };
    using std::integral_constant;
    if (stLength > 64)
        std::memcpy(aTo, pText, stLength);
    else if (stLength > 32)
        copy(integral_constant<size_t, 32>());
    else if (stLength >= 16)
        copy(integral_constant<size_t, 16>());
    else if (stLength >= 8)
        copy(integral_constant<size_t, 8>());
    else if (stLength >= 4)
        copy(integral_constant<size_t, 4>());
    else if (stLength > 0) {
        aTo[0] = pText[0];
        aTo[stLength / 2] = pText[stLength / 2];
        pEnd[-1] = pText[stLength - 1];
    }
    return pEnd;
}

// The letters A to Z in lower case, other bytes unchanged.
constexpr uint64_t lower_word(uint64_t aWord) {
    const uint64_t ullLow = aWord & ~HIGH_BITS;
    const uint64_t ullAboveZ = ullLow + (0x7F - 'Z') * EACH_BYTE, ullFromA = ullLow + (0x80 - 'A') * EACH_BYTE;
    return aWord | ((ullFromA & ~ullAboveZ & ~aWord & HIGH_BITS) >> 2);
}

// TRUE: a byte is below 0x20, or 0x7F.
constexpr bool has_control_byte(uint64_t aWord) {
    const uint64_t ullDelete = aWord ^ 0x7F * EACH_BYTE;
    const uint64_t ullBelow = (aWord - 0x20 * EACH_BYTE) & ~aWord, ullZero = (ullDelete - EACH_BYTE) & ~ullDelete;
    return ((ullBelow | ullZero) & HIGH_BITS) != 0;
}

}  // namespace talvo
