// Addresses of loopback that no other process uses.
#pragma once

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "talvo/base/inet_addr.h"
#include "tests/support/temp_dir.h"

// Derived from the process's number, so that tests at the same time never share it: a released port here stays free, and a
// fixed port is free.
inline const char* OwnLoopback() {
    static const std::string s_strAddress = [] {
        const auto nPid = static_cast<unsigned>(getpid());
        return "127." + std::to_string(64 + (nPid >> 16) % 128) + "." + std::to_string(nPid >> 8 & 255) + "." +
               std::to_string(nPid & 255);
    }();
    return s_strAddress.c_str();
}

// A path for each port, a new one for port 0.
inline CCmInetAddr OwnPath(WORD aPort) {
    static const CCmTempDir s_Dir;
    static std::atomic<int> s_nLast{0};
    CCmInetAddr addr;
    addr.SetPath(s_Dir.PathOf(aPort ? "port-" + std::to_string(aPort) : std::to_string(++s_nLast)).c_str());
    return addr;
}

// The tests run again with TALVO_TEST_FAMILY "6" and "unix" in the environment, and those of HTTP clients with "tls".
inline const char* OwnFamily() {
    static const char* const s_pFamily = std::getenv("TALVO_TEST_FAMILY");
    return s_pFamily ? s_pFamily : "";
}

// The address that tests listen on and connect to where its family does not matter. Port 0: the system chooses one.
inline CCmInetAddr Loopback(WORD aPort = 0) {
    const std::string strFamily = OwnFamily();
    return strFamily == "unix" ? OwnPath(aPort) : CCmInetAddr(strFamily == "6" ? "::1" : OwnLoopback(), aPort);
}
