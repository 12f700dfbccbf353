#include "talvo/proxy/discovery/ins_file.h"

#include <charconv>
#include <map>

#include "talvo/base/config_text.h"

namespace talvo {

namespace {

constexpr const char* SOURCE = "automatic configuration";
constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";

using CValues = std::map<CCmString, CCmString>;  // by "section/key" in lower case

std::string_view CutMark(std::string_view aText) {
    return aText.substr(aText.starts_with(BYTE_ORDER_MARK) ? BYTE_ORDER_MARK.size() : 0);
}

std::string_view CutQuotes(std::string_view aValue) {
    const BOOL bQuoted = aValue.size() >= 2 && (aValue[0] == '"' || aValue[0] == '\'') && aValue.back() == aValue[0];
    return bQuoted ? TrimBlanks(aValue.substr(1, aValue.size() - 2)) : aValue;
}

CValues ReadValues(std::string_view aText) {
    CValues values;
    CConfigLines lines(CutMark(aText));
    for (auto kind = lines.Next(); kind != CConfigLines::END; kind = lines.Next())
        if (kind == CConfigLines::VALUE)
            values[to_lower(lines.GetSection()) + "/" + to_lower(lines.GetKey())] = CutQuotes(lines.GetValue());
    return values;
}

CCmString Get(const CValues& aValues, const char* aKey) {
    const auto found = aValues.find(aKey);
    return found != aValues.end() ? found->second : CCmString();
}

BOOL IsOn(const CValues& aValues, const char* aKey) {
    const CCmString strValue = Get(aValues, aKey);
    return strValue == "1" || IsSameNoCase(strValue, "yes") || IsSameNoCase(strValue, "true");
}

DWORD ReadMinutes(const CCmString& aText) {
    constexpr DWORD DAY = 24 * 60;
    DWORD dwMinutes = 0;
    const auto [pEnd, error] = std::from_chars(aText.data(), aText.data() + aText.size(), dwMinutes);
    if (error == std::errc::result_out_of_range)
        return DAY;
    return error == std::errc() ? std::min(dwMinutes, DAY) : 0;
}

// As the other texts of browsers, SOCKS means its version 4.
void SetSocks(const CCmString& aText, CProxySettings& aSettings) {
    if (!aText.empty())
        aSettings.SetServers(aSettings.m_Other, aText.find("://") == CCmString::npos ? "socks4://" + aText : aText, SOURCE);
}

void ReadServers(const CValues& aValues, CProxySettings& aSettings) {
    aSettings.SetDesktopServer(aSettings.m_Http, Get(aValues, "proxy/http_proxy_server"), FALSE);
    aSettings.SetDesktopServer(aSettings.m_Https, Get(aValues, "proxy/secure_proxy_server"), FALSE);
    if (IsOn(aValues, "proxy/use_same_proxy"))
        aSettings.m_Https = aSettings.m_Http;
    SetSocks(Get(aValues, "proxy/socks_proxy_server"), aSettings);
    aSettings.m_Bypass.Add(Get(aValues, "proxy/proxy_override"), EBypassDialect::PATTERN);
}

}  // namespace

BOOL CInsFile::IsOne(std::string_view aUrl, std::string_view aText) {
    const std::string_view path = aUrl.substr(0, aUrl.find_first_of("?#"));
    if (path.size() >= 4 && IsSameNoCase(path.substr(path.size() - 4), ".ins"))
        return TRUE;
    const std::string_view text = TrimBlanks(CutMark(aText));
    const std::string_view line = TrimBlanks(text.substr(0, text.find('\n')));
    if (!line.starts_with('[') || !line.ends_with(']'))
        return FALSE;
    return line.substr(1, line.size() - 2).find_first_of("[](){},;'\"") == std::string_view::npos;
}

BOOL CInsFile::Parse(std::string_view aText, CInsFile& aFile) {
    if (aText.size() > LONGEST)
        return FALSE;
    const CValues values = ReadValues(aText);
    CProxySettings& settings = aFile.m_Settings;
    settings.m_strSource = SOURCE;
    if (const DWORD dwMinutes = ReadMinutes(Get(values, "url/autoconfigtime")))
        aFile.m_dwSeconds = std::max(dwMinutes * 60, LEAST_SECONDS);
    const CCmString strScript = Get(values, "url/autoconfigjsurl");
    if (IsOn(values, "url/autoconfig"))
        settings.SetScript(!strScript.empty() ? strScript : Get(values, "url/autoconfigurl"));
    settings.m_bDetect = settings.m_strScript.empty() && IsOn(values, "url/autodetect");
    if (IsOn(values, "proxy/proxy_enable"))
        ReadServers(values, settings);
    return TRUE;
}

}  // namespace talvo
