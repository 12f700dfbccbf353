// A real DNS server on loopback.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/event_socket.h"
#include "tests/support/own_loopback.h"
#include "tests/support/test.h"

// Runs dnsmasq with the names of a text like a hosts file; all other names do not exist. Ended with the scope, or with the
// process.
class CTestDnsServer {
public:
    explicit CTestDnsServer(int aTtl) : m_nTtl(aTtl) {}
    ~CTestDnsServer() { Kill(); }
    CTestDnsServer(const CTestDnsServer&) = delete;
    CTestDnsServer& operator=(const CTestDnsServer&) = delete;

    // Starts, always on the same port. Returns when it answers.
    void Start(const std::string& aNames) {
        m_Dir.Write("names", aNames);
        Spawn_i();
    }

    void Kill() {
        if (m_Pid == -1)
            return;
        kill(m_Pid, SIGKILL);
        waitpid(std::exchange(m_Pid, -1), nullptr, 0);
    }

    std::string GetAddress() const { return std::string(OwnLoopback()) + ":" + PORT; }

private:
    // Outside the range from which the system chooses.
    static constexpr const char* PORT = "5300";

    void Spawn_i() {
        std::vector<std::string> arguments = {"setpriv",
                                              "--pdeathsig",
                                              "KILL",
                                              "/usr/sbin/dnsmasq",
                                              "--no-daemon",
                                              "--conf-file=/dev/null",
                                              "--pid-file=",
                                              "--no-hosts",
                                              "--no-resolv",
                                              "--bind-interfaces",
                                              std::string("--listen-address=") + OwnLoopback(),
                                              "--no-round-robin",
                                              "--local=/#/",
                                              "--log-facility=-",
                                              std::string("--port=") + PORT,
                                              "--local-ttl=" + std::to_string(m_nTtl),
                                              "--addn-hosts=" + m_Dir.PathOf("names")};
        int nPipe[2];
        ASSERT_EQ(0, pipe2(nPipe, O_CLOEXEC));
        m_Log = CTestFd(nPipe[0]);
        SpawnWithErrorsTo_i(CTestFd(nPipe[1]), arguments);
        WaitForStart_i();
    }

    void SpawnWithErrorsTo_i(const CTestFd& aErrors, std::vector<std::string>& aArguments) {
        std::vector<char*> arguments;
        for (std::string& strArgument : aArguments)
            arguments.push_back(strArgument.data());
        arguments.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, aErrors.Get(), STDERR_FILENO);
        EXPECT_EQ(0, posix_spawnp(&m_Pid, "setpriv", &actions, nullptr, arguments.data(), environ));
        posix_spawn_file_actions_destroy(&actions);
    }

    // A line of its log shows that it has read the names.
    void WaitForStart_i() const {
        const std::string strRead = "read " + m_Dir.PathOf("names");
        std::string strLog;
        while (strLog.find(strRead) == std::string::npos) {
            const std::string strPart = m_Log.Read();
            ASSERT_NE("", strPart) << "dnsmasq does not start: " << strLog;
            strLog += strPart;
        }
    }

    CCmTempDir m_Dir;
    const int m_nTtl;
    pid_t m_Pid = -1;
    CTestFd m_Log;
};
