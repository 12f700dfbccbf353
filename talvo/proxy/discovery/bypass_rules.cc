#include "talvo/proxy/discovery/bypass_rules.h"

#include <algorithm>
#include <charconv>

#include "talvo/base/ascii.h"
#include "talvo/base/config_text.h"
#include "talvo/base/trace.h"

namespace talvo {

namespace {

using std::string_view;

constexpr string_view SEPARATORS = ",; \t\r\n";

BOOL IsNameByte(char aByte) {
    return (aByte >= 'a' && aByte <= 'z') || (aByte >= '0' && aByte <= '9') || aByte == '-' || aByte == '_' || aByte == '.' ||
           static_cast<unsigned char>(aByte) > 127;
}

template <class Number>
BOOL ReadNumber(string_view aText, Number& aNumber) {
    const char* pEnd = aText.data() + aText.size();
    const auto [pRest, error] = std::from_chars(aText.data(), pEnd, aNumber);
    return error == std::errc() && pRest == pEnd;
}

// Takes ":port" from the end of the text. A colon of an IPv6 address without brackets is not one of a port.
BOOL CutPort(string_view& aText, WORD& aPort) {
    const size_t stColon = aText.rfind(':');
    if (stColon == string_view::npos || aText.ends_with(']'))
        return TRUE;
    const BOOL bBrackets = aText.starts_with('[');
    if (!bBrackets && aText.find(':') != stColon)
        return TRUE;
    if (bBrackets && aText[stColon - 1] != ']')
        return TRUE;
    if (!ReadNumber(aText.substr(stColon + 1), aPort) || aPort == 0)
        return FALSE;
    aText = aText.substr(0, stColon);
    return TRUE;
}

// "*" stands for any number of bytes. The time is linear in the text for each "*".
BOOL MatchesPattern(string_view aText, string_view aPattern) {
    size_t stText = 0, stPattern = 0, stStar = string_view::npos, stRetry = 0;
    while (stText < aText.size()) {
        if (stPattern < aPattern.size() && aPattern[stPattern] == '*') {
            stStar = stPattern++;
            stRetry = stText;
        } else if (stPattern < aPattern.size() && aPattern[stPattern] == aText[stText]) {
            ++stPattern;
            ++stText;
        } else if (stStar != string_view::npos) {
            stPattern = stStar + 1;
            stText = ++stRetry;
        } else {
            return FALSE;
        }
    }
    return aPattern.find_first_not_of('*', stPattern) == string_view::npos;
}

BOOL IsNameOrBelow(string_view aHost, string_view aName) {
    if (aHost.ends_with('.'))
        aHost.remove_suffix(1);
    if (!aHost.ends_with(aName))
        return FALSE;
    return aHost.size() == aName.size() || aHost[aHost.size() - aName.size() - 1] == '.';
}

}  // namespace

void CBypassRules::Add(string_view aText, EBypassDialect aDialect) {
    DWORD dwSkipped = 0;
    for (size_t stBegin = aText.find_first_not_of(SEPARATORS); stBegin != string_view::npos;) {
        const size_t stEnd = std::min(aText.find_first_of(SEPARATORS, stBegin), aText.size());
        CEntry entry;
        if (m_Entries.size() < MOST_ENTRIES && Read_i(aText.substr(stBegin, stEnd - stBegin), aDialect, entry)) {
            m_bAllowsLoopback = m_bAllowsLoopback || entry.m_Kind == NOT_LOOPBACK;
            m_Entries.push_back(std::move(entry));
        } else {
            ++dwSkipped;
        }
        stBegin = aText.find_first_not_of(SEPARATORS, stEnd);
    }
    if (dwSkipped > 0)
        CM_WARNING_TRACE("CBypassRules::Add, entries skipped. count=" << dwSkipped << " entries=" << m_Entries.size());
}

// FALSE: an invalid entry.
BOOL CBypassRules::Read_i(string_view aText, EBypassDialect aDialect, CEntry& aEntry) {
    if (aText.size() > LONGEST_ENTRY)
        return FALSE;
    const BOOL bPattern = aDialect == EBypassDialect::PATTERN;
    if (bPattern && IsSameNoCase(aText, "<-loopback>")) {
        aEntry.m_Kind = NOT_LOOPBACK;
        return TRUE;
    }
    const size_t stScheme = aText.find("://");
    if (stScheme != string_view::npos) {
        aEntry.m_strScheme = to_lower(aText.substr(0, stScheme));
        if (!bPattern || stScheme == 0 || !std::ranges::all_of(aEntry.m_strScheme, IsNameByte))
            return FALSE;
        aText.remove_prefix(stScheme + 3);
    }
    if (!CutPort(aText, aEntry.m_wPort))
        return FALSE;
    if (IsSameNoCase(aText, "<local>")) {
        aEntry.m_Kind = LOCAL;
        return TRUE;
    }
    return ReadAddress_i(aText, aEntry) || ReadName_i(aText, aDialect, aEntry);
}

BOOL CBypassRules::ReadAddress_i(string_view aText, CEntry& aEntry) {
    const size_t stSlash = aText.find('/');
    string_view address = aText.substr(0, stSlash);
    if (address.starts_with('[') && address.ends_with(']'))
        address = address.substr(1, address.size() - 2);
    if (!CIpBytes::Parse(address.substr(0, address.find('%')), aEntry.m_Network))
        return FALSE;
    const DWORD dwMost = aEntry.m_Network.m_byFamily == 4 ? 32 : 128;
    aEntry.m_Kind = NETWORK;
    aEntry.m_dwBits = dwMost;
    return stSlash == string_view::npos ||
           (ReadNumber(aText.substr(stSlash + 1), aEntry.m_dwBits) && aEntry.m_dwBits <= dwMost);
}

BOOL CBypassRules::ReadName_i(string_view aText, EBypassDialect aDialect, CEntry& aEntry) {
    aEntry.m_strName = to_lower(aText);
    CCmString& strName = aEntry.m_strName;
    if (aDialect == EBypassDialect::PATTERN) {
        aEntry.m_Kind = PATTERN;
        if (strName.starts_with('.'))
            strName.insert(0, "*");
        const auto isPatternByte = [](char a) { return IsNameByte(a) || a == '*' || a == ':' || a == '[' || a == ']'; };
        return !strName.empty() && std::ranges::all_of(strName, isPatternByte);
    }
    aEntry.m_Kind = strName == "*" ? PATTERN : NAME_AND_BELOW;
    if (strName == "*")
        return TRUE;
    strName.erase(0, strName.starts_with("*.") ? 2 : strName.starts_with('.') ? 1 : 0);
    if (strName.ends_with('.'))
        strName.pop_back();
    return !strName.empty() && std::ranges::all_of(strName, IsNameByte);
}

BOOL CBypassRules::Matches(const CProxyOrigin& aOrigin) const {
    for (auto entry = m_Entries.rbegin(); entry != m_Entries.rend(); ++entry) {
        if (entry->m_Kind == NOT_LOOPBACK && aOrigin.IsLoopback())
            return FALSE;
        if (Matches_i(*entry, aOrigin))
            return TRUE;
    }
    return FALSE;
}

BOOL CBypassRules::Matches_i(const CEntry& aEntry, const CProxyOrigin& aOrigin) {
    if (!aEntry.m_strScheme.empty() && aEntry.m_strScheme != aOrigin.m_strScheme)
        return FALSE;
    if (aEntry.m_wPort != 0 && aEntry.m_wPort != aOrigin.m_wPort)
        return FALSE;
    switch (aEntry.m_Kind) {
    case NAME_AND_BELOW:
        return !aOrigin.m_Ip && IsNameOrBelow(aOrigin.m_strHost, aEntry.m_strName);
    case PATTERN:
        return MatchesPattern(aOrigin.m_Ip.m_byFamily == 6 ? "[" + aOrigin.m_strHost + "]" : aOrigin.m_strHost,
                              aEntry.m_strName);
    case NETWORK:
        return IsInNetwork(aOrigin.m_Ip, aEntry.m_Network, aEntry.m_dwBits);
    case LOCAL:
        return aOrigin.m_Ip.m_byFamily != 6 && aOrigin.m_strHost.find('.') == CCmString::npos;
    case NOT_LOOPBACK:
        return FALSE;
    }
    return FALSE;
}

}  // namespace talvo
