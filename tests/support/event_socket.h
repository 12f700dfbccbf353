// Sockets and handlers for tests of a reactor.
#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "talvo/event/reactor.h"
#include "tests/support/test.h"

// Owns a descriptor.
class CTestFd {
public:
    explicit CTestFd(int aFd = -1) : m_Fd(aFd) {}
    CTestFd(CTestFd&& aRight) noexcept : m_Fd(std::exchange(aRight.m_Fd, -1)) {}
    CTestFd& operator=(CTestFd&& aRight) noexcept {
        std::swap(m_Fd, aRight.m_Fd);
        return *this;
    }
    ~CTestFd() { Close(); }

    void Close() {
        if (m_Fd != -1)
            close(std::exchange(m_Fd, -1));
    }
    int Get() const { return m_Fd; }

    void Write(const std::string& aText) const {
        EXPECT_EQ(static_cast<ssize_t>(aText.size()), write(m_Fd, aText.data(), aText.size()));
    }
    // At most aMax of the available bytes.
    std::string Read(size_t aMax = 16384) const {
        std::string strData(aMax, '\0');
        const ssize_t lRead = read(m_Fd, strData.data(), aMax);
        strData.resize(lRead > 0 ? static_cast<size_t>(lRead) : 0);
        return strData;
    }

private:
    int m_Fd;
};

// Two connected stream sockets that never block.
inline std::pair<CTestFd, CTestFd> MakeSocketPair() {
    int nFds[2] = {-1, -1};
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, nFds));
    return {CTestFd(nFds[0]), CTestFd(nFds[1])};
}

inline CTestFd MakeTcpSocket(DWORD aFamily = AF_INET) {
    return CTestFd(socket(static_cast<int>(aFamily), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

// Handler of one descriptor with a callable for each behaviour; by default reads no data and continues.
class CTestHandler : public ACmEventHandler {
public:
    explicit CTestHandler(int aFd) : m_Fd(aFd) {}

    HANDLE GetHandle() const override { return m_Fd; }
    int OnInput(HANDLE) override {
        ++m_nInputs;
        return m_Input ? m_Input() : 0;
    }
    int OnOutput(HANDLE) override {
        ++m_nOutputs;
        return m_Output ? m_Output() : -2;
    }
    int OnClose(HANDLE aFd, long aMask) override {
        EXPECT_EQ(m_Fd, aFd);
        ++m_nCloses;
        m_lCloseMask = aMask;
        return 0;
    }

    int m_Fd;
    int m_nInputs = 0;
    int m_nOutputs = 0;
    int m_nCloses = 0;
    long m_lCloseMask = 0;
    std::function<int()> m_Input;
    std::function<int()> m_Output;
};
