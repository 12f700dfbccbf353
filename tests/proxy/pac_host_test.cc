#include "talvo/proxy/script/pac_host.h"

#include <unistd.h>

#include "talvo/proxy/script/pac_helper_path.h"
#include "talvo/proxy/script/pac_place.h"
#include "talvo/proxy/script/pac_zone.h"
#include "tests/support/dns_helpers.h"

namespace talvo {

namespace {

CPacTextPtr Script(const CCmString& aBody) {
    static uint64_t s_ullVersion = 0;
    return std::make_shared<CPacText>(CPacText{++s_ullVersion, "function FindProxyForURL(url, host) { " + aBody + " }"});
}

struct CPacLog : IPacSink {
    void OnPacEnd(EPacEnd aEnd, const CCmString& aText) override {
        m_Ends.push_back(aEnd);
        m_strText = aText;
    }
    void OnPacAlert(const CCmString& aText) override { m_strAlerts += aText; }
    std::vector<EPacEnd> m_Ends;
    CCmString m_strText, m_strAlerts;
};

std::vector<pid_t> Children() {
    std::vector<pid_t> children;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "children");
        for (pid_t pid; file >> pid;)
            children.push_back(pid);
    }
    return children;
}

}  // namespace

class PacHostTest : public CDnsTest {
protected:
    PacHostTest() { m_pHost = std::make_unique<CPacHost>(); }
    ~PacHostTest() override {
        cm_proxy_set_pac_helper(nullptr);
        m_pHost.reset();
        RunUntil([] { return Children().empty(); });
    }
    void SetUp() override {
        if (access(GetPacHelperPath().c_str(), X_OK) == -1)
            GTEST_SKIP() << "there is no helper program";
    }

    CmResult Start(const CPacTextPtr& aScript, CPacLog& aLog, const char* aZone = "UTC0") {
        return m_pHost->Find(aScript, {"https://h.test/", "h.test", 1'800'000'000'000'000, aZone}, aLog);
    }
    // The one end of a question. aSeconds pass while it runs.
    EPacEnd Ask(const CPacTextPtr& aScript, CPacLog& aLog, int aSeconds = 0) {
        aLog.m_Ends.clear();
        EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Start(aScript, aLog));
        EXPECT_TRUE(aLog.m_Ends.empty());
        m_Clock.Advance(CCmTimeValue(aSeconds));
        RunUntil([&] { return !aLog.m_Ends.empty(); });
        EXPECT_EQ(1u, aLog.m_Ends.size());
        return aLog.m_Ends.at(0);
    }

    // A helper that reads its first frame and answers with bytes of the shell's printf.
    void UseHelper(const CCmString& aAnswer) {
        const auto strPath =
            m_Dir.Write("helper", "#!/bin/sh\nhead -c 9 <&0 >/dev/null\nprintf '" + aAnswer + "' >&0\nexec sleep 1000 <&0\n");
        std::filesystem::permissions(strPath, std::filesystem::perms(0755));
        EXPECT_EQ(0, cm_proxy_set_pac_helper(strPath.c_str()));
    }

    std::unique_ptr<CPacHost> m_pHost;
};

TEST_F(PacHostTest, OneHelperAnswersUntilItIsIdle) {
    CPacLog log, other;
    const auto pScript =
        Script("alert('a\\x07'); return 'PROXY ' + url + host + new Date().getTime() / 1e6 % 10 + new Date().getHours();");
    EXPECT_EQ(EPacEnd::ANSWER, Ask(pScript, log));
    EXPECT_EQ(0u, log.m_strText.find("PROXY https://h.test/h.test")) << log.m_strText;
    EXPECT_EQ("a?", log.m_strAlerts);
    const auto children = Children();
    EXPECT_EQ(1u, children.size());
    EXPECT_EQ(EPacEnd::SCRIPT_FAILED, Ask(Script("\nreturn missing;"), log));
    EXPECT_EQ("ReferenceError: identifier 'missing' undefined, line 2", log.m_strText);
    EXPECT_EQ(EPacEnd::LOAD_FAILED, Ask(Script("let x = 1;"), log));
    EXPECT_EQ(EPacEnd::ANSWER, Ask(Script("return 7;"), log));
    EXPECT_EQ("", log.m_strText);
    // A cancelled question is not reported, running or waiting.
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Start(pScript, other));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, Start(pScript, other));
    m_pHost->Cancel(other);
    EXPECT_EQ(EPacEnd::ANSWER, Ask(pScript, log));
    EXPECT_TRUE(other.m_Ends.empty());
    EXPECT_EQ(children[0], Children().at(0));
    m_Clock.Advance(CCmTimeValue(61));
    RunUntil([] { return Children().empty(); });
}

