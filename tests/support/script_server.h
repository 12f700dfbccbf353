// A plain server whose every byte the test decides.
#pragma once

#include <netinet/tcp.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/network_fixture.h"

// The server's end of a connection, blocking, in a thread of its own.
class CScriptPeer {
public:
    explicit CScriptPeer(int aFd) : m_Fd(aFd) {}

    // Up to and including aEnd; what came behind it is kept. "": the peer has gone.
    std::string ReadTo(const std::string& aEnd) {
        while (m_strData.find(aEnd) == std::string::npos) {
            if (!Receive())
                return "";
        }
        return ReadBytes(m_strData.find(aEnd) + aEnd.size());
    }
    std::string ReadBytes(size_t aCount) {
        while (m_strData.size() < aCount && Receive())
            continue;
        const std::string strTaken = m_strData.substr(0, aCount);
        m_strData.erase(0, aCount);
        return strTaken;
    }
    // A head and the body that it announces, as it came.
    std::string ReadRequest() {
        const std::string strHead = ReadTo("\r\n\r\n");
        const size_t nLength = strHead.find("Content-Length: ");
        if (nLength != std::string::npos)
            return strHead + ReadBytes(std::stoul(strHead.substr(nLength + 16)));
        return strHead + (strHead.find("Encoding: chunked") != std::string::npos ? ReadTo("0\r\n\r\n") : "");
    }
    void Send(const std::string& aText, size_t aPiece = 0) const {
        const size_t nPiece = aPiece > 0 ? aPiece : std::max<size_t>(aText.size(), 1);
        for (size_t i = 0; i < aText.size(); i += nPiece) {
            if (send(m_Fd, aText.data() + i, std::min(nPiece, aText.size() - i), MSG_NOSIGNAL) <= 0)
                return;
        }
    }
    // Behind what was sent.
    void Reset() const {
        const int nOn = 1;
        EXPECT_EQ(0, setsockopt(m_Fd, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof nOn));
        const sockaddr none{AF_UNSPEC, {}};
        EXPECT_EQ(0, connect(m_Fd, &none, sizeof none));
    }
    void WaitForEnd() {
        while (Receive())
            continue;
    }

private:
    bool Receive() {
        char buffer[65536];
        const ssize_t lRead = recv(m_Fd, buffer, sizeof buffer, 0);
        m_strData.append(buffer, lRead > 0 ? static_cast<size_t>(lRead) : 0);
        return lRead > 0;
    }
    const int m_Fd;
    std::string m_strData;
};

// Each connection plays the script of its number, those beyond the last script play that one. When a script returns its
// connection is closed.
class CScriptServer {
public:
    using CScript = std::function<void(CScriptPeer&)>;

    explicit CScriptServer(std::vector<CScript> aScripts) : m_Scripts(std::move(aScripts)) {
        m_Acceptor = std::thread([this] { Accept(); });
    }
    // The usual script: reads a request for each answer, sends the answer in pieces and at the end waits for the client's.
    static CScript Answers(std::vector<std::string> aAnswers, size_t aPiece = 0) {
        return [=](CScriptPeer& aPeer) {
            for (size_t i = 0; i < aAnswers.size() && !aPeer.ReadRequest().empty(); ++i)
                aPeer.Send(aAnswers[i], aPiece);
            aPeer.WaitForEnd();
        };
    }
    ~CScriptServer() { End(); }
    // The scripts are over when it returns: what they wrote can be read.
    void End() {
        if (!m_Acceptor.joinable())
            return;
        shutdown(m_Listener.GetFd(), SHUT_RDWR);
        m_Acceptor.join();
        for (CPlay& play : m_Plays) {
            shutdown(play.m_Fd.Get(), SHUT_RDWR);
            play.m_Thread.join();
        }
    }

    std::string Url(const std::string& aPath = "/") const {
        return "http://" + m_Listener.Addr().GetIpDisplayName() + ":" + std::to_string(m_Listener.Addr().GetPort()) + aPath;
    }
    size_t GetConnections() {
        std::lock_guard guard(m_Mutex);
        return m_Plays.size();
    }

private:
    struct CPlay {
        CTestFd m_Fd;
        std::thread m_Thread;
    };

    void Accept() {
        for (;;) {
            CTestFd fd(accept4(m_Listener.GetFd(), nullptr, nullptr, SOCK_CLOEXEC));
            if (fd.Get() == -1)
                return;
            std::lock_guard guard(m_Mutex);
            const CScript& script = m_Scripts[std::min(m_Plays.size(), m_Scripts.size() - 1)];
            const int nFd = fd.Get();
            m_Plays.push_back({std::move(fd), std::thread([nFd, &script] {
                                   CScriptPeer peer(nFd);
                                   script(peer);
                                   shutdown(nFd, SHUT_RDWR);
                               })});
        }
    }

    const std::vector<CScript> m_Scripts;
    const CTestListener m_Listener;
    std::mutex m_Mutex;
    std::vector<CPlay> m_Plays;
    std::thread m_Acceptor;
};
