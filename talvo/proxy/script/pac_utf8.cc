#include "talvo/proxy/script/pac_utf8.h"

namespace talvo {

namespace {

constexpr std::string_view MARK = "\xEF\xBB\xBF";

BOOL IsUtf8(std::string_view aText) {
    while (!aText.empty()) {
        const size_t stLength = GetUtf8Length(aText);
        if (stLength == 0)
            return FALSE;
        aText.remove_prefix(stLength);
    }
    return TRUE;
}

CCmString FromLatin1(std::string_view aText) {
    CCmString strUtf8;
    strUtf8.reserve(aText.size());
    for (const char c : aText) {
        const auto by = static_cast<BYTE>(c);
        if (by >= 0x80) {
            strUtf8 += static_cast<char>(0xC0 | by >> 6);
            strUtf8 += static_cast<char>(0x80 | (by & 0x3F));
        } else {
            strUtf8 += c;
        }
    }
    return strUtf8;
}

}  // namespace

size_t GetUtf8Length(std::string_view aText) {
    if (aText.empty())
        return 0;
    const auto byFirst = static_cast<BYTE>(aText[0]);
    if (byFirst < 0x80)
        return 1;
    const size_t stLength = byFirst >= 0xF0 ? 4 : byFirst >= 0xE0 ? 3 : 2;
    if (byFirst < 0xC2 || byFirst > 0xF4 || aText.size() < stLength)
        return 0;
    for (size_t i = 1; i < stLength; ++i) {
        if ((static_cast<BYTE>(aText[i]) & 0xC0) != 0x80)
            return 0;
    }
    // The shortest form only, no surrogate, and nothing above U+10FFFF.
    const auto bySecond = static_cast<BYTE>(aText[1]);
    const BOOL bWrong = (byFirst == 0xE0 && bySecond < 0xA0) || (byFirst == 0xED && bySecond > 0x9F) ||
                        (byFirst == 0xF0 && bySecond < 0x90) || (byFirst == 0xF4 && bySecond > 0x8F);
    return bWrong ? 0 : stLength;
}

BOOL DecodeScript(CCmString& aText, size_t aMost) {
    if (!IsUtf8(aText))
        aText = FromLatin1(aText);
    if (aText.starts_with(MARK))
        aText.erase(0, MARK.size());
    return aText.size() <= aMost;
}

}  // namespace talvo