TEST_F(PacHostTest, AScriptBeyondALimitLosesItsHelperAndTheNextQuestionGetsANewOne) {
    CPacLog log;
    CCmTraceCapture trace;
    const auto pGood = Script("return 'DIRECT';");
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Start(Script("alert('in it'); while (true);"), log));
    RunUntil([&] { return !log.m_strAlerts.empty(); });
    m_Clock.Advance(CCmTimeValue(6));
    RunUntil([&] { return !log.m_Ends.empty(); });
    EXPECT_EQ("the evaluation took more than 5 s", log.m_strText);
    EXPECT_EQ(EPacEnd::ANSWER, Ask(pGood, log));
    EXPECT_EQ(EPacEnd::LIMIT, Ask(Script("for (i = 0; i < 101; ++i) alert(i);"), log));
    EXPECT_EQ("the script has more than 100 alerts", log.m_strText);
    EXPECT_EQ(EPacEnd::ANSWER, Ask(pGood, log));
    EXPECT_EQ(EPacEnd::LIMIT, Ask(Script("return new Array(4098).join('x');"), log));
    // The third death within a minute.
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, Start(pGood, log));
    m_Clock.Advance(CCmTimeValue(61));
    EXPECT_EQ(EPacEnd::ANSWER, Ask(pGood, log));
    RunUntil([] { return Children().size() == 1; });
    kill(Children().at(0), SIGSTOP);
    EXPECT_EQ(EPacEnd::LIMIT, Ask(pGood, log, 6));
    EXPECT_EQ(EPacEnd::LOAD_FAILED, Ask(Script("} while (true); {"), log, 3));
    EXPECT_EQ("the load took more than 2 s", log.m_strText);
    EXPECT_EQ(EPacEnd::ANSWER, Ask(pGood, log));
    EXPECT_EQ(5u, trace.Count("the helper is killed"));
}

TEST_F(PacHostTest, AQuestionThatADeadHelperHasNotReadGoesToAnother) {
    CPacLog log;
    const auto pScript = Script("return 'DIRECT';");
    EXPECT_EQ(EPacEnd::ANSWER, Ask(pScript, log));
    kill(Children().at(0), SIGKILL);  // while it is idle
    EXPECT_EQ(EPacEnd::ANSWER, Ask(pScript, log));
    RunUntil([] { return Children().size() == 1; });
    log.m_Ends.clear();
    kill(Children()[0], SIGSTOP);
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Start(pScript, log));
    kill(Children()[0], SIGKILL);
    RunUntil([&] { return !log.m_Ends.empty(); });
    EXPECT_EQ(EPacEnd::ANSWER, log.m_Ends[0]);
    // A script that ends its helper is not repeated.
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Start(Script("alert(1); while (true);"), log));
    RunUntil([&] { return !log.m_strAlerts.empty(); });
    for (const pid_t child : Children())
        kill(child, SIGKILL);
    RunUntil([&] { return log.m_Ends.size() == 2; });
    EXPECT_EQ("the helper has ended", log.m_strText);
}

