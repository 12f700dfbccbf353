// A real DNS server on loopback.
#pragma once

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/event_helpers.h"
#include "tests/support/own_loopback.h"

// Runs dnsmasq with the names of a text like a hosts file; all other names do not exist. Ended with the scope, or with the
// process.
class CTestDnsServer {
public:
    explicit CTestDnsServer(int aTtl) : m_nTtl(aTtl) {}
    ~CTestDnsServer() { Kill(); }
    CTestDnsServer(const CTestDnsServer&) = delete;
    CTestDnsServer& operator=(const CTestDnsServer&) = delete;

    // Starts anew, always on the same port. Returns when it answers.
    void Start(const std::string& aNames) {
        Kill();
        m_Dir.Write("log", "");
        std::string strCommand =
            "exec setpriv --pdeathsig KILL /usr/sbin/dnsmasq --no-daemon --conf-file=/dev/null --pid-file= --no-hosts"
            " --no-resolv --bind-interfaces --no-round-robin --local=/#/ --log-facility=- --port=5300 --listen-address=";
        strCommand += OwnLoopback() + (" --local-ttl=" + std::to_string(m_nTtl)) +
                      " --addn-hosts=" + m_Dir.Write("names", aNames) + " 2>" + m_Dir.PathOf("log");
        std::string strShell = "sh", strOption = "-c";
        char* const arguments[] = {strShell.data(), strOption.data(), strCommand.data(), nullptr};
        EXPECT_EQ(0, posix_spawnp(&m_Pid, "sh", nullptr, nullptr, arguments, environ));
        // A line of its log shows that it has read the names.
        const std::string strRead = "read " + m_Dir.PathOf("names");
        YieldUntil([&] { return m_Dir.Read("log").find(strRead) != std::string::npos; });
    }

    void Kill() {
        if (m_Pid == -1)
            return;
        kill(m_Pid, SIGKILL);
        waitpid(std::exchange(m_Pid, -1), nullptr, 0);
    }

    // The port is outside the range from which the system chooses.
    std::string GetAddress() const { return std::string(OwnLoopback()) + ":5300"; }

private:
    CCmTempDir m_Dir;
    const int m_nTtl;
    pid_t m_Pid = -1;
};
