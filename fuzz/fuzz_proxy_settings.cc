// The texts in which users, desktops and networks configure proxies.
#include "fuzz/fuzz_input.h"
#include "talvo/proxy/discovery/application_settings.h"
#include "talvo/proxy/discovery/desktop_settings.h"
#include "talvo/proxy/discovery/ins_file.h"
#include "talvo/proxy/discovery/wpad.h"

using namespace talvo;

namespace {

constexpr const char* URLS[] = {"http://www.example.com/", "https://[fd00::1]:8443/", "http://10.1.2.3/", "http://intranet/"};

// A choice without servers is none.
void Choose(const CProxySettings& aSettings) {
    for (const char* pUrl : URLS) {
        CProxyOrigin origin;
        CProxySettings::CServers servers;
        FUZZ_CHECK(CProxyOrigin::Parse(pUrl, origin) == CM_OK);
        if (aSettings.Choose(origin, servers) == CProxySettings::ROUTE)
            FUZZ_CHECK(!servers.m_Route.IsEmpty() && !servers.m_strSource.empty());
    }
    for (const CCmProxySetting& setting : aSettings.m_Found)
        FUZZ_CHECK(setting.m_strValue.find('@') == std::string::npos || setting.m_strValue.find("***@") != std::string::npos);
}

void MatchBypass(const std::string& aText, EBypassDialect aDialect) {
    CProxySettings settings;
    settings.SetServers(settings.m_Other, "proxy", "fuzz");
    settings.m_Bypass.Add(aText, aDialect);
    FUZZ_CHECK(settings.m_Bypass.GetCount() <= CBypassRules::MOST_ENTRIES);
    Choose(settings);
}

// An origin is the origin of its own URL.
void ParseOrigin(const std::string& aText) {
    CProxyOrigin origin, again;
    if (CProxyOrigin::Parse(aText, origin) != CM_OK)
        return;
    FUZZ_CHECK(CProxyOrigin::Parse(origin.m_strUrl, again) == CM_OK && again.m_strUrl == origin.m_strUrl);
    FUZZ_CHECK(again.m_strHost == origin.m_strHost && origin.m_strUrl.find_first_of("?#@ ") == std::string::npos);
}

void ParseFiles(const std::string& aText) {
    CInsFile file;
    CApplicationSettings settings;
    if (CInsFile::Parse(aText, file))
        Choose(file.m_Settings);
    if (CApplicationSettings::Parse(aText, settings) == CM_OK)
        Choose(settings.m_Proxies);
    CInsFile::IsOne(aText, aText);
    MakeWpadUrl("host", aText);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    if (aSize == 0)
        return 0;
    const std::string strText(reinterpret_cast<const char*>(aData) + 1, aSize - 1);
    switch (aData[0] % 6) {
    case 0:
        MatchBypass(strText, EBypassDialect::LIST);
        break;
    case 1:
        MatchBypass(strText, EBypassDialect::PATTERN);
        break;
    case 2:
        Choose(ReadKdeSettings({{"/a", strText}},
                               CEnvironment(std::map<CCmString, CCmString>{{"HTTP_PROXY", "http://u:p@proxy:1"}})));
        break;
    case 3:
        Choose(ReadGnomeSettings(strText));
        break;
    case 4:
        ParseFiles(strText);
        break;
    default:
        ParseOrigin(strText);
    }
    return 0;
}
