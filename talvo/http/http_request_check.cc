#include "talvo/http/http_request_check.h"

#include <algorithm>
#include <array>

#include "talvo/http/http_text.h"

namespace talvo {

namespace {

constexpr int BAD_REQUEST = 400;
constexpr int VERSION_NOT_SUPPORTED = 505;

// What a byte may be part of.
enum : BYTE { TARGET = 1, VALUE = 2, HOST = 4 };

constexpr std::array<BYTE, 256> MakeTable() {
    std::array<BYTE, 256> table{};
    for (size_t i = 0x21; i < 256; ++i)
        table[i] = i == 0x7F ? 0 : TARGET | VALUE | HOST;
    table[' '] = table['\t'] = VALUE;
    for (const char c : std::string_view("/@?#\\,\"<>"))
        table[static_cast<BYTE>(c)] &= BYTE{0xFF} ^ HOST;
    return table;
}

constexpr std::array<BYTE, 256> TABLE = MakeTable();

BOOL IsAll(std::string_view aText, BYTE aKind) {
    BYTE cCommon = aKind;
    for (const char c : aText)
        cCommon &= TABLE[static_cast<BYTE>(c)];
    return cCommon != 0;
}

BOOL IsDigit(char aLetter) { return aLetter >= '0' && aLetter <= '9'; }

}  // namespace

int CHttpRequestCheck::OnRequestLine(std::string_view aLine) {
    const size_t stMethod = aLine.find(' ');
    const size_t stTarget = stMethod == std::string_view::npos ? stMethod : aLine.find(' ', stMethod + 1);
    if (stTarget == std::string_view::npos || stMethod == 0 || stTarget == stMethod + 1)
        return BAD_REQUEST;
    if (!is_token(aLine.substr(0, stMethod)) || !IsAll(aLine.substr(stMethod + 1, stTarget - stMethod - 1), TARGET))
        return BAD_REQUEST;
    const std::string_view version = aLine.substr(stTarget + 1);
    if (version.size() != 8 || !equal_no_case(version.substr(0, 5), "HTTP/") || !IsDigit(version[5]) || version[6] != '.' ||
        !IsDigit(version[7]))
        return BAD_REQUEST;
    m_bHostNeeded = version[7] == '1';
    return version[5] == '1' && version[7] <= '1' ? 0 : VERSION_NOT_SUPPORTED;
}

// A line that begins with a space continues the one before it; that form is obsolete and refused like other bad names.
int CHttpRequestCheck::OnHeaderLine(std::string_view aLine) {
    const size_t stColon = aLine.find(':');
    if (stColon == std::string_view::npos || stColon == 0)
        return BAD_REQUEST;
    const std::string_view name = aLine.substr(0, stColon);
    const std::string_view value = aLine.substr(stColon + 1);
    if (!is_token(name) || !IsAll(value, VALUE))
        return BAD_REQUEST;
    return OnHeader(name, value);
}

int CHttpRequestCheck::OnHeader(std::string_view aName, std::string_view aValue) {
    if (equal_no_case(aName, "Host"))
        return ++m_dwHosts == 1 && IsAll(trim_blanks(aValue), HOST) ? 0 : BAD_REQUEST;
    if (equal_no_case(aName, "Transfer-Encoding"))
        return trim_blanks(aValue).empty() ? BAD_REQUEST : 0;
    if (!equal_no_case(aName, "Content-Length"))
        return 0;
    const std::string_view length = trim_blanks(aValue);
    const BOOL bNumber = !length.empty() && std::all_of(length.begin(), length.end(), IsDigit);
    return ++m_dwLengths == 1 && bNumber ? 0 : BAD_REQUEST;
}

}  // namespace talvo
