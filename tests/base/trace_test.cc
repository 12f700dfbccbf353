#include "talvo/base/trace.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <thread>
#include <vector>

#include "talvo/base/config.h"
#include "tests/support/fake_clock.h"
#include "tests/support/temp_dir.h"
#include "tests/support/trace_capture.h"

namespace {

constexpr const char* MARKER = "************************* Current Trace Point *************************\n\n";

size_t CountOf(const std::string& aText, const std::string& aPart) {
    size_t nCount = 0;
    for (size_t n = aText.find(aPart); n != std::string::npos; n = aText.find(aPart, n + 1))
        ++nCount;
    return nCount;
}

// Tracing to a file of its own; off and without a file behind each test.
class TraceFileTest : public testing::Test {
protected:
    TraceFileTest() { CCmTrace::Enable(TRUE); }
    ~TraceFileTest() override {
        CCmTrace::SetFile({});
        CCmTrace::Enable(FALSE);
    }

    void Open(DWORD aFlushPerLines, DWORD aCircularSize = 0) {
        CCmTraceFileSettings settings;
        settings.m_strPath = m_Dir.PathOf("trace");
        settings.m_dwFlushPerLines = aFlushPerLines;
        settings.m_bCircular = aCircularSize > 0;
        if (aCircularSize > 0)
            settings.m_dwMaxSize = aCircularSize;
        ASSERT_EQ(CCmTrace::SetFile(settings), CM_OK);
    }
    std::string File() const { return m_Dir.Read("trace"); }

    // The file is well formed and its newest line ends with aText.
    void ExpectCircular(DWORD aSize, const std::string& aText) const {
        const std::string strFile = File();
        ASSERT_LE(strFile.size(), aSize);
        const size_t nOffset = std::stoul(strFile);
        std::string strOffset = std::to_string(nOffset);
        strOffset.resize(31, ' ');
        ASSERT_EQ(strFile.substr(0, 32), strOffset + "\n");
        ASSERT_EQ(strFile.find(MARKER), nOffset);
        ASSERT_EQ(CountOf(strFile, "Current Trace Point"), 1u);
        ASSERT_TRUE(strFile.substr(32, nOffset - 32).ends_with("] " + aText + "\n")) << strFile;
    }

