// The discovery with a store of texts and an engine of the test.
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>

#include "talvo/proxy/discovery/answer_cache.h"
#include "talvo/proxy/discovery/network_watch.h"
#include "talvo/proxy/discovery/pac_engine.h"
#include "talvo/proxy/discovery/proxy_discovery.h"
#include "talvo/proxy/discovery/proxy_sources.h"
#include "talvo/transport/bad_proxies.h"
#include "tests/support/network_fixture.h"

using namespace talvo;

namespace {

// Both are used in the network thread; the test changes them there, or while no question is under way.
class CFakeTexts final : public IPacTexts {
public:
    CmResult Get(const CCmString& aUrl, CPacTextPtr& aText, IPacTextSink& aSink) override {
        m_Log.push_back(aUrl);
        if (m_bLate) {
            m_Waiting[&aSink] = aUrl;
            return CM_ERROR_WOULD_BLOCK;
        }
        aText = Find(aUrl);
        return aText ? CM_OK : CM_ERROR_NOT_AVAILABLE;
    }
    void Cancel(IPacTextSink& aSink) override { m_Waiting.erase(&aSink); }
    void SetLifetime(const CCmString& aUrl, DWORD aSeconds) override { m_Log.push_back(aUrl + " " + std::to_string(aSeconds)); }
    void Reject(const CCmString& aUrl, const CPacTextPtr&) override { m_Log.push_back("reject " + aUrl); }
    void Refresh() override { m_Log.push_back("refresh"); }
    void SetWatcher(IPacTextWatcher* aWatcher) override { m_pWatcher = aWatcher; }

    void Set(const std::string& aUrl, const std::string& aText) {
        m_Texts[aUrl] = std::make_shared<const CPacText>(CPacText{++m_ullLast, aText});
    }
    CPacTextPtr Find(const std::string& aUrl) const { return m_Texts.contains(aUrl) ? m_Texts.at(aUrl) : nullptr; }
    void Answer() {
        while (!m_Waiting.empty()) {
            const auto node = m_Waiting.extract(m_Waiting.begin());
            const CPacTextPtr pText = Find(node.mapped());
            node.key()->OnPacText(pText ? CM_OK : CM_ERROR_FAILURE, pText, pText ? "" : "404 of the test");
        }
    }

    BOOL m_bLate = FALSE;
    IPacTextWatcher* m_pWatcher = nullptr;
    std::vector<std::string> m_Log;

private:
    std::map<std::string, CPacTextPtr> m_Texts;
    std::map<IPacTextSink*, std::string> m_Waiting;
    uint64_t m_ullLast = 0;
};

// A script's text is its answer, with the URL for "%"; that of "!END text" is a failure.
class CFakeEngine final : public IPacEngine {
public:
    CmResult Find(const CPacTextPtr& aScript, const CPacQuestion& aQuestion, IPacSink& aSink) override {
        ++m_nFinds;
        m_Questions.push_back(aQuestion.m_strUrl + " " + aQuestion.m_strHost);
        m_Waiting[&aSink] = aScript->m_strText;
        if (!m_bLate)
            CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_NETWORK)->GetLink().Post([this] { Answer(); });
        return CM_ERROR_WOULD_BLOCK;
    }
    void Cancel(IPacSink& aSink) override { m_Waiting.erase(&aSink); }
    void Answer() {
        while (!m_Waiting.empty()) {
            const auto node = m_Waiting.extract(m_Waiting.begin());
            const std::string& strText = node.mapped();
            if (strText[0] == '!')
                node.key()->OnPacEnd(static_cast<EPacEnd>(strText[1] - '0'), strText.substr(2));
            else
                node.key()->OnPacEnd(EPacEnd::ANSWER, strText);
        }
    }

    BOOL m_bLate = FALSE;
    int m_nFinds = 0;
    std::vector<std::string> m_Questions;

private:
    std::map<IPacSink*, std::string> m_Waiting;
};

