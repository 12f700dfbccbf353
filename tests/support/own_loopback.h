// Addresses of loopback that no other process uses.
#pragma once

#include <unistd.h>

#include <string>

#include "talvo/base/inet_addr.h"

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

// The address that tests listen on and connect to where its family does not matter. Port 0: the system chooses one.
inline CCmInetAddr Loopback(WORD aPort = 0) { return CCmInetAddr(OwnLoopback(), aPort); }
