#include "talvo/base/trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <sstream>

#include "talvo/base/config.h"
#include "tests/support/test.h"

namespace {

constexpr const char* MARKER = "************************* Current Trace Point *************************\n\n";

// Tracing to a file of its own; off and without a file behind each test.
class TraceFileTest : public testing::Test {
protected:
    ~TraceFileTest() override {
        load_config_file("/nonexistent/talvo.cfg");
        CCmTrace::SetFile({});
        CCmTrace::SetLevel(CM_TRACE_WARNING, TRUE);
        CCmTrace::Enable(FALSE);
    }

    void Open(DWORD aFlushPerLines, const std::string& aMore = "") {
        const std::string strText = "[Trace]\nEnable=1\nPath=" + m_Dir.PathOf("trace") +
                                    ";\nFlushPerLines=" + std::to_string(aFlushPerLines) + aMore + "\nother.Error=0\n" +
                                    program_invocation_short_name + ".Warning=no\n";
        load_config_file(m_Dir.Write("cfg", strText).c_str());
        CCmTrace::ReadConfiguration();
    }
    std::string File() const { return m_Dir.Read("trace"); }

    // The file is well formed and its newest line ends with aText.
    void ExpectCircular(const std::string& aText) const {
        const std::string strFile = File();
        ASSERT_LE(strFile.size(), 1024u);
        const size_t nOffset = std::stoul(strFile);
        std::string strOffset = std::to_string(nOffset);
        strOffset.resize(31, ' ');
        ASSERT_EQ(strFile.substr(0, 32), strOffset + "\n");
        ASSERT_EQ(strFile.find(MARKER), nOffset);
        ASSERT_EQ(strFile.rfind("Current Trace Point"), strFile.find("Current Trace Point"));
        ASSERT_TRUE(strFile.substr(32, nOffset - 32).ends_with("] " + aText + "\n")) << strFile;
    }

    const CCmTempDir m_Dir;
};

TEST_F(TraceFileTest, LinesCarryLocalWallTimeProcessThreadAndModule) {
    setenv("TZ", "XYZ-3", 1);
    tzset();
    CCmFakeClock clock;
    clock.SetWallUsec(1700000000123456);
    Open(1);
    CM_WARNING_TRACE("switched off");
    CCmTrace::Write(CM_TRACE_INFO, "module", "text");
    EXPECT_EQ(File(), "[11/15/2023 01:13:20.123 pid=" + std::to_string(getpid()) +
                          " tid=" + std::to_string(cm_thread_self_id()) + "] module:text\n");
}

TEST_F(TraceFileTest, CircularFileGoesRoundAndIsContinued) {
    m_Dir.Write("trace", "-17" + std::string(28, ' ') + "\n" + std::string(5000, '*'));  // somebody else's
    for (int n = 0; n < 200 && !HasFatalFailure(); ++n) {
        if (n % 25 == 0)
            Open(n < 100 ? 1 : 4, "\nCircular=on\nMaxSize=5");
        if (n % 20 == 0)
            CCmTrace::Write(CM_TRACE_INFO, nullptr, std::string(5000, 'x'));
        const std::string strText = "line " + std::to_string(n) + std::string(static_cast<size_t>(n * 7 % 90), '.');
        CM_INFO_TRACE(strText);
        CCmTrace::Flush();
        ExpectCircular(strText);
    }
}

TEST_F(TraceFileTest, APipeIsNeverWaitedFor) {
    CCmTraceFileSettings settings;
    settings.m_strPath = m_Dir.PathOf("pipe");
    ASSERT_EQ(0, mkfifo(settings.m_strPath.c_str(), 0600));
    Open(1);
    EXPECT_EQ(CM_ERROR_FAILURE, CCmTrace::SetFile(settings));  // without a reader
    for (int nRound = 0; nRound < 2; ++nRound) {
        const int nReader = open(settings.m_strPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        settings.m_bCircular = TRUE;
        EXPECT_EQ(CM_ERROR_FAILURE, CCmTrace::SetFile(settings));
        settings.m_bCircular = FALSE;
        settings.m_dwFlushPerLines = 7;
        EXPECT_EQ(CM_OK, CCmTrace::SetFile(settings));
        for (int n = 0; n < 100; ++n)
            CM_INFO_TRACE(std::string(1500, 'x') << "end");  // more than there is room for
        CCmTrace::Flush();
        char szRead[65536];
        const ssize_t nRead = read(nReader, szRead, sizeof szRead);
        EXPECT_TRUE(std::string_view(szRead, nRead < 0 ? 0 : static_cast<size_t>(nRead)).ends_with("xend\n"));
        EXPECT_GT(nRead, 32768);
        close(nReader);
        CM_ERROR_TRACE("nobody reads");  // SIGPIPE would end the process
    }
    sigset_t pending;
    EXPECT_EQ(0, sigpending(&pending));
    EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
}

TEST_F(TraceFileTest, ExitWritesOutWhatWaitsWhileThreadsGoOnTracing) {
    EXPECT_EXIT(
        {
            Open(1000);
            CM_INFO_TRACE("before exit");
            std::atomic<int> nTraced{0};
            for (int n = 0; n < 2; ++n)
                std::thread([&nTraced] {
                    for (;;) {
                        CM_INFO_TRACE("late");
                        ++nTraced;
                    }
                }).detach();
            while (nTraced < 100)
                std::this_thread::yield();
            exit(0);
        },
        testing::ExitedWithCode(0), "");
    EXPECT_NE(File().find("before exit\n"), std::string::npos);
}

TEST(Trace, TextsArePutTogetherAndCut) {
    CCmTraceText text;
    text << "a" << static_cast<const char*>(nullptr) << INT64_MIN << UINT64_MAX << reinterpret_cast<void*>(0xbeef) << 1.5;
    const std::string strHead = "a(null)-9223372036854775808184467440737095516150xbeef1.5";
    EXPECT_EQ(text.GetText(), strHead);
    text << std::string(5000, 'x') << "more" << 12;
    EXPECT_EQ(text.GetText(), strHead + std::string(2044 - strHead.size(), 'x'));
}

// Traces from inside OnTrace, and takes itself out.
class CNoisySink : public ICmTraceSink {
public:
    void OnTrace(DWORD, const char*, std::string_view) override {
        ++m_nLines;
        CM_ERROR_TRACE("from the sink");
        CCmTrace::SetSink(nullptr);
    }
    int m_nLines = 0;
};

TEST(Trace, WhatASinkTracesIsDropped) {
    CNoisySink sink;
    CCmTrace::SetSink(&sink);
    CCmTrace::Enable(TRUE);
    CM_ERROR_TRACE("one");
    CM_ERROR_TRACE("two");
    CCmTrace::Enable(FALSE);
    CM_ERROR_TRACE("evaluated only where it is enabled" << ++sink.m_nLines);
    EXPECT_EQ(sink.m_nLines, 1);
}

}  // namespace