    const CCmTempDir m_Dir;
};

TEST_F(TraceFileTest, LinesCarryLocalWallTimeProcessThreadAndModule) {
    const char* pZone = getenv("TZ");
    const std::string strZone = pZone ? pZone : "";
    setenv("TZ", "XYZ-3", 1);
    tzset();
    {
        CCmFakeClock clock;
        clock.SetWallUsec(1700000000123456);
        Open(1);
        CM_INFO_TRACE("text " << -1 << ' ' << 2u);
        CCmTrace::Write(CM_TRACE_INFO, "module", "text");
    }
    pZone ? setenv("TZ", strZone.c_str(), 1) : unsetenv("TZ");
    tzset();
    const std::string strHead =
        "[11/15/2023 01:13:20.123 pid=" + std::to_string(getpid()) + " tid=" + std::to_string(cm_thread_self_id()) + "] ";
    EXPECT_EQ(File(), strHead + "text -1322\n" + strHead + "module:text\n");
}

TEST_F(TraceFileTest, WaitsForItsLinesExceptErrors) {
    Open(3);
    CM_INFO_TRACE("1");
    CM_INFO_TRACE("2");
    EXPECT_EQ(File(), "");
    CM_INFO_TRACE("3");
    EXPECT_EQ(CountOf(File(), "\n"), 3u);
    CM_INFO_TRACE("4");
    CM_ERROR_TRACE("5");
    EXPECT_EQ(CountOf(File(), "\n"), 5u);
    CM_INFO_TRACE("6");
    CCmTrace::Flush();
    EXPECT_EQ(CountOf(File(), "\n"), 6u);
    Open(1000000);  // closing the one before writes it out, and memory stays bounded
    const std::string strLong(2000, 'x');
    for (int n = 0; n < 100; ++n)
        CM_INFO_TRACE(strLong);
    EXPECT_GT(CountOf(File(), "\n"), 60u);
}

TEST_F(TraceFileTest, CircularFileGoesRoundAndIsContinued) {
    for (const DWORD dwFlush : {1u, 4u}) {
        for (int n = 0; n < 100; ++n) {
            if (n % 25 == 0)
                Open(dwFlush, 1024);
            const std::string strText = "line " + std::to_string(n) + std::string(static_cast<size_t>(n * 7 % 90), '.');
            CM_INFO_TRACE(strText);
            if (dwFlush > 1)
                CCmTrace::Flush();
            ExpectCircular(1024, strText);
            if (HasFatalFailure())
                return;
        }
    }
}

TEST_F(TraceFileTest, CircularFileStandsForeignContentAndLongLines) {
    m_Dir.Write("trace", "-17" + std::string(28, ' ') + "\n" + std::string(5000, '*'));
    Open(1, 1024);
    CCmTrace::Write(CM_TRACE_INFO, nullptr, std::string(5000, 'x'));
    CM_INFO_TRACE("short");
    ExpectCircular(1024, "short");
    for (int n = 0; n < 3; ++n)
        CCmTrace::Write(CM_TRACE_INFO, nullptr, std::string(5000, 'x'));
    EXPECT_LE(File().size(), 1024u);
}

TEST_F(TraceFileTest, ManyThreadsWriteWholeLinesInTheirOrder) {
    Open(7);
    std::vector<std::thread> threads;
    for (int nThread = 0; nThread < 4; ++nThread)
        threads.emplace_back([nThread] {
            for (int n = 0; n < 500; ++n)
                CM_INFO_TRACE("thread=" << nThread << " line=" << n << ";");
        });
    for (auto& thread : threads)
        thread.join();
    CCmTrace::Flush();
    std::istringstream file(File());
    int nNext[4] = {};
    for (std::string strLine; std::getline(file, strLine);) {
        int nThread = 0;
        int nLine = 0;
        int nEnd = 0;
        std::sscanf(strLine.c_str(), "[%*[0-9/] %*[0-9:.] pid=%*d tid=%*d] thread=%1d line=%d;%n", &nThread, &nLine, &nEnd);
        ASSERT_EQ(static_cast<size_t>(nEnd), strLine.size()) << strLine;
        ASSERT_EQ(nLine, nNext[nThread]++);
    }
    for (const int n : nNext)
        EXPECT_EQ(n, 500);
}

TEST_F(TraceFileTest, BadSettingsAreRefused) {
    CCmTraceCapture trace;
    CCmTraceFileSettings settings;
    settings.m_dwFlushPerLines = 0;
    EXPECT_EQ(CCmTrace::SetFile(settings), CM_ERROR_INVALID_ARG);
    settings = {m_Dir.PathOf("trace"), TRUE, 1023, 1};
    EXPECT_EQ(CCmTrace::SetFile(settings), CM_ERROR_INVALID_ARG);
    settings = {m_Dir.PathOf("no/such/trace"), FALSE, 0, 1};
    EXPECT_EQ(CCmTrace::SetFile(settings), CM_ERROR_FAILURE);
    EXPECT_TRUE(trace.Contains("CCmTrace::SetFile, can't open file."));
}

TEST_F(TraceFileTest, ExitWritesOutWhatWaits) {
    EXPECT_EXIT(
        {
            Open(1000);
            CM_INFO_TRACE("before exit");
            exit(0);
        },
        testing::ExitedWithCode(0), "");
    EXPECT_EQ(CountOf(File(), "before exit\n"), 1u);
}

TEST_F(TraceFileTest, ThreadsMayTraceWhileTheProcessExits) {
    EXPECT_EXIT(
        {
            Open(10);
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
    EXPECT_GE(CountOf(File(), "late\n"), 100u);
}

TEST(Trace, ADisabledLevelEvaluatesNothing) {
    CCmTraceCapture trace;
    int nEvaluated = 0;
    CM_TRACE(CM_TRACE_DETAIL, "never " << ++nEvaluated);
    EXPECT_EQ(CCmTrace::SetLevel(CM_TRACE_DETAIL, TRUE), CM_OK);
    CM_TRACE(CM_TRACE_DETAIL, "now " << ++nEvaluated);
    EXPECT_EQ(CCmTrace::SetLevel(CM_TRACE_DETAIL, FALSE), CM_OK);
    CCmTrace::Enable(FALSE);
    CM_ERROR_TRACE("never " << ++nEvaluated);
    EXPECT_EQ(nEvaluated, 1);
    EXPECT_TRUE(trace.Contains("now 1"));
    EXPECT_EQ(trace.Lines().size(), 1u);
    EXPECT_EQ(CCmTrace::SetLevel(CM_TRACE_LEVEL_COUNT, TRUE), CM_ERROR_INVALID_ARG);
    EXPECT_EQ(CCmTrace::GetLevelName(CM_TRACE_LEVEL_COUNT), nullptr);
    EXPECT_STREQ(CCmTrace::GetLevelName(CM_TRACE_STATISTIC), "Statistic");
}

TEST(Trace, TextsArePutTogetherAndCut) {
    CCmTraceText text;
    text << "a" << static_cast<const char*>(nullptr) << INT64_MIN << UINT64_MAX << reinterpret_cast<void*>(0xbeef) << 1.5
         << true;
    EXPECT_EQ(text.GetText(), "a(null)-9223372036854775808184467440737095516150xbeef1.51");
    const size_t nBefore = text.GetText().size();
    text << std::string(5000, 'x') << "more" << 12;
    EXPECT_LT(text.GetText().size(), 2048u);
    EXPECT_EQ(text.GetText().substr(nBefore), std::string(text.GetText().size() - nBefore, 'x'));
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
    EXPECT_EQ(sink.m_nLines, 1);
}

TEST(Trace, IsConfiguredByTheSection) {
    const CCmTempDir dir;
    const std::string strProcess = program_invocation_short_name;
    load_config_file(dir.Write("cfg", "[Trace]\nbroken\nEnable=1\nPath=" + dir.PathOf("log") + ";\n" + strProcess +
                                          ".Detail=yes\n" + strProcess + ".Info=no\nother.Error=0\n" + strProcess +
                                          ".NA=1\nFlushPerLines=0\nCircular=on\nMaxSize=5\n")
                         .c_str());
    CCmTrace::ReadConfiguration();
    CM_INFO_TRACE("info");
    CM_TRACE(CM_TRACE_DETAIL, "detail");
    CM_ERROR_TRACE("error");
    EXPECT_FALSE(CCmTrace::IsEnabled(2));
    CCmTrace::SetFile({});
    CCmTrace::SetLevel(CM_TRACE_DETAIL, FALSE);
    CCmTrace::SetLevel(CM_TRACE_INFO, TRUE);
    load_config_file(dir.Write("cfg", "[Trace]\nEnable=0\n").c_str());
    CCmTrace::ReadConfiguration();
    EXPECT_FALSE(CCmTrace::IsEnabled(CM_TRACE_ERROR));
    load_config_file("/nonexistent/talvo.cfg");

    const std::string strLog = dir.Read("log");
    EXPECT_EQ(CountOf(strLog, "is malformed and skipped, line=2"), 1u);
    EXPECT_EQ(CountOf(strLog, "] info"), 0u);
    EXPECT_EQ(CountOf(strLog, "] detail\n"), 1u);
    EXPECT_EQ(CountOf(strLog, "] error\n"), 1u);
    EXPECT_EQ(strLog.find(MARKER) + std::string(MARKER).size(), strLog.size());
}

}  // namespace