// Records answers as "route source", "RESULT" or "route source: error".
class CTestAsker final : public ICmObserver {
public:
    ~CTestAsker() override { CCmProxyDiscovery::Instance()->CancelFind(this); }
    void OnObserve(const char* aTopic, void* aData) override {
        EXPECT_STREQ(CCmProxyDiscovery::TOPIC, aTopic);
        const auto& answer = *static_cast<CCmProxyAnswer*>(aData);
        m_Answers.push_back(TextOf(answer));
        m_Settings = answer.GetSettings();
        if (m_Inside)
            m_Inside();
    }
    static std::string TextOf(const CCmProxyAnswer& aAnswer) {
        const std::string strError = aAnswer.GetError().empty() ? "" : ": " + aAnswer.GetError();
        const std::string strRoute =
            aAnswer.GetResult() == CM_OK ? aAnswer.GetRoute().GetText() : std::to_string(aAnswer.GetResult());
        return strRoute + (aAnswer.GetSource().empty() ? "" : " " + aAnswer.GetSource()) + strError;
    }

    std::vector<std::string> m_Answers;
    std::vector<CCmProxySetting> m_Settings;
    std::function<void()> m_Inside;
};

class CTestSourceSink final : public ICmProxySourceSink {
public:
    void OnProxyRoute(CmResult aReason, const CCmProxyRoute& aRoute) override {
        m_strLog += std::to_string(aReason) + aRoute.GetText() + ";";
    }
    void OnProxySettingsChanged() override { m_strLog += "changed;"; }
    std::string m_strLog;
};

constexpr const char* VARIABLES[] = {"http_proxy", "https_proxy", "HTTPS_PROXY",         "all_proxy",       "ALL_PROXY",
                                     "no_proxy",   "NO_PROXY",    "XDG_CURRENT_DESKTOP", "XDG_CONFIG_HOME", "XDG_CONFIG_DIRS"};

class ProxyDiscoveryTest : public testing::Test {
protected:
    ProxyDiscoveryTest() {
        m_pTexts = IPacTexts::Get();
        m_pEngine = IPacEngine::Get();
        IPacTexts::Set(&m_Texts);
        IPacEngine::Set(&m_Engine);
        SetVariables({});
    }
    ~ProxyDiscoveryTest() override {
        EXPECT_EQ(CM_OK, Discovery().SetSettings(""));
        SetVariables({});
        CTestNetwork::EndNetworkThread();
        IPacTexts::Set(m_pTexts);
        IPacEngine::Set(m_pEngine);
    }
    static CCmProxyDiscovery& Discovery() { return *CCmProxyDiscovery::Instance(); }
    static void SetVariables(const std::map<std::string, std::string>& aValues) {
        for (const char* pName : VARIABLES)
            unsetenv(pName);
        for (const auto& [strName, strValue] : aValues)
            setenv(strName.c_str(), strValue.c_str(), 1);
        Discovery().Refresh();
    }
    static void Configure(const std::string& aText) { EXPECT_EQ(CM_OK, Discovery().SetSettings(aText)); }
    // "kept" before an answer without a wait.
    std::string Find(const std::string& aUrl) {
        CTestAsker asker;
        CCmRefPtrT<CCmProxyAnswer> pAnswer;
        const CmResult rv = Discovery().Find(pAnswer.ParaOut(), aUrl, &asker);
        if (rv == CM_OK)
            return "kept " + CTestAsker::TextOf(*pAnswer);
        if (rv != CM_ERROR_WOULD_BLOCK)
            return std::to_string(rv);
        m_Network.RunUntil([&] { return !asker.m_Answers.empty(); });
        return asker.m_Answers.at(0);
    }

    CFakeTexts m_Texts;
    CFakeEngine m_Engine;
    CTestNetwork m_Network;
    IPacTexts* m_pTexts;
    IPacEngine* m_pEngine;
};

}  // namespace

