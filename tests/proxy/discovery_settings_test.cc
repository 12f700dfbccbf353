// The texts in which users configure proxies.
#include "talvo/base/config_text.h"
#include "talvo/proxy/discovery/application_settings.h"
#include "talvo/proxy/discovery/desktop_settings.h"
#include "talvo/proxy/discovery/ins_file.h"
#include "talvo/proxy/discovery/settings_file.h"
#include "talvo/proxy/discovery/wpad.h"
#include "tests/support/test.h"

using namespace talvo;

namespace {

CProxyOrigin OriginOf(const std::string& aHost) {
    CProxyOrigin origin;
    const std::string strUrl = aHost.find("://") == std::string::npos ? "http://" + aHost + "/" : aHost;
    EXPECT_EQ(CM_OK, CProxyOrigin::Parse(strUrl, origin)) << strUrl;
    return origin;
}

// The hosts of HOSTS that aEntry matches, by their letters; "-": the entry is invalid.
constexpr const char* HOSTS[] = {"example.com", "www.example.com", "badexample.com", "https://example.com:8443/",
                                 "intranet",    "10.1.2.3",        "[fd00::1]",      "https://[fd00::1]:8443/",
                                 "[::2]",       "192.168.10.7"};

std::string MatchesOf(const std::string& aEntry, EBypassDialect aDialect) {
    CBypassRules rules;
    rules.Add(aEntry, aDialect);
    if (rules.IsEmpty())
        return "-";
    std::string strMatches;
    for (size_t i = 0; i < std::size(HOSTS); ++i)
        if (rules.Matches(OriginOf(HOSTS[i])))
            strMatches += static_cast<char>('a' + i);
    return strMatches;
}

// The server or the way of a choice.
std::string ChoiceOf(const CProxySettings& aSettings, const std::string& aUrl) {
    CProxySettings::CServers servers;
    switch (aSettings.Choose(OriginOf(aUrl), servers)) {
    case CProxySettings::NOTHING:
        return "nothing";
    case CProxySettings::BYPASSED:
        return "bypassed";
    case CProxySettings::SCRIPT:
        return aSettings.m_strScript;
    default:
        return servers.m_Route.GetText();
    }
}

std::string ChoicesOf(const CProxySettings& aSettings) {
    return ChoiceOf(aSettings, "http://a.test/") + " " + ChoiceOf(aSettings, "https://a.test/");
}

CEnvironment EnvironmentOf(std::map<CCmString, CCmString> aValues) { return CEnvironment(std::move(aValues)); }

CProxySettings KdeOf(const std::string& aText, const std::map<CCmString, CCmString>& aEnvironment = {}) {
    return ReadKdeSettings({{"/first", aText}, {"/second", "[Proxy Settings]\nsocksProxy=socks://second 1081\n"}},
                           CEnvironment(aEnvironment));
}

}  // namespace