TEST_F(PacHostTest, NamesComeFromTheDnsManagerAndDelayNoOtherQuestion) {
    const CSilentServer server;
    WriteHosts("10.1.2.3 a.test\n2001:db8::1 a.test\n");
    CPacLog log, slow;
    EXPECT_EQ(EPacEnd::ANSWER,
              Ask(Script("return dnsResolve('a.test') + dnsResolveEx('a.test') + myIpAddress().length;"), log));
    EXPECT_EQ(0u, log.m_strText.find("10.1.2.32001:db8::1;10.1.2.3")) << log.m_strText;
    EXPECT_EQ(EPacEnd::LIMIT, Ask(Script("for (i = 0; i < 21; ++i) dnsResolve('1.2.3.' + i + '.a b');"), log));
    m_Keys["Servers"] = server.m_strAddress;
    Configure();
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, Start(Script("return 'x' + dnsResolve('silent.test');"), slow));
    EXPECT_EQ(EPacEnd::ANSWER, Ask(Script("return 'DIRECT';"), log));
    RunUntil([] { return Children().size() == 2; });  // the killed one is reaped
    for (char byte; slow.m_Ends.empty() && recv(server.m_Fd.Get(), &byte, 1, MSG_DONTWAIT) == -1;)
        m_Network.RunPosted();
    m_Network.RunPosted();
    m_Clock.Advance(CCmTimeValue(3));
    RunUntil([&] { return !slow.m_Ends.empty(); });
    EXPECT_EQ("xnull", slow.m_strText);
}

TEST_F(PacHostTest, AHelperThatSpeaksOtherwiseIsKilled) {
    CPacLog log;
    for (const char* szAnswer :
         {"\\0\\0\\0\\0", "\\377\\0\\0\\1r", "\\0\\0\\0\\1L", "\\0\\0\\0\\3e\\0\\0", "\\0\\0\\0\\1n", "\\0\\0\\0\\3nq1",
          "\\0\\0\\0\\2nm\\0\\0\\0\\2nm\\0\\0\\0\\2nM", "\\0\\0\\0\\3n4a\\0\\0\\0\\1r"}) {
        UseHelper(szAnswer);
        EXPECT_EQ(EPacEnd::LOAD_FAILED, Ask(Script(""), log)) << szAnswer;
        m_Clock.Advance(CCmTimeValue(61));
    }
    UseHelper("\\0\\0\\0\\1r\\0\\0\\0\\12rDIRECT 12");
    EXPECT_EQ(EPacEnd::ANSWER, Ask(Script(""), log));
    EXPECT_EQ("DIRECT 12", log.m_strText);
}

TEST_F(PacHostTest, WithoutAHelperNoScriptRuns) {
    CCmTraceCapture trace;
    CPacLog log;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, cm_proxy_set_pac_helper("talvo-pac"));
    EXPECT_EQ(0, cm_proxy_set_pac_helper("/nowhere/talvo-pac"));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, Start(Script(""), log));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, Start(Script(""), log));
    EXPECT_EQ(1u, trace.Count("scripts cannot run"));
    EXPECT_TRUE(log.m_Ends.empty());
}

TEST(PacZoneTest, ZonesNeedNoFileInTheHelper) {
    EXPECT_EQ("CET-1CEST,M3.5.0,M10.5.0/3", PosixZoneOf("Europe/Berlin", 0));
    EXPECT_EQ("UTC0", PosixZoneOf("UTC0", 0));
    EXPECT_EQ("<+02>-2,M1.1.0", PosixZoneOf("<+02>-2,M1.1.0", 0));
    EXPECT_EQ("", PosixZoneOf("../../etc/passwd", 0));
    setenv("TZ", "Australia/Sydney", 1);
    tzset();
    EXPECT_EQ("<+10>-10:00:00<+11>-11:00:00,276/2:00:00,94/3:00:00", PosixZoneOf("", 1'783'000'000));
    unsetenv("TZ");
    tzset();
}

}  // namespace talvo