TEST_F(ProxyDiscoveryTest, TheFirstSourceWithAnAnswerCounts) {
    const CCmTempDir dir;
    dir.Write("kioslaverc", "[Proxy Settings]\nProxyType=1\nhttpProxy=http://kde 1\n");
    EXPECT_EQ("direct:// none", Find("http://a.test/"));
    SetVariables({{"http_proxy", "env:1"}, {"XDG_CURRENT_DESKTOP", "GNOME"}});
    EXPECT_EQ("http://env:1 environment http_proxy", Find("http://a.test/")) << "after the end of a child";
    SetVariables({{"https_proxy", "http://u:p@env:2"},
                  {"no_proxy", "b.test"},
                  {"XDG_CURRENT_DESKTOP", "KDE"},
                  {"XDG_CONFIG_HOME", dir.PathOf("")}});
    EXPECT_EQ("http://kde:1 KDE", Find("http://a.test/"));
    EXPECT_EQ("kept http://kde:1 KDE", Find("HTTP://A.test:80/other?q"));
    EXPECT_EQ("http://env:2 environment https_proxy", Find("https://a.test/"));
    EXPECT_EQ("direct:// rule", Find("https://b.test/"));
    EXPECT_EQ("direct:// rule", Find("https://127.0.0.1/"));
    CTestAsker asker;
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Discovery().FindSettings(&asker));
    m_Network.RunUntil([&] { return !asker.m_Answers.empty(); });
    std::string strFound;
    for (const CCmProxySetting& setting : asker.m_Settings)
        strFound += setting.m_strSource.substr(0, 3) + " " + setting.m_strName + "=" + setting.m_strValue + ";";
    EXPECT_EQ("env https_proxy=http://***@env:2;env no_proxy=b.test;KDE httpproxy=http://kde 1;KDE proxytype=1;", strFound);

    CCmFakeClock clock;
    dir.Write("kioslaverc", "[Proxy Settings]\nProxyType=1\nhttpProxy=http://other 10\n");
    clock.Advance(CCmTimeValue(2));
    EXPECT_EQ("kept http://kde:1 KDE", Find("http://a.test/")) << "a question looks for changes";
    m_Network.InNetwork([] {});
    EXPECT_EQ("http://other:10 KDE", Find("http://a.test/"));

    Configure("Mode=manual\nServers=socks5://app\nBypass=*.in.test;<-loopback>");
    EXPECT_EQ("socks5://app:1080 application", Find("http://a.test/"));
    EXPECT_EQ("socks5://app:1080 application", Find("http://127.0.0.1/"));
    EXPECT_EQ("direct:// rule", Find("http://a.in.test/"));
    EXPECT_EQ("kept socks5://app:1080 application", Find("http://a.test/"));
    Configure("Mode=direct");
    EXPECT_EQ("direct:// application", Find("https://a.test/"));
    Configure("");
    EXPECT_EQ("http://env:2 environment https_proxy", Find("https://a.test/"));
    EXPECT_EQ("10008", Find("http://u@a/"));
}