TEST(BypassRulesTest, TwentyEntriesInBothDialects) {
    struct CRow {
        const char* m_pEntry;
        const char* m_pList;
        const char* m_pPattern;
    };
    constexpr CRow ROWS[] = {{"example.com", "abd", "ad"},   {".example.com", "abd", "b"},
                             {"*.example.com", "abd", "b"},  {"*example.com", "-", "abcd"},
                             {"EXAMPLE.com.", "abd", ""},    {"*", "abcdefghij", "abcdefghij"},
                             {"example.com:8443", "d", "d"}, {"https://example.com", "-", "d"},
                             {"http://*", "-", "abcefgij"},  {"www.*", "-", "b"},
                             {"10.1.2.3", "f", "f"},         {"10.0.0.0/8", "f", "f"},
                             {"10.0.0.0/33", "-", "-"},      {"192.168.8.0/22", "j", "j"},
                             {"192.168.*", "-", "j"},        {"fd00::1", "gh", "gh"},
                             {"[fd00::1]:8443", "h", "h"},   {"fd00::/8", "gh", "gh"},
                             {"<local>", "e", "e"},          {"example.com:0", "-", "-"}};
    for (const CRow& row : ROWS) {
        EXPECT_EQ(row.m_pList, MatchesOf(row.m_pEntry, EBypassDialect::LIST)) << row.m_pEntry;
        EXPECT_EQ(row.m_pPattern, MatchesOf(row.m_pEntry, EBypassDialect::PATTERN)) << row.m_pEntry;
    }
    EXPECT_EQ("abfi", MatchesOf("a\x01,[::2];example.com:80 10.0.0.0/8", EBypassDialect::LIST));

    CBypassRules rules;
    rules.Add("127.0.0.9;<-loopback>;127.0.0.8", EBypassDialect::PATTERN);
    EXPECT_TRUE(rules.AllowsLoopback() && rules.Matches(OriginOf("127.0.0.8")));
    EXPECT_FALSE(rules.Matches(OriginOf("127.0.0.9")));  // the later entry counts
    std::string strMany;
    for (int i = 0; i < 2000; ++i)
        strMany += "h" + std::to_string(i) + ",";
    rules.Add(std::string(CBypassRules::LONGEST_ENTRY + 1, 'a'), EBypassDialect::LIST);
    EXPECT_EQ(3u, rules.GetCount());
    rules.Add(strMany, EBypassDialect::LIST);
    EXPECT_EQ(CBypassRules::MOST_ENTRIES, rules.GetCount());
}

TEST(ProxyOriginTest, NothingButSchemeHostAndPortIsLeft) {
    const std::pair<std::string, std::string> CASES[] = {{"http://Example.com/secret?q#f", "http://example.com/ example.com"},
                                                         {"HTTPS://a:443/", "https://a/ a"},
                                                         {"http://a?query/@b", "http://a/ a"},
                                                         {"https://a.:8443", "https://a.:8443/ a."},
                                                         {"http://[FD00:0::1]:81/", "http://[fd00::1]:81/ fd00::1"},
                                                         {"http://[fe80::1%25eth0]/", "http://[fe80::1]/ fe80::1"},
                                                         {"http://0x7f.1/", "http://127.0.0.1/ 127.0.0.1"}};
    for (const auto& [strUrl, strExpected] : CASES) {
        const CProxyOrigin origin = OriginOf(strUrl);
        EXPECT_EQ(strExpected, origin.m_strUrl + " " + origin.m_strHost);
    }
    CProxyOrigin origin;
    for (const char* pUrl : {"http://user:password@a/", "http://u@a", "http://a b/", "file:///a", "ftp://a/", "http:///", "a",
                             "", "http://a\"/", "http://a%2eb/"})
        EXPECT_EQ(CM_ERROR_INVALID_ARG, CProxyOrigin::Parse(pUrl, origin)) << pUrl;
    for (const char* pHost : {"localhost", "a.LOCALHOST.", "127.9.9.9", "127.1", "[::1]", "[::ffff:127.0.0.1]", "169.254.1.1",
                              "[fe80::1]", "[febf::1%25eth0]"})
        EXPECT_TRUE(OriginOf(pHost).IsLoopback()) << pHost;
    for (const char* pHost : {"localhost.example", "notlocalhost", "128.0.0.1", "[::2]", "169.255.1.1", "[fec0::1]"})
        EXPECT_FALSE(OriginOf(pHost).IsLoopback()) << pHost;
}

