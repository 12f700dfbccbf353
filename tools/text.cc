#include "tools/text.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace tool {

namespace {

constexpr char32_t NO_CODE = ~char32_t{0};  // a byte that is no UTF-8

struct Character {
    char32_t m_Code;
    size_t m_stLength;
};

size_t GetLength(unsigned char aFirst) {
    if (aFirst < 0x80)
        return 1;
    return aFirst < 0xC2 || aFirst > 0xF4 ? 0 : aFirst < 0xE0 ? 2 : aFirst < 0xF0 ? 3 : 4;
}

// The first character of aText, which is not empty.
Character Decode(std::string_view aText) {
    const auto first = static_cast<unsigned char>(aText[0]);
    const size_t stLength = GetLength(first);
    if (stLength == 0 || stLength > aText.size())
        return {NO_CODE, 1};
    char32_t code = stLength == 1 ? first : first & (0x7F >> stLength);
    for (const char c : aText.substr(1, stLength - 1)) {
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80)
            return {NO_CODE, 1};
        code = code << 6 | (static_cast<unsigned char>(c) & 0x3F);
    }
    constexpr char32_t LEAST[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool bSurrogate = code >= 0xD800 && code <= 0xDFFF;
    return code < LEAST[stLength] || bSurrogate || code > 0x10FFFF ? Character{NO_CODE, 1} : Character{code, stLength};
}

// Terminals take some of U+0080 to U+009F as the start of a command.
bool IsControl(char32_t aCode) { return aCode < 0x20 || (aCode >= 0x7F && aCode <= 0x9F); }

// It ends a line, or changes the direction of the text.
bool IsLayout(char32_t aCode) {
    return aCode == 0x61C || aCode == 0x200E || aCode == 0x200F || (aCode >= 0x2028 && aCode <= 0x202E) ||
           (aCode >= 0x2066 && aCode <= 0x2069);
}

template <class MakeText>
std::string Replace(std::string_view aText, const MakeText& aMakeText) {
    std::string strText;
    strText.reserve(aText.size());
    while (!aText.empty()) {
        const Character next = Decode(aText);
        if (next.m_Code == NO_CODE || IsControl(next.m_Code) || IsLayout(next.m_Code))
            strText += aMakeText(next.m_Code);
        else
            strText += aText.substr(0, next.m_stLength);
        aText.remove_prefix(next.m_stLength);
    }
    return strText;
}

}  // namespace

std::string Printable(std::string_view aText) {
    return Replace(aText, [](char32_t) { return '?'; });
}

std::string PrintableJson(std::string_view aJson) {
    return Replace(aJson, [](char32_t aCode) {
        char szEscape[16];
        std::snprintf(szEscape, sizeof szEscape, "\\u%04x", aCode == NO_CODE ? 0xFFFDu : static_cast<unsigned>(aCode));
        return std::string(szEscape);
    });
}

bool HasControl(std::string_view aText) {
    for (; !aText.empty(); aText.remove_prefix(Decode(aText).m_stLength)) {
        if (IsControl(Decode(aText).m_Code))
            return true;
    }
    return false;
}

std::string Truncated(const std::string& aText, size_t aColumns) {
    size_t stColumns = 0;
    for (size_t i = 0; i < aText.size(); ++i) {
        const bool bBegins = (static_cast<unsigned char>(aText[i]) & 0xC0) != 0x80;
        if (bBegins && stColumns++ == aColumns)
            return aText.substr(0, i);
    }
    return aText;
}

std::string FormatBytes(uint64_t aBytes) {
    if (aBytes < 1000)
        return std::to_string(aBytes) + (aBytes == 1 ? " byte" : " bytes");
    static constexpr std::array<const char*, 6> UNITS = {"kB", "MB", "GB", "TB", "PB", "EB"};
    double dValue = static_cast<double>(aBytes) / 1000;
    size_t unit = 0;
    // From 999.95 on, one decimal would show as 1000.0.
    while (dValue >= 999.95 && unit + 1 < UNITS.size()) {
        dValue /= 1000;
        ++unit;
    }
    char szText[32];
    std::snprintf(szText, sizeof(szText), "%.1f %s", dValue, UNITS[unit]);
    return szText;
}

std::string FormatDuration(uint64_t aSeconds) {
    const unsigned long long hours = aSeconds / 3600;
    const auto minutes = static_cast<unsigned>(aSeconds / 60 % 60);
    const auto seconds = static_cast<unsigned>(aSeconds % 60);
    char szText[48];
    if (hours > 0)
        std::snprintf(szText, sizeof(szText), "%llu:%02u:%02u", hours, minutes, seconds);
    else
        std::snprintf(szText, sizeof(szText), "%u:%02u", minutes, seconds);
    return szText;
}

std::string SystemError(int aErrno) { return std::strerror(aErrno); }

}  // namespace tool