TEST_F(ProxyDiscoveryTest, QuestionsForOneOriginShareOneEvaluation) {
    m_Texts.Set("http://s/p", "PROXY p:1; nonsense; DIRECT");
    Configure("Mode=script\nScriptUrl=http://s/p");
    std::vector<CTestAsker> askers(10);
    const auto find = [&](CTestAsker& aAsker, const std::string& aHost) {
        CCmRefPtrT<CCmProxyAnswer> pAnswer;
        return Discovery().Find(pAnswer.ParaOut(), "https://" + aHost + "/secret?q", &aAsker);
    };
    m_Network.InNetwork([&] { m_Engine.m_bLate = TRUE; });
    for (int i = 0; i < 100; ++i)
        for (CTestAsker& asker : askers)
            EXPECT_EQ(CM_ERROR_WOULD_BLOCK, find(asker, "h" + std::to_string(i) + ".test"));
    EXPECT_EQ(CM_OK, Discovery().CancelFind(&askers[9]));
    askers[8].m_Inside = [&] { Discovery().CancelFind(&askers[8]); };
    m_Network.InNetwork([&] {
        EXPECT_EQ(100, m_Engine.m_nFinds);
        EXPECT_EQ("https://h0.test/ h0.test", m_Engine.m_Questions.at(0));
        m_Engine.m_bLate = FALSE;
        m_Engine.Answer();
    });
    m_Network.RunUntil([&] { return askers[7].m_Answers.size() == 100; });
    m_Network.RunPosted();
    EXPECT_EQ("http://p:1,direct:// script http://s/p", askers[0].m_Answers[0]);
    EXPECT_TRUE(askers[8].m_Answers.size() == 1 && askers[9].m_Answers.empty());
    EXPECT_EQ("kept http://p:1,direct:// script http://s/p", Find("https://h5.test/"));

    // The answers have their time, and a change drops them and the unreachable proxies.
    CCmFakeClock clock;
    clock.Advance(CCmTimeValue(60));
    EXPECT_EQ("http://p:1,direct:// script http://s/p", Find("https://h5.test/"));
    EXPECT_EQ(CM_OK, Discovery().ReportBad("http://p:1"));
    CCmProxyRoute route;
    CCmProxyRoute::FromScript("PROXY p:1; DIRECT", route);
    EXPECT_TRUE(CBadProxies::Instance().Order(route)[0].IsDirect());
    m_Network.InNetwork([&] {
        m_Texts.Set("http://s/p", "HTTPS q");
        m_Texts.m_pWatcher->OnPacTextChanged("http://s/p");
    });
    EXPECT_FALSE(CBadProxies::Instance().Order(route)[0].IsDirect());
    EXPECT_EQ("https://q:443 script http://s/p", Find("https://h5.test/"));
    Configure("Mode=script\nScriptUrl=http://s/p\nAnswerSeconds=0");
    EXPECT_EQ("https://q:443 script http://s/p", Find("https://h5.test/"));
    EXPECT_EQ("https://q:443 script http://s/p", Find("https://h5.test/")) << "not kept";

    // The number of questions is limited, and each gets an answer at the thread's end.
    m_Network.InNetwork([&] { m_Engine.m_bLate = TRUE; });
    CTestAsker many;
    for (size_t i = 0; i < CCmProxyDiscovery::MOST_WAITING; ++i)
        ASSERT_EQ(CM_ERROR_WOULD_BLOCK, find(many, "m" + std::to_string(i % 50)));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, find(many, "m0"));
    CTestNetwork::EndNetworkThread();
    m_Network.RunUntil([&] { return many.m_Answers.size() == CCmProxyDiscovery::MOST_WAITING; });
    EXPECT_EQ("10009", many.m_Answers[0]);
    EXPECT_EQ("10009", Find("https://h5.test/"));
}

TEST_F(ProxyDiscoveryTest, AScriptThatFailsLeavesTheLastGoodOne) {
    m_Texts.Set("http://s/p", "!1line 3");
    Configure("Mode=script\nScriptUrl=http://s/p\nScriptMandatory=1\nAnswerSeconds=3600");
    EXPECT_EQ("20009 script http://s/p: the script cannot be loaded: line 3", Find("http://a.test/"));
    EXPECT_EQ("reject http://s/p", m_Texts.m_Log.back());
    CCmFakeClock clock;
    EXPECT_EQ("kept 20009 script http://s/p: the script cannot be loaded: line 3", Find("http://a.test/"));
    clock.Advance(CCmTimeValue(10));
    m_Network.InNetwork([&] { m_Texts.Set("http://s/p", ""); });
    EXPECT_EQ("direct:// script http://s/p", Find("http://a.test/")) << "null is direct";
    m_Network.InNetwork([&] { m_Texts.Set("http://s/p", "PROXY a;" + std::string(4080, ' ') + "; PROXY bcdefghijkl"); });
    EXPECT_EQ("http://a:80 script http://s/p", Find("http://long.test/")) << "no part of an item";
    m_Network.InNetwork([&] { m_Texts.Set("http://s/p", ""); });
    EXPECT_EQ("direct:// script http://s/p", Find("http://null.test/"));
    for (const char* pBad : {"!1line 4", "!2thrown", "!3", "!4"}) {
        m_Network.InNetwork([&] { m_Texts.Set("http://s/p", pBad); });
        EXPECT_EQ(0u, Find("http://" + std::string(pBad + 1, 1) + ".test/").find("direct:// script http://s/p: ")) << pBad;
    }
    Configure("Mode=script\nScriptUrl=http://s/none");
    m_Network.InNetwork([&] { m_Texts.m_bLate = TRUE; });
    CTestAsker asker;
    CCmRefPtrT<CCmProxyAnswer> pAnswer;
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Discovery().Find(pAnswer.ParaOut(), "http://a.test/", &asker));
    m_Network.InNetwork([&] { m_Texts.Answer(); });
    m_Network.RunUntil([&] { return !asker.m_Answers.empty(); });
    EXPECT_EQ("direct:// script http://s/none: 404 of the test", asker.m_Answers[0]);
    m_Network.InNetwork([] {
        IPacTexts::Set(nullptr);
        IPacEngine::Set(nullptr);
    });
    EXPECT_EQ("direct:// script http://s/none: the script cannot be fetched", Find("http://b.test/"));
}

