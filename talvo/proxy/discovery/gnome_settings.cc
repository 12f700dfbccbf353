#include <map>

#include "talvo/base/config_text.h"
#include "talvo/proxy/discovery/desktop_settings.h"

namespace talvo {

namespace {

constexpr const char* SOURCE = "GNOME";
constexpr std::string_view SCHEMA = "org.gnome.system.proxy";
constexpr size_t MOST_LINES = 1000;

using CValues = std::map<CCmString, CCmString>;  // by "key" or "scheme.key"

// Takes a string in single or double quotes from the beginning of aText. A backslash stands before a literal byte.
BOOL TakeQuoted(std::string_view& aText, CCmString& aValue) {
    if (aText.empty() || (aText[0] != '\'' && aText[0] != '"'))
        return FALSE;
    for (size_t i = 1; i < aText.size(); ++i) {
        if (aText[i] == aText[0]) {
            aText.remove_prefix(i + 1);
            return TRUE;
        }
        if (aText[i] == '\\' && i + 1 < aText.size())
            ++i;
        aValue += aText[i];
    }
    return FALSE;
}

// The value of a printed variant: a string without quotes, the strings of an array joined by commas, or the text as it is. ""
// also for a damaged one.
CCmString ReadVariant(std::string_view aText) {
    CCmString strValue;
    if (aText.starts_with("@as "))
        aText.remove_prefix(4);
    if (!aText.starts_with('[')) {
        if (aText.empty() || (aText[0] != '\'' && aText[0] != '"'))
            return CCmString(aText.starts_with("uint32 ") ? aText.substr(7) : aText);
        return TakeQuoted(aText, strValue) ? strValue : CCmString();
    }
    for (aText = TrimBlanks(aText.substr(1)); !aText.empty() && aText[0] != ']'; aText = TrimBlanks(aText)) {
        if (aText[0] == ',')
            aText.remove_prefix(1);
        else if (!TakeQuoted(aText, strValue += strValue.empty() ? "" : ","))
            return {};
    }
    return strValue;
}

// "org.gnome.system.proxy.http port 8080" is "http.port" with 8080.
void ReadLine(std::string_view aLine, CValues& aValues, CProxySettings& aSettings) {
    const size_t stSchema = aLine.find(' ');
    const size_t stKey = stSchema == std::string_view::npos ? stSchema : aLine.find(' ', stSchema + 1);
    if (stKey == std::string_view::npos || !aLine.starts_with(SCHEMA))
        return;
    CCmString strKey(aLine.substr(SCHEMA.size(), stSchema - SCHEMA.size()));
    if (!strKey.empty() && strKey[0] != '.')
        return;
    strKey = (strKey.empty() ? "" : strKey.substr(1) + ".") + CCmString(aLine.substr(stSchema + 1, stKey - stSchema - 1));
    CCmString strValue = ReadVariant(TrimBlanks(aLine.substr(stKey + 1)));
    const BOOL bSecret = strKey.ends_with("authentication-user") || strKey.ends_with("authentication-password");
    aSettings.List(SOURCE, strKey, bSecret && !strValue.empty() ? "***" : strValue);
    aValues[std::move(strKey)] = std::move(strValue);
}

CCmString Get(const CValues& aValues, const CCmString& aKey) {
    const auto found = aValues.find(aKey);
    return found != aValues.end() ? found->second : CCmString();
}

void ReadServer(const CValues& aValues, const CCmString& aScheme, CProxySettings::CServers& aServers,
                CProxySettings& aSettings) {
    const CCmString strHost = Get(aValues, aScheme + ".host"), strPort = Get(aValues, aScheme + ".port");
    if (strHost.empty())
        return;
    aSettings.SetDesktopServer(aServers, strPort.empty() || strPort == "0" ? strHost : strHost + " " + strPort,
                               aScheme == "socks");
}

// Only the server for http has a user.
void SetUser(const CValues& aValues, CCmProxyRoute& aRoute) {
    if (aRoute.IsEmpty() || Get(aValues, "http.use-authentication") != "true")
        return;
    CCmProxyServer server = aRoute.GetServers()[0];
    if (server.SetCredentials(Get(aValues, "http.authentication-user"), Get(aValues, "http.authentication-password")) == CM_OK)
        aRoute = CCmProxyRoute(server);
}

}  // namespace

CProxySettings ReadGnomeSettings(std::string_view aText) {
    CProxySettings settings;
    settings.m_strSource = SOURCE;
    CValues values;
    for (size_t i = 0; i < MOST_LINES && !aText.empty(); ++i) {
        const size_t stEnd = std::min(aText.find('\n'), aText.size());
        ReadLine(TrimBlanks(aText.substr(0, stEnd)), values, settings);
        aText.remove_prefix(std::min(stEnd + 1, aText.size()));
    }
    const CCmString strMode = Get(values, "mode");
    settings.m_bDirect = strMode == "none";
    if (strMode == "auto") {
        settings.SetScript(Get(values, "autoconfig-url"));
        settings.m_bDetect = settings.m_strScript.empty();
    }
    if (strMode != "manual")
        return settings;
    ReadServer(values, "http", settings.m_Http, settings);
    ReadServer(values, "https", settings.m_Https, settings);
    ReadServer(values, "socks", settings.m_Other, settings);
    SetUser(values, settings.m_Http.m_Route);
    settings.m_Bypass.Add(Get(values, "ignore-hosts"), EBypassDialect::LIST);
    return settings;
}

}  // namespace talvo
