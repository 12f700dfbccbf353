// Letters and control characters, independent of the locale.
#pragma once

#include <algorithm>
#include <string_view>

#include "talvo/base/types.h"

namespace talvo {

constexpr char lower_case(char aLetter) { return aLetter >= 'A' && aLetter <= 'Z' ? static_cast<char>(aLetter + 32) : aLetter; }

inline CCmString to_lower(std::string_view aText) {
    CCmString strLower(aText);
    std::transform(strLower.begin(), strLower.end(), strLower.begin(), lower_case);
    return strLower;
}

constexpr CmBool is_control(char aByte) { return (aByte >= '\0' && aByte < ' ') || aByte == '\x7F'; }

constexpr CmBool has_control(std::string_view aText) { return std::any_of(aText.begin(), aText.end(), is_control); }

}  // namespace talvo