TEST(ProxySettingsTest, TheEnvironmentInItsCombinations) {
    using CVariables = std::map<CCmString, CCmString>;
    const std::pair<CVariables, std::string> CASES[] = {
        {{}, "nothing nothing"},
        {{{"HTTP_PROXY", "evil"}}, "nothing nothing"},
        {{{"http_proxy", "p:1"}}, "http://p:1 nothing"},
        {{{"https_proxy", "p:1"}, {"HTTPS_PROXY", "q:1"}}, "nothing http://p:1"},
        {{{"HTTPS_PROXY", "q:1"}, {"all_proxy", "socks://r"}}, "socks5://r:1080 http://q:1"},
        {{{"ALL_PROXY", "socks5h://[::1]:9"}, {"http_proxy", ""}}, "direct:// socks5://[::1]:9"},
        {{{"all_proxy", "p"}, {"ALL_PROXY", "q"}, {"NO_PROXY", "x,.test"}}, "bypassed bypassed"},
        {{{"all_proxy", "p"}, {"no_proxy", ""}, {"NO_PROXY", "*"}}, "bypassed bypassed"},
        {{{"https_proxy", "gopher://p"}, {"all_proxy", "q"}}, "http://q:80 http://q:80"}};
    for (const auto& [variables, strExpected] : CASES)
        EXPECT_EQ(strExpected, ChoicesOf(CEnvironment(variables).ReadProxies())) << testing::PrintToString(variables);
    const CProxySettings settings = EnvironmentOf({{"http_proxy", "http://u:p@a@b,http://v:w@c"}}).ReadProxies();
    EXPECT_EQ("http://***@c", settings.m_Found.at(0).m_strValue);
    EXPECT_LT(HideCredentials("http://u:" + std::string(999, 'p') + "@c").capacity(), 100u)
        << "the password stays behind the end";
}

TEST(ProxySettingsTest, TheFilesOfKde) {
    const std::string strServers =
        "[Proxy Settings]\nNoProxyFor=localhost,.example.org\nProxy Config Script=\nProxyType=1\nReversedException=false\n"
        "ftpProxy=\nhttpProxy[$i]=http://kde.example 8080\nhttpsProxy=kde.example:8443\nsocksProxy=\n";
    EXPECT_EQ("http://kde.example:8080 http://kde.example:8443", ChoicesOf(KdeOf(strServers)));
    EXPECT_EQ("bypassed", ChoiceOf(KdeOf(strServers), "http://a.example.org/"));
    EXPECT_EQ("bypassed bypassed", ChoicesOf(KdeOf(strServers + "reversedexception=true\n")));
    EXPECT_EQ("http://kde.example:8080", ChoiceOf(KdeOf(strServers + "ReversedException=true"), "http://example.org/"));
    EXPECT_EQ("socks5://second:1081 socks5://second:1081", ChoicesOf(KdeOf("[Proxy Settings][$i]\nProxyType=1")));
    EXPECT_EQ("direct:// direct://", ChoicesOf(KdeOf("[Proxy Settings]\nProxyType=0\nhttpProxy=http://a 1")));
    EXPECT_EQ("nothing nothing", ChoicesOf(KdeOf("[Other]\nProxyType=0\n[Proxy Settings]\nOther=1")));
    EXPECT_EQ("http://x/p.pac http://x/p.pac",
              ChoicesOf(KdeOf("[Proxy Settings]\r\nProxyType=2\r\nProxy Config Script=http://x/p.pac\r\n")));
    EXPECT_EQ("file:///p file:///p", ChoicesOf(KdeOf("[proxy settings]\nProxyType=2\nProxy Config Script[$e]=/p")));
    EXPECT_TRUE(KdeOf("[Proxy Settings]\nProxyType=3").m_bDetect);
    const std::string strBare = "[Proxy Settings]\nProxyType=1\nhttpProxy=http://fd00::1 8080\nhttpsProxy=fd00::2\n";
    EXPECT_EQ("http://[fd00::1]:8080 http://[fd00::2]:80", ChoicesOf(KdeOf(strBare)));
    const CProxySettings named = KdeOf("[Proxy Settings]\nProxyType=4\nhttpProxy=MY\nhttpsProxy=NONE\nNoProxyFor=NO",
                                       {{"MY", "http://u:p@env:3"}, {"NO", "b.test"}});
    EXPECT_EQ("http://env:3 nothing", ChoicesOf(named));
    EXPECT_EQ("bypassed", ChoiceOf(named, "http://b.test/"));

    EXPECT_EQ((std::vector<CCmString>{"/c/kioslaverc", "/a/kioslaverc", "/b/kioslaverc"}),
              FindKdeFiles(EnvironmentOf({{"XDG_CONFIG_HOME", "/c"}, {"XDG_CONFIG_DIRS", "/a:relative::/b"}})));
    EXPECT_EQ((std::vector<CCmString>{"/h/.config/kioslaverc", "/etc/xdg/kioslaverc"}),
              FindKdeFiles(EnvironmentOf({{"XDG_CONFIG_HOME", "x"}, {"HOME", "/h"}})));
    EXPECT_EQ(EDesktop::GNOME, FindDesktop(EnvironmentOf({{"XDG_CURRENT_DESKTOP", "ubuntu:GNOME"}})));

    const CCmTempDir dir;
    CSettingsFile file(dir.PathOf("kioslaverc")), folder(dir.PathOf(""));
    EXPECT_TRUE(file.Read() && file.GetText().empty() && folder.Read() && folder.GetText().empty());
    dir.Write("kioslaverc", "a");
    EXPECT_TRUE(file.Read() && !file.Read() && file.GetText() == "a");
    dir.Write("kioslaverc", std::string(CSettingsFile::LONGEST + 1, 'a'));
    EXPECT_TRUE(file.Read() && file.GetText().empty());
}

