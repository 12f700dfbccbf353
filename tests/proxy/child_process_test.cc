#include "talvo/proxy/process/child_process.h"

#include <sys/wait.h>

#include <csignal>

#include "talvo/proxy/process/child_output.h"
#include "tests/support/network_fixture.h"

namespace talvo {

namespace {

struct CEndLog : IChildProcessSink {
    void OnChildEnd(const CChildEnd& aEnd) override { m_Ends.push_back(aEnd); }
    std::vector<CChildEnd> m_Ends;
};

struct COutputLog : IChildOutputSink {
    void OnChildOutput(CmResult aReason, CCmString& aOutput) override {
        m_Reasons.push_back(aReason);
        m_strOutput = aOutput;
    }
    std::vector<CmResult> m_Reasons;
    CCmString m_strOutput;
};

CChildProgram Shell(const char* aScript) { return {"/bin/sh", {"-c", aScript}, {"COLOUR=blue"}}; }

int CountChildren() {
    int nChildren = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream file(entry.path() / "stat");
        std::string strWord, strName, strState;
        pid_t parent = 0;
        if (file >> strWord >> strName >> strState >> parent && parent == getpid())
            ++nChildren;
    }
    return nChildren;
}

}  // namespace

class ChildProcessTest : public testing::Test {
protected:
    CmResult Run(const CChildProgram& aProgram, size_t aMax = 1 << 20) {
        COutputLog log;
        CChildOutput output;
        EXPECT_EQ(CM_OK, output.Start(aProgram, CCmTimeValue(60), aMax, log));
        m_Network.RunUntil([&] { return !log.m_Reasons.empty(); });
        m_strOutput = log.m_strOutput;
        return log.m_Reasons.at(0);
    }

    CTestNetwork m_Network;
    CCmString m_strOutput;
};

TEST_F(ChildProcessTest, AChildHasNothingOfItsParentButWhatItIsGiven) {
    CTestFd leak(fcntl(0, F_DUPFD, 200));  // not closed on exec
    signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(CM_OK,
              Run(Shell("env; pwd; ls /proc/self/fd; read line || echo end; grep -E 'SigBlk|SigIgn' /proc/self/status")));
    signal(SIGPIPE, SIG_DFL);
    EXPECT_NE(CCmString::npos, m_strOutput.find("COLOUR=blue\n")) << m_strOutput;
    EXPECT_EQ(CCmString::npos, m_strOutput.find("HOME="));
    // ls has the folder open as its descriptor 3.
    EXPECT_NE(CCmString::npos, m_strOutput.find("/\n0\n1\n2\n3\nend\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"))
        << m_strOutput;
}

TEST_F(ChildProcessTest, EndsAreReportedWithTheirReasonAndLeaveNoChild) {
    EXPECT_EQ(CM_ERROR_FAILURE, Run(Shell("echo part; exit 3")));
    EXPECT_EQ("part\n", m_strOutput);
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, Run(Shell("while :; do echo 0123456789; done"), 1000));
    CEndLog log;
    CChildProcess process;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, process.Start({"sh", {}, {}}, log));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, process.Start({"/bin/no-such-program", {}, {}}, log));
    EXPECT_EQ(CM_OK, process.Start(Shell("while :; do :; done"), log));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, process.Start(Shell(":"), log));
    process.Kill();
    m_Network.RunUntil([&] { return !log.m_Ends.empty(); });
    EXPECT_EQ(SIGKILL, log.m_Ends[0].m_nSignal);
    { CChildProcess().Start(Shell("while :; do :; done"), log); }
    m_Network.RunUntil([] { return CountChildren() == 0; });
    EXPECT_EQ(1u, log.m_Ends.size());
}

TEST_F(ChildProcessTest, AHostMayReapAllChildrenOrIgnoreThem) {
    CEndLog log;
    CChildProcess process;
    EXPECT_EQ(CM_OK, process.Start(Shell(":"), log));
    EXPECT_GT(waitpid(-1, nullptr, 0), 0);
    m_Network.RunUntil([&] { return log.m_Ends.size() == 1; });
    EXPECT_FALSE(log.m_Ends[0].m_bKnown);
    signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(CM_OK, Run(Shell("echo done")));
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ("done\n", m_strOutput);
}

TEST_F(ChildProcessTest, AChildThatTakesTooLongIsKilled) {
    CCmFakeClock clock;
    COutputLog log;
    CChildOutput output;
    EXPECT_EQ(CM_OK, output.Start(Shell("echo begun; while :; do :; done"), CCmTimeValue(2), 100, log));
    clock.Advance(CCmTimeValue(3));
    m_Network.RunUntil([&] { return !log.m_Reasons.empty(); });
    EXPECT_EQ(CM_ERROR_TIMEOUT, log.m_Reasons[0]);
}

}  // namespace talvo