TEST_F(ProxyDiscoveryTest, InsFilesLeadToOthersButNotInACircle) {
    const auto next = [](const std::string& aUrl) { return "[URL]\nAutoConfig=1\nAutoConfigTime=1\nAutoConfigURL=" + aUrl; };
    m_Texts.Set("http://s/1.ins", next("http://s/2"));
    m_Texts.Set("http://s/2", next("http://s/3"));
    m_Texts.Set("http://s/3", next("http://s/4"));
    m_Texts.Set("http://s/4", "PROXY chain:1");
    Configure("Mode=script\nScriptUrl=http://s/1.ins");
    EXPECT_EQ("http://chain:1 script http://s/4", Find("http://a.test/"));
    EXPECT_TRUE(std::ranges::count(m_Texts.m_Log, "http://s/3 300") == 1);
    const auto findWith = [&](const std::string& aText, const std::string& aUrl = "http://s/4") {
        m_Network.InNetwork([&] {
            m_Texts.Set(aUrl, aText);
            m_Texts.m_pWatcher->OnPacTextChanged(aUrl);
        });
        return Find("http://a.test/");
    };
    EXPECT_EQ("http://chain:1 script http://s/none: the script cannot be fetched",
              findWith(next("http://s/none"), "http://s/3"));
    EXPECT_EQ("direct:// script file:///p: an .ins file of the network names a file of this machine",
              findWith(next("file:///p"), "http://s/3"));
    EXPECT_EQ("http://chain:1 script http://s/4", findWith(next("http://s/4"), "http://s/3"));
    EXPECT_EQ("direct:// script http://s/4: the .ins files are too many", findWith("[Proxy]\nProxy_Enable=0"));
    EXPECT_EQ("direct:// script http://s/4: the .ins files are too many", findWith(next("http://s/1.ins")));
    m_Network.InNetwork([&] { m_Texts.Set("http://s/2", next("http://s/1.ins")); });
    EXPECT_EQ("direct:// script http://s/1.ins: the .ins files are too many, or a circle", findWith(""));
    m_Network.InNetwork(
        [&] { m_Texts.Set("http://s/2", "[Proxy]\nProxy_Enable=1\nHTTP_Proxy_Server=ins:8\nProxy_Override=b.*"); });
    EXPECT_EQ("http://ins:8 automatic configuration", findWith(""));
    EXPECT_EQ("direct:// rule", Find("http://b.test/"));
    EXPECT_EQ("direct:// script http://s/2", Find("https://a.test/"));
}

TEST_F(ProxyDiscoveryTest, SourcesOfConnectorsHaveOneQuestion) {
    m_Texts.Set("http://s/p", "PROXY p:1");
    Configure("Mode=script\nScriptUrl=http://s/p");
    m_Network.InNetwork([&] { m_Engine.m_bLate = TRUE; });
    ICmProxySource& source = *ICmProxySource::Get();
    CTestSourceSink sink, cancelled;
    CCmProxyRoute route;
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, source.Ask("https://[fd00::1]:81/", sink, route));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, source.Ask("https://b.test/", sink, route));
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, source.Ask("https://c.test/", cancelled, route));
    source.Cancel(cancelled);
    Configure("Mode=script\nScriptUrl=http://s/p\nAutoDetect=0");
    m_Network.RunUntil([&] { return sink.m_strLog == "changed;"; });
    m_Network.InNetwork([&] { m_Engine.Answer(); });
    m_Network.RunUntil([&] { return sink.m_strLog == "changed;0http://p:1;"; });
    EXPECT_EQ("", cancelled.m_strLog);
    EXPECT_EQ("https://[fd00::1]:81/ fd00::1", m_Engine.m_Questions.at(0));
    EXPECT_TRUE(source.Ask("https://[fd00::1]:81/", sink, route) == CM_OK && route.GetText() == "http://p:1");
}

