#include <map>

#include "talvo/base/config_text.h"
#include "talvo/proxy/discovery/desktop_settings.h"

namespace talvo {

namespace {

constexpr const char* SOURCE = "KDE";
constexpr size_t MOST_FILES = 16;

enum EProxyType { TYPE_NONE = 0, TYPE_MANUAL = 1, TYPE_SCRIPT = 2, TYPE_DETECT = 3, TYPE_ENVIRONMENT = 4 };

constexpr const char* KEYS[] = {"proxytype",           "httpproxy",  "httpsproxy",       "socksproxy",
                                "proxy config script", "noproxyfor", "reversedexception"};

using CValues = std::map<CCmString, CCmString>;  // by one of KEYS

void AddFile(CCmString aFolder, std::vector<CCmString>& aFiles) {
    if (aFolder.starts_with('/') && aFiles.size() < MOST_FILES)
        aFiles.push_back(std::move(aFolder) + "/kioslaverc");
}

// "httpProxy[$i]" is "httpProxy". Null: a key without a use.
const char* KeyOf(std::string_view aKey) {
    const std::string_view name = TrimBlanks(aKey.substr(0, aKey.find('[')));
    const auto pKey = std::ranges::find_if(KEYS, [&](const char* aKnown) { return IsSameNoCase(name, aKnown); });
    return pKey != std::end(KEYS) ? *pKey : nullptr;
}

void ReadFile(const CKdeFile& aFile, CValues& aValues, CProxySettings& aSettings) {
    CValues own;
    CConfigLines lines(aFile.m_strText);
    for (auto kind = lines.Next(); kind != CConfigLines::END; kind = lines.Next()) {
        const std::string_view group = TrimBlanks(lines.GetSection().substr(0, lines.GetSection().find("][")));
        const char* pKey = KeyOf(lines.GetKey());
        if (kind == CConfigLines::VALUE && pKey && IsSameNoCase(group, "Proxy Settings"))
            own[pKey] = lines.GetValue();
    }
    for (const auto& [strKey, strValue] : own)
        if (aValues.try_emplace(strKey, strValue).second)
            aSettings.List(SOURCE + (" " + aFile.m_strPath), strKey, strValue);
}

CCmString Get(const CValues& aValues, const char* aKey) {
    const auto found = aValues.find(aKey);
    return found != aValues.end() ? found->second : CCmString();
}

BOOL IsTrue(std::string_view aValue) {
    return aValue == "1" || IsSameNoCase(aValue, "true") || IsSameNoCase(aValue, "yes") || IsSameNoCase(aValue, "on");
}

void ReadServers(const CValues& aValues, CProxySettings& aSettings) {
    aSettings.SetDesktopServer(aSettings.m_Http, Get(aValues, "httpproxy"), FALSE);
    aSettings.SetDesktopServer(aSettings.m_Https, Get(aValues, "httpsproxy"), FALSE);
    aSettings.SetDesktopServer(aSettings.m_Other, Get(aValues, "socksproxy"), TRUE);
    aSettings.m_Bypass.Add(Get(aValues, "noproxyfor"), EBypassDialect::LIST);
    aSettings.m_bReversed = IsTrue(Get(aValues, "reversedexception"));
}

}  // namespace

EDesktop FindDesktop(const CEnvironment& aEnvironment) {
    const CCmString strNames = aEnvironment.Get("XDG_CURRENT_DESKTOP");
    for (std::string_view rest = strNames; !rest.empty();) {
        const size_t stEnd = std::min(rest.find(':'), rest.size());
        if (IsSameNoCase(rest.substr(0, stEnd), "KDE"))
            return EDesktop::KDE;
        if (IsSameNoCase(rest.substr(0, stEnd), "GNOME"))
            return EDesktop::GNOME;
        rest.remove_prefix(std::min(stEnd + 1, rest.size()));
    }
    return EDesktop::NONE;
}

std::vector<CCmString> FindKdeFiles(const CEnvironment& aEnvironment) {
    std::vector<CCmString> files;
    const CCmString strHome = aEnvironment.Get("XDG_CONFIG_HOME");
    AddFile(strHome.starts_with('/') ? strHome : aEnvironment.Get("HOME") + "/.config", files);
    CCmString strFolders = aEnvironment.Get("XDG_CONFIG_DIRS");
    if (strFolders.empty())
        strFolders = "/etc/xdg";
    for (std::string_view rest = strFolders; !rest.empty();) {
        const size_t stEnd = std::min(rest.find(':'), rest.size());
        AddFile(CCmString(rest.substr(0, stEnd)), files);
        rest.remove_prefix(std::min(stEnd + 1, rest.size()));
    }
    return files;
}

CProxySettings ReadKdeSettings(const std::vector<CKdeFile>& aFiles, const CEnvironment& aEnvironment) {
    CProxySettings settings;
    settings.m_strSource = SOURCE;
    CValues values;
    for (const CKdeFile& file : aFiles)
        ReadFile(file, values, settings);
    const CCmString strType = Get(values, "proxytype");
    const int nType = strType.size() == 1 && strType[0] >= '0' && strType[0] <= '4' ? strType[0] - '0' : -1;
    if (nType == TYPE_ENVIRONMENT)
        for (const char* pKey : {"httpproxy", "httpsproxy", "socksproxy", "noproxyfor"})
            values[pKey] = aEnvironment.Get(Get(values, pKey));
    if (nType == TYPE_MANUAL || nType == TYPE_ENVIRONMENT)
        ReadServers(values, settings);
    if (nType == TYPE_SCRIPT)
        settings.SetScript(Get(values, "proxy config script"));
    settings.m_bDetect = nType == TYPE_DETECT;
    settings.m_bDirect = nType == TYPE_NONE;
    return settings;
}

}  // namespace talvo