TEST(ProxySettingsTest, TheOutputOfGnome) {
    const std::string strText =
        "org.gnome.system.proxy use-same-proxy true\norg.gnome.system.proxy mode 'manual'\n"
        "org.gnome.system.proxy autoconfig-url ''\n"
        "org.gnome.system.proxy ignore-hosts ['localhost', '127.0.0.0/8', '::1', 'it\\'s', \"x.test\"]\n"
        "org.gnome.system.proxy.ftp host 'ftp.example'\norg.gnome.system.proxy.ftp port 21\n"
        "org.gnome.system.proxy.socks host 'fd00::5'\norg.gnome.system.proxy.socks port 0\n"
        "org.gnome.system.proxy.http host 'gnome.example'\norg.gnome.system.proxy.http port 8080\n"
        "org.gnome.system.proxy.http use-authentication true\n"
        "org.gnome.system.proxy.http authentication-password 'p\\'w'\n"
        "org.gnome.system.proxy.http authentication-user 'me'\n"
        "org.gnome.system.proxy.https host ''\norg.gnome.system.proxy.https port 0\n"
        "org.gnome.system.proxyx mode 'none'\n";
    const CProxySettings settings = ReadGnomeSettings(strText);
    EXPECT_EQ("http://gnome.example:8080 socks5://[fd00::5]:1080", ChoicesOf(settings));
    EXPECT_EQ("p'w", settings.m_Http.m_Route.GetServers()[0].GetPassword());
    EXPECT_EQ("bypassed", ChoiceOf(settings, "http://x.test/"));
    for (const CCmProxySetting& setting : settings.m_Found)
        EXPECT_EQ(std::string::npos, (setting.m_strValue + setting.m_strValue).find("p'w"));
    EXPECT_EQ("direct:// direct://", ChoicesOf(ReadGnomeSettings("org.gnome.system.proxy mode 'none'")));
    const std::string strAuto = "org.gnome.system.proxy mode 'auto'\norg.gnome.system.proxy autoconfig-url ";
    EXPECT_EQ("https://x/ https://x/", ChoicesOf(ReadGnomeSettings(strAuto + "'https://x/'")));
    EXPECT_TRUE(ReadGnomeSettings(strAuto + "''").m_bDetect);
    for (const char* pDamaged :
         {"", "org.gnome.system.proxy", "org.gnome.system.proxy mode", "org.gnome.system.proxy mode 'man", "No such schema"})
        EXPECT_EQ("nothing nothing", ChoicesOf(ReadGnomeSettings(pDamaged))) << pDamaged;
}

