#include "talvo/proxy/discovery/application_settings.h"

#include <charconv>

#include "talvo/base/config.h"
#include "talvo/base/config_text.h"
#include "talvo/base/secret.h"
#include "talvo/base/trace.h"

namespace talvo {

namespace {

constexpr const char* SECTION = "HttpProxy";
constexpr const char* SOURCE = "application";
constexpr const char* KEYS[] = {"Mode", "Servers", "Bypass", "ScriptUrl", "AutoDetect", "AnswerSeconds", "ScriptMandatory"};

BOOL ReadBool(std::string_view aValue, BOOL& aResult) {
    const auto isOneOf = [&](auto... aWords) { return (IsSameNoCase(aValue, aWords) || ...); };
    aResult = isOneOf("1", "true", "yes", "on");
    return aResult || isOneOf("0", "false", "no", "off");
}

BOOL ReadSeconds(std::string_view aValue, DWORD& aSeconds) {
    DWORD dwSeconds = 0;
    const auto [pEnd, error] = std::from_chars(aValue.data(), aValue.data() + aValue.size(), dwSeconds);
    if (error != std::errc() || pEnd != aValue.data() + aValue.size() || dwSeconds > CApplicationSettings::MOST_ANSWER_SECONDS)
        return FALSE;
    aSeconds = dwSeconds;
    return TRUE;
}

}  // namespace

CApplicationSettings CApplicationSettings::FromConfiguration() {
    CApplicationSettings settings;
    for (const char* pKey : KEYS) {
        const CCmString strValue = get_string_param(SECTION, pKey, "");
        if (!strValue.empty() && !settings.Set_i(pKey, strValue))
            CM_WARNING_TRACE("CApplicationSettings::FromConfiguration, wrong value. key=" << pKey);
    }
    if (!settings.Finish_i())
        CM_WARNING_TRACE("CApplicationSettings::FromConfiguration, the mode has no servers or no script");
    return settings;
}

CmResult CApplicationSettings::Parse(std::string_view aText, CApplicationSettings& aSettings) {
    if (aText.size() > LONGEST_TEXT)
        return CM_ERROR_NOT_AVAILABLE;
    CApplicationSettings settings;
    CConfigLines lines(aText);
    for (auto kind = lines.Next(); kind != CConfigLines::END; kind = lines.Next()) {
        const BOOL bHere = lines.GetSection().empty() || IsSameNoCase(lines.GetSection(), SECTION);
        CCmString strValue(lines.GetValue());
        const BOOL bTaken = kind == CConfigLines::VALUE && bHere && settings.Set_i(lines.GetKey(), strValue);
        WipeText(strValue);  // it may have credentials
        if (!bTaken)
            return CM_ERROR_INVALID_ARG;
    }
    if (!settings.Finish_i())
        return CM_ERROR_INVALID_ARG;
    aSettings = std::move(settings);
    return CM_OK;
}

BOOL CApplicationSettings::Set_i(std::string_view aKey, const CCmString& aValue) {
    const auto is = [&](const char* aName) { return IsSameNoCase(aKey, aName); };
    m_Proxies.List(SOURCE, aKey, aValue);
    if (is("Mode"))
        return SetMode_i(aValue);
    if (is("AutoDetect"))
        return ReadBool(aValue, m_bMayDetect);
    if (is("ScriptMandatory"))
        return ReadBool(aValue, m_bMandatory);
    if (is("AnswerSeconds"))
        return ReadSeconds(aValue, m_dwAnswerSeconds);
    if (is("Bypass"))
        m_Bypass.Add(aValue, EBypassDialect::PATTERN);
    else if (is("ScriptUrl"))
        m_strScript = aValue;
    else if (is("Servers"))
        m_Proxies.SetServers(m_Servers, aValue, SOURCE);
    else
        return FALSE;
    return !is("Servers") || !m_Servers.m_Route.IsEmpty();
}

BOOL CApplicationSettings::SetMode_i(std::string_view aMode) {
    constexpr const char* MODES[] = {"system", "direct", "manual", "script"};
    for (const EMode mode : {SYSTEM, DIRECT, MANUAL, SCRIPT}) {
        if (IsSameNoCase(aMode, MODES[mode])) {
            m_Mode = mode;
            return TRUE;
        }
    }
    return FALSE;
}

// FALSE: the mode lacks its value, and counts as "system".
BOOL CApplicationSettings::Finish_i() {
    m_Proxies.m_strSource = SOURCE;
    m_Proxies.m_bDirect = m_Mode == DIRECT;
    if (m_Mode == MANUAL)
        m_Proxies.m_Other = m_Servers;
    if (m_Mode == SCRIPT)
        m_Proxies.SetScript(m_strScript);
    if ((m_Mode != MANUAL || !m_Servers.m_Route.IsEmpty()) && (m_Mode != SCRIPT || !m_Proxies.m_strScript.empty()))
        return TRUE;
    m_Mode = SYSTEM;
    return FALSE;
}

}  // namespace talvo