TEST_F(ProxyDiscoveryTest, AnotherNetworkDropsTheAnswers) {
    int nRv = 0;
    m_Network.InNetwork([&] { nRv = unshare(CLONE_NEWNET); });  // of this thread alone
    if (nRv == -1)
        GTEST_SKIP() << "there is no right to make a network";
    m_Texts.Set("http://s/p", "PROXY p:1");
    Configure("Mode=script\nScriptUrl=http://s/p\nAnswerSeconds=3600");
    CCmFakeClock clock;
    EXPECT_EQ("http://p:1 script http://s/p", Find("http://a.test/"));
    m_Network.InNetwork([&] {
        m_Texts.Set("http://s/p", "PROXY q:1");
        const CTestFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ifreq loopback{{"lo"}, {}};
        loopback.ifr_flags = IFF_UP;
        EXPECT_EQ(0, ioctl(fd.Get(), SIOCSIFFLAGS, &loopback));
    });
    std::string strAnswer = Find("http://a.test/");
    EXPECT_EQ("kept http://p:1 script http://s/p", strAnswer);
    for (int i = 0; i < 100 && strAnswer.starts_with("kept"); ++i) {  // the network thread reads the messages when it can
        clock.Advance(CCmTimeValue(3));
        m_Network.InNetwork([] {});
        strAnswer = Find("http://a.test/");
    }
    EXPECT_EQ("http://q:1 script http://s/p", strAnswer);
}

TEST(ProxySourcesTest, OnlyTheFirstSettingsOfADesktopAreWaitedFor) {
    struct CUser : IProxySourcesUser {
        void OnSourcesReady() override {}
        void OnSourcesChanged() override {}
    } user;
    CCmFakeClock clock;
    const CTestNetwork network{CCmThreadManager::NETWORK_THREAD_MAIN};
    CProxySources sources(user);
    // Without its schema the program fails.
    const std::map<CCmString, CCmString> variables{{"XDG_CURRENT_DESKTOP", "GNOME"}, {"XDG_DATA_DIRS", "/nowhere"}};
    sources.Load(std::make_shared<CApplicationSettings>(), std::make_shared<CEnvironment>(variables));
    network.RunUntil([&] { return sources.IsReady(); });
    clock.Advance(CCmTimeValue(31));
    sources.Check();
    EXPECT_TRUE(sources.IsReady());
}

TEST(AnswerCacheTest, TheOldestMakesRoom) {
    CAnswerCache cache(2);
    const CCmRefPtrT<CCmProxyAnswer> pAnswer(new CCmProxyAnswer({}));
    for (const char* pOrigin : {"a", "b", "a", "c"})
        cache.Add(pOrigin, pAnswer, 10);
    EXPECT_TRUE(!cache.Find("a", 9) && cache.Find("b", 9) && cache.Find("c", 9) && !cache.Find("c", 10));
}

TEST(NetworkWatchTest, AChangeIsReportedAfterTwoSecondsOfQuiet) {
    struct CUser : INetworkWatchUser {
        void OnNetworkChanged() override { ++m_nChanges; }
        int m_nChanges = 0;
    } user;
    CCmFakeClock clock;
    CTestNetwork network;
    CNetworkWatch watch(network.Main(), user);
    const auto wait = [&](int aMs) {
        clock.Advance(CCmTimeValue::FromUsec(aMs * 1000));
        network.RunPosted();
        return user.m_nChanges;
    };
    watch.OnMessages();
    EXPECT_EQ(0, wait(1900));
    watch.OnMessages();
    EXPECT_EQ(0, wait(1900));
    EXPECT_EQ(1, wait(200));
    EXPECT_EQ(1, wait(5000));
}
