#include "tools/text.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace tool {

namespace {

bool IsControl(char a) { return static_cast<unsigned char>(a) < 0x20 || a == 0x7f; }

// U+0080 to U+009F in UTF-8: terminals take some of these as the start of a command.
bool IsLateControl(char aFirst, char aSecond) {
    const auto second = static_cast<unsigned char>(aSecond);
    return aFirst == '\xc2' && second >= 0x80 && second <= 0x9f;
}

}  // namespace

std::string Printable(std::string_view aText) {
    std::string strText(aText);
    for (size_t i = 0; i < strText.size(); ++i) {
        if (IsControl(strText[i]))
            strText[i] = '?';
        else if (i + 1 < strText.size() && IsLateControl(strText[i], strText[i + 1]))
            strText[i] = strText[i + 1] = '?';
    }
    return strText;
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
        return std::to_string(aBytes) + " bytes";
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
