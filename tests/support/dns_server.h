// A real DNS server on loopback.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/event_socket.h"
#include "tests/support/temp_dir.h"

// Runs dnsmasq with the names of a text like a hosts file; everything else does not exist. Ended with the scope, or with the
// process.
class CTestDnsServer {
public:
    explicit CTestDnsServer(int aTtl) : m_nTtl(aTtl) {}
    ~CTestDnsServer() { Kill(); }
    CTestDnsServer(const CTestDnsServer&) = delete;
    CTestDnsServer& operator=(const CTestDnsServer&) = delete;

    // Starts, again on the same port if it has run before. Returns when it answers.
    void Start(const std::string& aNames) {
        m_Dir.Write("names", aNames);
        for (int i = 0; i < 20 && m_Pid == -1; ++i)
            Spawn_i();
        ASSERT_NE(-1, m_Pid) << "dnsmasq does not start";
    }

    void Kill() {
        if (m_Pid == -1)
            return;
        kill(m_Pid, SIGKILL);
        waitpid(std::exchange(m_Pid, -1), nullptr, 0);
    }

    std::string GetAddress() const { return "127.0.0.1:" + std::to_string(m_nPort); }

private:
    void Spawn_i() {
        if (m_nPort == 0)
            m_nPort = FindPort_i();
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
                                              "--listen-address=127.0.0.1",
                                              "--no-round-robin",
                                              "--local=/#/",
                                              "--log-facility=-",
                                              "--port=" + std::to_string(m_nPort),
                                              "--local-ttl=" + std::to_string(m_nTtl),
                                              "--addn-hosts=" + m_Dir.PathOf("names")};
        int nPipe[2];
        ASSERT_EQ(0, pipe2(nPipe, O_CLOEXEC));
        m_Log = CTestFd(nPipe[0]);
        SpawnWithErrorsTo_i(CTestFd(nPipe[1]), arguments);
        if (!HasStarted_i()) {
            Kill();
            m_nPort = 0;
        }
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

    // Its log tells when it has read the names; it ends early when the port is taken.
    bool HasStarted_i() const {
        const std::string strRead = "read " + m_Dir.PathOf("names");
        std::string strLog;
        for (std::string strPart = m_Log.Read(); !strPart.empty(); strPart = m_Log.Read()) {
            strLog += strPart;
            if (strLog.find(strRead) != std::string::npos)
                return true;
        }
        return false;
    }

    static int FindPort_i() {
        const CTestFd socketFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(addr);
        EXPECT_EQ(0, bind(socketFd.Get(), reinterpret_cast<sockaddr*>(&addr), length));
        EXPECT_EQ(0, getsockname(socketFd.Get(), reinterpret_cast<sockaddr*>(&addr), &length));
        return ntohs(addr.sin_port);
    }

    CCmTempDir m_Dir;
    const int m_nTtl;
    int m_nPort = 0;
    pid_t m_Pid = -1;
    CTestFd m_Log;
};
