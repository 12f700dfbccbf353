// The library in use: threads, sinks and plain sockets on the other side.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "talvo/base/live_counter.h"
#include "talvo/connection/connection_manager.h"
#include "tests/support/event_helpers.h"
#include "tests/support/event_socket.h"

// Bytes that differ from their neighbours and, by aSeed, from other data.
inline std::string Pattern(size_t aSize, unsigned aSeed = 1) {
    std::string strData(aSize, '\0');
    uint32_t dwState = aSeed * 2654435761u + 12345;
    for (char& c : strData) {
        dwState = dwState * 1664525u + 1013904223u;
        c = static_cast<char>(dwState >> 24);
    }
    return strData;
}

// A block with storage of its own.
inline CCmRefPtrT<CCmDataBlock> MakeData(const std::string& aText) {
    CCmRefPtrT<CCmDataBlock> pData;
    EXPECT_EQ(CM_OK, CCmDataBlock::CreateInstance(pData.ParaOut(), static_cast<DWORD>(aText.size()), aText.data()));
    return pData;
}

inline CmResult SendText(ICmTransport& aTransport, const std::string& aText, CCmTransportParameter* aPara = nullptr) {
    const DWORD dwSize = static_cast<DWORD>(aText.size());
    CCmMessageBlock block(dwSize, aText.data(), CCmMessageBlock::DONT_DELETE, dwSize);
    return aTransport.SendData(block, aPara);
}

// Collects what a transport says; each upcall may also run a callable.
class CTestSink : public ICmTransportSink {
public:
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override {
        Seen(aTrptId);
        ++m_nReceives;
        m_strReceived += aData.FlattenChained();
        if (m_Receive)
            m_Receive();
    }
    void OnSend(ICmTransport* aTrptId, CCmTransportParameter*) override {
        Seen(aTrptId);
        ++m_nSends;
        if (m_Send)
            m_Send();
    }
    void OnDisconnect(CmResult aReason, ICmTransport* aTrptId) override {
        Seen(aTrptId);
        ++m_nDisconnects;
        m_Reason = aReason;
        if (m_Disconnect)
            m_Disconnect();
    }
    int Upcalls() const { return m_nReceives + m_nSends + m_nDisconnects; }

    std::string m_strReceived;
    int m_nReceives = 0;
    int m_nSends = 0;
    int m_nDisconnects = 0;
    CmResult m_Reason = CM_OK;
    std::function<void()> m_Receive;
    std::function<void()> m_Send;
    std::function<void()> m_Disconnect;

private:
    void Seen(ICmTransport* aTrptId) {
        EXPECT_NE(nullptr, aTrptId);
        EXPECT_EQ(0, m_nDisconnects) << "an upcall after the last one";
        if (m_dwThread == 0)
            m_dwThread = cm_thread_self_id();
        EXPECT_EQ(m_dwThread, cm_thread_self_id());
    }
    DWORD m_dwThread = 0;
};

// Keeps what an acceptor or connector indicates.
class CTestConnectSink : public ICmAcceptorConnectorSink {
public:
    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId* aRequestId) override {
        EXPECT_EQ(aReason == CM_OK, aTrpt != nullptr);
        m_Reasons.push_back(aReason);
        m_pLastId = aRequestId;
        if (m_bKeep && aTrpt)
            m_Transports.emplace_back(aTrpt);
        if (m_Indicated)
            m_Indicated();
    }
    size_t Count() const { return m_Reasons.size(); }

    BOOL m_bKeep = TRUE;
    std::vector<CmResult> m_Reasons;
    std::vector<CCmRefPtrT<ICmTransport>> m_Transports;
    ICmAcceptorConnectorId* m_pLastId = nullptr;
    std::function<void()> m_Indicated;
};

// A plain listening socket; small buffers make its connections fill up early.
class CTestListener {
public:
    explicit CTestListener(int aBacklog = 128, int aBufferSize = 0) : m_Fd(MakeTcpSocket()) {
        if (aBufferSize > 0)
            setsockopt(m_Fd.Get(), SOL_SOCKET, SO_RCVBUF, &aBufferSize, sizeof aBufferSize);
        sockaddr_in addr = *CCmInetAddr("127.0.0.1", 0).GetPtr();
        socklen_t length = sizeof addr;
        EXPECT_EQ(0, bind(m_Fd.Get(), reinterpret_cast<sockaddr*>(&addr), length));
        EXPECT_EQ(0, listen(m_Fd.Get(), aBacklog));
        EXPECT_EQ(0, getsockname(m_Fd.Get(), reinterpret_cast<sockaddr*>(&addr), &length));
        m_Addr = CCmInetAddr("127.0.0.1", ntohs(addr.sin_port));
    }
    const CCmInetAddr& Addr() const { return m_Addr; }
    // -1 when nobody waits.
    CTestFd Accept() const { return CTestFd(accept4(m_Fd.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)); }

private:
    CTestFd m_Fd;
    CCmInetAddr m_Addr;
};

// Starts a connection from a socket that never blocks.
inline void StartConnect(const CTestFd& aFd, const CCmInetAddr& aAddr) {
    const int nRv = connect(aFd.Get(), reinterpret_cast<const sockaddr*>(aAddr.GetPtr()), aAddr.GetSize());
    EXPECT_TRUE(nRv == 0 || errno == EINPROGRESS);
}

