// Waits until a pipe or a terminal has data.
#pragma once

#include <functional>

#include "talvo/talvo.h"

namespace tool {

// Main thread. The descriptor outlives it.
class InputWatch : private ACmEventHandler {
public:
    InputWatch(int aFd, std::function<void()> aReady) : m_nFd(aFd), m_Ready(std::move(aReady)) {}
    ~InputWatch() override { Stop(); }
    InputWatch(const InputWatch&) = delete;
    InputWatch& operator=(const InputWatch&) = delete;

    // Calls aReady once: there is data, or the writer has closed its end. aReady may call Start. false: the descriptor cannot
    // be watched, as a regular file, which is always ready.
    bool Start();

private:
    HANDLE GetHandle() const override { return m_nFd; }
    int OnInput(HANDLE aFd) override;
    int OnClose(HANDLE aFd, long aMask) override;
    void Stop();

    const int m_nFd;
    const std::function<void()> m_Ready;
    bool m_bRegistered = false;
};

}  // namespace tool
