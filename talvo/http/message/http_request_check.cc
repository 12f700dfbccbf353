#include "talvo/http/message/http_request_check.h"

#include <algorithm>
#include <array>

#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_authority.h"
#include "talvo/http/message/http_status.h"
#include "talvo/http/message/http_text.h"

namespace talvo {

namespace {

using Atoms = CCmHttpAtomList;

// The parts in which a byte is allowed.
enum : BYTE { TARGET = 1, NAME = 2 };

constexpr std::array<BYTE, 256> MakeTable() {
    std::array<BYTE, 256> table{};
    for (size_t i = 0x21; i < 256; ++i)
        table[i] = i == 0x7F ? 0 : TARGET | NAME;
    table['#'] = 0;
    for (const char c : std::string_view("/@?\\,\"<>:[]"))
        table[static_cast<BYTE>(c)] &= BYTE{0xFF} ^ NAME;
    return table;
}

constexpr std::array<BYTE, 256> TABLE = MakeTable();

BOOL IsDigit(char aLetter) { return aLetter >= '0' && aLetter <= '9'; }
BOOL IsAlpha(char aLetter) { return lower_case(aLetter) >= 'a' && lower_case(aLetter) <= 'z'; }

BOOL AreDigits(std::string_view aText) { return std::all_of(aText.begin(), aText.end(), IsDigit); }

[[gnu::noinline]] size_t GetLiteralLength(std::string_view aHost) {
    const std::optional<CHttpIpLiteral> literal = parse_ip_literal(aHost);
    return literal && literal->m_Zone.empty() ? aHost.size() - literal->m_Port.size() : std::string_view::npos;
}

// The length of the name, or of the address in brackets, at the front of a host field; npos: there is none. A zone is refused:
// it has no meaning for another machine.
size_t GetNameLength(std::string_view aHost) {
    if (aHost.starts_with('['))
        return GetLiteralLength(aHost);
    size_t stEnd = 0;
    while (stEnd < aHost.size() && TABLE[static_cast<BYTE>(aHost[stEnd])] & NAME)
        ++stEnd;
    return stEnd == aHost.size() || aHost[stEnd] == ':' ? stEnd : std::string_view::npos;
}

// Digits of a number up to 65535; none and leading zeros are allowed.
BOOL IsPort(std::string_view aText) {
    if (!AreDigits(aText))
        return FALSE;
    const std::string_view digits = aText.substr(std::min(aText.find_first_not_of('0'), aText.size()));
    constexpr std::string_view MAX = "65535";
    return digits.size() < MAX.size() || (digits.size() == MAX.size() && digits <= MAX);
}

// A name or an address, which may be empty, with an optional colon and port.
BOOL IsHost(std::string_view aText) {
    const size_t stName = GetNameLength(aText);
    if (stName == std::string_view::npos)
        return FALSE;
    const std::string_view port = aText.substr(stName);
    return port.empty() || (port.front() == ':' && IsPort(port.substr(1)));
}

// The target of CONNECT: both parts.
BOOL IsAuthority(std::string_view aText) {
    const size_t stName = GetNameLength(aText);
    return IsHost(aText) && stName > 0 && stName + 1 < aText.size();
}

// "http://host/path", which a server must accept, too. User information is refused, as section 4.2.4 of RFC 9110 advises.
[[gnu::noinline]] BOOL IsAbsolute(std::string_view aTarget) {
    constexpr std::string_view SEPARATOR = "://";
    const size_t stEnd = aTarget.find(SEPARATOR);
    if (stEnd == std::string_view::npos || !IsAlpha(aTarget.front()))
        return FALSE;
    const std::string_view scheme = aTarget.substr(0, stEnd), rest = aTarget.substr(stEnd + SEPARATOR.size());
    const BOOL bScheme = std::all_of(scheme.begin(), scheme.end(),
                                     [](char c) { return IsAlpha(c) || IsDigit(c) || c == '+' || c == '-' || c == '.'; });
    const std::string_view authority = rest.substr(0, rest.find_first_of("/?"));
    return bScheme && !authority.empty() && IsHost(authority);
}

// One of the forms of RFC 9112, section 3.2.
BOOL IsTarget(std::string_view aMethod, std::string_view aTarget) {
    BYTE cCommon = TARGET;
    for (const char c : aTarget)
        cCommon &= TABLE[static_cast<BYTE>(c)];
    if (!cCommon)
        return FALSE;
    if (aMethod == "CONNECT")
        return IsAuthority(aTarget);
    if (aTarget.front() == '/')
        return TRUE;
    return (aTarget == "*" && aMethod == "OPTIONS") || IsAbsolute(aTarget);
}

}  // namespace

int CHttpRequestCheck::OnRequestLine(std::string_view aLine, CHttpRequestLine& aParts) {
    ++m_dwLines;
    const size_t stMethod = aLine.find(' ');
    const size_t stTarget = stMethod == std::string_view::npos ? stMethod : aLine.find(' ', stMethod + 1);
    if (stTarget == std::string_view::npos || stMethod == 0 || stTarget == stMethod + 1)
        return HTTP_BAD_REQUEST;
    aParts.m_Method = aLine.substr(0, stMethod);
    aParts.m_Target = aLine.substr(stMethod + 1, stTarget - stMethod - 1);
    if (!is_token(aParts.m_Method) || !IsTarget(aParts.m_Method, aParts.m_Target))
        return HTTP_BAD_REQUEST;
    const std::string_view version = aLine.substr(stTarget + 1);
    if (version.size() != 8 || !equal_no_case(version.substr(0, 5), "HTTP/") || !IsDigit(version[5]) || version[6] != '.' ||
        !IsDigit(version[7]))
        return HTTP_BAD_REQUEST;
    m_bHostNeeded = version[7] != '0';
    aParts.m_Version = m_bHostNeeded ? CM_HTTP_VERSION_11 : CM_HTTP_VERSION_10;
    return version[5] == '1' ? 0 : HTTP_VERSION_NOT_SUPPORTED;
}

// A line that begins with a space continues the one before it; that obsolete form is refused like other invalid names.
int CHttpRequestCheck::OnHeaderLine(const CHttpLine& aLine, const CCmHttpHeaderArray& aHead, CHttpField& aField) {
    ++m_dwLines;
    if (aLine.m_stColon == std::string_view::npos || aLine.m_stColon == 0)
        return HTTP_BAD_REQUEST;
    aField.m_Name = aLine.m_Text.substr(0, aLine.m_stColon);
    aField.m_Value = aLine.m_Text.substr(aLine.m_stColon + 1);
    aField.m_Known = Atoms::FindKnown(aField.m_Name);
    if (!aField.m_Known)
        aField.m_Other = aHead.GuessName_i(aField.m_Name);
    if ((!aField.m_Known && !aField.m_Other && !is_token(aField.m_Name)) || !is_field_value(aField.m_Value))
        return HTTP_BAD_REQUEST;
    return aField.m_Known ? OnField(aField) : 0;
}

int CHttpRequestCheck::OnField(const CHttpField& aField) {
    if (aField.m_Known == Atoms::Host)
        return ++m_dwHosts == 1 && IsHost(trim_blanks(aField.m_Value)) ? 0 : HTTP_BAD_REQUEST;
    if (aField.m_Known == Atoms::Transfer_Encoding)
        return trim_blanks(aField.m_Value).empty() ? HTTP_BAD_REQUEST : 0;
    if (aField.m_Known != Atoms::Content_Length)
        return 0;
    const std::string_view length = trim_blanks(aField.m_Value);
    const BOOL bNumber = !length.empty() && AreDigits(length);
    return ++m_dwLengths == 1 && bNumber ? 0 : HTTP_BAD_REQUEST;
}

}  // namespace talvo
