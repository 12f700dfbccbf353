#include "tools/request_path.h"

#include <strings.h>

#include <algorithm>
#include <cctype>

namespace tool {

namespace {

// -1: not a hexadecimal digit.
int HexValue(char aDigit) {
    if (aDigit >= '0' && aDigit <= '9')
        return aDigit - '0';
    const char cLower = static_cast<char>(aDigit | 0x20);
    return cLower >= 'a' && cLower <= 'f' ? cLower - 'a' + 10 : -1;
}

bool DecodePercent(std::string_view aText, std::string& aOut) {
    for (size_t i = 0; i < aText.size(); ++i) {
        if (aText[i] != '%') {
            aOut += aText[i];
            continue;
        }
        const int nHigh = i + 2 < aText.size() ? HexValue(aText[i + 1]) : -1;
        const int nLow = i + 2 < aText.size() ? HexValue(aText[i + 2]) : -1;
        if (nHigh < 0 || nLow < 0)
            return false;
        aOut += static_cast<char>(nHigh * 16 + nLow);
        i += 2;
    }
    return true;
}

// The path of a target in the form for proxies, which servers must also accept.
std::string_view CutAuthority(std::string_view aTarget) {
    constexpr std::string_view SCHEME = "http://";
    if (aTarget.size() < SCHEME.size() || strncasecmp(aTarget.data(), SCHEME.data(), SCHEME.size()) != 0)
        return aTarget;
    const size_t stPath = aTarget.find_first_of("/?#", SCHEME.size());
    return stPath == std::string_view::npos || aTarget[stPath] != '/' ? "/" : aTarget.substr(stPath);
}

}  // namespace

bool ParseRequestPath(std::string_view aTarget, RequestPath& aPath) {
    std::string_view left = CutAuthority(aTarget);
    left = left.substr(0, left.find('#'));
    const size_t stPath = std::min(left.find('?'), left.size());
    const std::string_view query = left.substr(stPath);
    left = left.substr(0, stPath);
    if (!left.starts_with('/'))
        return false;
    aPath = {"", left.ends_with('/'), std::string(query.substr(query.empty() ? 0 : 1))};
    while (!left.empty()) {
        left.remove_prefix(1);
        std::string strPart;
        const size_t stEnd = left.find('/');
        if (!DecodePercent(left.substr(0, stEnd), strPart) || strPart == "." || strPart == ".." ||
            strPart.find_first_of(std::string_view("/\0", 2)) != std::string::npos)
            return false;
        if (!strPart.empty())
            aPath.m_strPath += (aPath.m_strPath.empty() ? "" : "/") + strPart;
        left = stEnd == std::string_view::npos ? "" : left.substr(stEnd);
    }
    return true;
}

std::string EncodePath(std::string_view aText) {
    constexpr const char* DIGITS = "0123456789ABCDEF";
    std::string strOut;
    for (const char c : aText) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80 && (std::isalnum(byte) != 0 || std::string_view("-._~/").find(c) != std::string_view::npos))
            strOut += c;
        else
            strOut.append({'%', DIGITS[byte >> 4], DIGITS[byte & 15]});
    }
    return strOut;
}

std::string EscapeHtml(std::string_view aText) {
    std::string strOut;
    for (const char c : aText) {
        switch (c) {
        case '&':
            strOut += "&amp;";
            break;
        case '<':
            strOut += "&lt;";
            break;
        case '>':
            strOut += "&gt;";
            break;
        case '"':
            strOut += "&quot;";
            break;
        case '\'':
            strOut += "&#39;";
            break;
        default:
            strOut += c;
        }
    }
    return strOut;
}

}  // namespace tool
