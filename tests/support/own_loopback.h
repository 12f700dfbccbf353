// An address of loopback that no other process uses.
#pragma once

#include <unistd.h>

#include <string>

// Made of the process's number, so that tests that run at the same time never meet: a port that was let go here is taken by
// nobody else, and a fixed one is free.
inline const char* OwnLoopback() {
    static const std::string s_strAddress = [] {
        const auto nPid = static_cast<unsigned>(getpid());
        return "127." + std::to_string(64 + (nPid >> 16) % 128) + "." + std::to_string(nPid >> 8 & 255) + "." +
               std::to_string(nPid & 255);
    }();
    return s_strAddress.c_str();
}