TEST(ProxySettingsTest, TheApplicationsTexts) {
    CApplicationSettings settings;
    EXPECT_EQ(CM_OK, CApplicationSettings::Parse("[HttpProxy]\nmode=MANUAL\nServers=http://u:p@a:1,direct\nBypass=*.b;c\n"
                                                 "AnswerSeconds=0\nScriptMandatory=yes\nAutoDetect=1",
                                                 settings));
    EXPECT_EQ("http://a:1,direct:// http://a:1,direct://", ChoicesOf(settings.m_Proxies));
    EXPECT_TRUE(settings.m_Bypass.Matches(OriginOf("c")) && settings.m_bMandatory && settings.m_bMayDetect);
    EXPECT_EQ(0u, settings.m_dwAnswerSeconds);
    for (const char* pText : {"Mode", "Mode=other", "Mode=manual", "Mode=script", "AnswerSeconds=3601", "AnswerSeconds=-1",
                              "AutoDetect=maybe", "Key=1", "Servers=gopher://a", "[Trace]\nMode=direct"})
        EXPECT_EQ(CM_ERROR_INVALID_ARG, CApplicationSettings::Parse(pText, settings)) << pText;
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE,
              CApplicationSettings::Parse(std::string(CApplicationSettings::LONGEST_TEXT + 1, '\n'), settings));
    EXPECT_EQ(0u, settings.m_dwAnswerSeconds);  // refused texts change nothing

    EXPECT_EQ("http://wpad.corp.example/wpad.dat", MakeWpadUrl("host.CORP.example.", "search other.example"));
    EXPECT_EQ("http://wpad.a.example/wpad.dat",
              MakeWpadUrl("host", "#search x.y\nnameserver 1.2.3.4\nsearch\ta.example b.c\n"));
    for (const char* pResolver : {"", "search com", "domain a..b", "domain .a.b", "search a/b.c"})
        EXPECT_EQ("", MakeWpadUrl("host", pResolver)) << pResolver;
}

TEST(ProxySettingsTest, InsFiles) {
    EXPECT_TRUE(CInsFile::IsOne("http://a/x.INS?y", "function") &&
                CInsFile::IsOne("http://a/x", "\xEF\xBB\xBF \r\n[URL]\r\nx"));
    for (const char* pText : {"", "function", "[1,2].length", "[a]b", "['x']"})
        EXPECT_FALSE(CInsFile::IsOne("http://a/x.pac", pText)) << pText;
    const std::string strServers =
        "[Proxy]\r\nproxy_enable=1\r\nHTTP_Proxy_Server=\"http://ins:80\"\r\n"
        "Secure_Proxy_Server=sec:81\r\nSocks_Proxy_Server='sock:82'\r\n"
        "Proxy_Override=\"<local>;*.in.test\"\r\nGopher_Proxy_Server=x\r\n";
    const auto read = [&](const std::string& aText) {
        CInsFile file;
        EXPECT_TRUE(CInsFile::Parse(aText, file));
        return file;
    };
    EXPECT_EQ("http://ins:80 http://sec:81", ChoicesOf(read(strServers).m_Settings));
    EXPECT_EQ("bypassed", ChoiceOf(read(strServers).m_Settings, "http://a.in.test/"));
    EXPECT_EQ("http://ins:80 http://ins:80", ChoicesOf(read(strServers + "Use_Same_Proxy=1").m_Settings));
    EXPECT_EQ("socks4://s:1 socks4://s:1", ChoicesOf(read("[proxy]\nProxy_Enable=1\nSocks_Proxy_Server=s:1").m_Settings));
    const std::string strScript = "[URL]\nAutoConfigURL=http://a/next.ins\nAutoConfigTime=1\nAutoDetect=1\n" + strServers;
    EXPECT_EQ("http://ins:80 http://sec:81", ChoicesOf(read(strScript).m_Settings));
    EXPECT_TRUE(read(strScript).m_Settings.m_bDetect);
    const CInsFile file = read("[URL]\nAutoConfig=1\n" + strScript);
    EXPECT_EQ("http://a/next.ins", file.m_Settings.m_strScript);
    EXPECT_EQ(300u, file.m_dwSeconds);
    EXPECT_EQ("http://a/s.js",
              read("[URL]\nAutoConfig=1\nAutoConfigJSURL=\"http://a/s.js\"\n" + strScript).m_Settings.m_strScript);
    CInsFile other;
    EXPECT_FALSE(CInsFile::Parse(std::string(CInsFile::LONGEST + 1, ' '), other));
}