inline CTestFd ConnectPlain(const CCmInetAddr& aAddr) {
    CTestFd fd = MakeTcpSocket();
    StartConnect(fd, aAddr);
    return fd;
}

// Two connected TCP sockets that never block.
inline std::pair<CTestFd, CTestFd> MakeTcpPair() {
    const CTestListener listener;
    CTestFd fdClient = ConnectPlain(listener.Addr());
    CTestFd fdServer = listener.Accept();
    YieldUntil([&] {
        if (fdServer.Get() == -1)
            fdServer = listener.Accept();
        return fdServer.Get() != -1;
    });
    return {std::move(fdClient), std::move(fdServer)};
}

// Writes as much of aData from aDone on as the socket takes.
inline void WriteSome(const CTestFd& aFd, const std::string& aData, size_t& aDone) {
    const ssize_t lSent = send(aFd.Get(), aData.data() + aDone, aData.size() - aDone, MSG_NOSIGNAL);
    if (lSent > 0)
        aDone += static_cast<size_t>(lSent);
}

// Whether the other side has closed in order; reads and keeps what comes before that.
inline BOOL ReadToEnd(const CTestFd& aFd, std::string& aData) {
    char buffer[65536];
    for (;;) {
        const ssize_t lRead = read(aFd.Get(), buffer, sizeof buffer);
        if (lRead <= 0)
            return lRead == 0;
        aData.append(buffer, static_cast<size_t>(lRead));
    }
}

// Turns of a reactor until something holds; gives up, and fails, after so many that it will not happen any more.
template <class Condition>
BOOL RunUntil(CCmReactorEpoll& aReactor, Condition aCondition) {
    for (int i = 0; i < 20000 && !aCondition(); ++i)
        EXPECT_EQ(CM_OK, aReactor.RunOnce());
    const BOOL bHolds = aCondition();
    EXPECT_TRUE(bHolds) << "has not happened";
    return bHolds;
}

// The main thread adopted, the network thread and the connection manager. Ends everything with the scope and sees that no
// object is left.
class CTestNetwork {
public:
    explicit CTestNetwork(CCmThreadManager::ENetworkThreadMode aMode = CCmThreadManager::NETWORK_THREAD_OWN)
        : m_pMain((CCmThreadManager::Instance()->SetNetworkThreadMode(aMode), new CMainThread)) {
        EXPECT_NE(nullptr, CCmConnectionManager::Instance());
    }
    ~CTestNetwork() {
        EndNetworkThread();
        m_pMain.reset();
        CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_OWN);
        EXPECT_EQ("", CCmLiveCounter::Dump());
    }

    CCmReactorEpoll& Main() const { return m_pMain->GetReactor(); }
    CCmThreadLink& MainLink() const { return m_pMain->Get()->GetLink(); }
    CCmThreadLink& NetworkLink() const { return Network()->GetLink(); }
    static ACmThread* Network() { return CCmThreadManager::Instance()->GetThread(CCmThreadManager::TT_NETWORK); }
    static CCmConnectionManager& Manager() { return *CCmConnectionManager::Instance(); }

    template <class Condition>
    BOOL RunUntil(Condition aCondition) const {
        return ::RunUntil(Main(), aCondition);
    }
    // Everything that has been posted to the main thread so far.
    void RunPosted() const {
        for (int i = 0; i < 3; ++i)
            m_pMain->RunOnce();
    }
    void InNetwork(std::function<void()> aRun) const {
        EXPECT_EQ(CM_OK, NetworkLink().Call([&] {
            aRun();
            return CM_OK;
        }));
    }

    static void EndNetworkThread() {
        ACmThread* pNetwork = Network();
        if (pNetwork && pNetwork->GetThreadType() != CCmThreadManager::TT_MAIN) {
            pNetwork->Stop();
            YieldUntil([=] { return pNetwork->Join() != CM_ERROR_TIMEOUT; });
        }
        CCmConnectionManager::CleanupInstance();
    }

    static CCmRefPtrT<ICmConnector> MakeConnector(DWORD aType = CCmConnectionManager::CTYPE_TCP) {
        CCmRefPtrT<ICmConnector> pConnector;
        EXPECT_EQ(CM_OK, Manager().CreateConnectionClient(aType, pConnector.ParaOut()));
        return pConnector;
    }
    static CCmRefPtrT<ICmAcceptor> MakeAcceptor(DWORD aType = CCmConnectionManager::CTYPE_TCP) {
        CCmRefPtrT<ICmAcceptor> pAcceptor;
        EXPECT_EQ(CM_OK, Manager().CreateConnectionServer(aType, pAcceptor.ParaOut()));
        return pAcceptor;
    }

    // A transport of the main thread to a plain socket.
    CCmRefPtrT<ICmTransport> ConnectTo(CTestFd& aPeer, int aBufferSize = 0) const {
        const CTestListener listener(16, aBufferSize);
        CTestConnectSink sink;
        const auto pConnector = MakeConnector();
        pConnector->AsycConnect(&sink, listener.Addr());
        RunUntil([&] {
            if (aPeer.Get() == -1)
                aPeer = listener.Accept();
            return sink.Count() == 1 && aPeer.Get() != -1;
        });
        return sink.m_Transports.empty() ? nullptr : sink.m_Transports[0];
    }

private:
    std::unique_ptr<CMainThread> m_pMain;
};
