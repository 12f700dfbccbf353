// The library in use: threads, sinks and plain sockets as peers.
#pragma once

#include <arpa/inet.h>

#include "talvo/base/live_counter.h"
#include "talvo/connection/connection_manager.h"
#include "talvo/testing/upcall_log.h"
#include "tests/support/event_helpers.h"
#include "tests/support/event_socket.h"
#include "tests/support/own_loopback.h"

// Bytes that differ from their neighbours and, by aSeed, from other data.
inline std::string Pattern(size_t aSize, unsigned aSeed = 1) {
    std::minstd_rand random(aSeed + 1);
    std::string strData(aSize, '\0');
    for (char& c : strData)
        c = static_cast<char>(random() >> 8);
    return strData;
}

// Views aText, which must stay.
inline CCmMessageBlock ViewOf(const std::string& aText) {
    const DWORD dwSize = static_cast<DWORD>(aText.size());
    return CCmMessageBlock(dwSize, aText.data(), CCmMessageBlock::DONT_DELETE, dwSize);
}

inline CmResult SendText(ICmTransport& aTransport, const std::string& aText, CCmTransportParameter* aPara = nullptr) {
    CCmMessageBlock block = ViewOf(aText);
    return aTransport.SendData(block, aPara);
}

// Options of a transport or a channel; the test fails if the option is missing.
template <class Transport, class Value>
void Set(Transport& aTransport, DWORD aOption, Value aValue) {
    EXPECT_EQ(CM_OK, aTransport.SetOption(aOption, &aValue)) << aOption;
}
template <class Value, class Transport>
Value Get(Transport& aTransport, DWORD aOption) {
    Value value{};
    EXPECT_EQ(CM_OK, aTransport.GetOption(aOption, &value)) << aOption;
    return value;
}

// Records a transport's upcalls, and fails the test if one breaks the contract.
class CTestSink : public CCmUpcallLog {
public:
    CTestSink() = default;
    explicit CTestSink(ICmTransport& aTransport) { EXPECT_EQ(CM_OK, aTransport.OpenWithSink(this)); }
    ~CTestSink() override { EXPECT_EQ("", GetFaults()); }
};

using CTestConnectSink = CCmConnectLog;

inline CCmInetAddr LocalAddr(const CTestFd& aFd) {
    sockaddr_storage addr{};
    socklen_t length = sizeof addr;
    CCmInetAddr local;
    EXPECT_EQ(0, getsockname(aFd.Get(), reinterpret_cast<sockaddr*>(&addr), &length));
    EXPECT_EQ(CM_OK, cm_from_sockaddr(reinterpret_cast<sockaddr*>(&addr), length, local));
    return local;
}

// Binds a plain socket; returns the address, with the port that the system has chosen if aAddr has none.
inline CCmInetAddr Bind(const CTestFd& aFd, const CCmInetAddr& aAddr = Loopback()) {
    EXPECT_EQ(0, bind(aFd.Get(), reinterpret_cast<const sockaddr*>(aAddr.GetPtr()), aAddr.GetSize())) << errno;
    return LocalAddr(aFd);
}

// A plain listening socket; small buffers make its connections fill up early.
class CTestListener {
public:
    explicit CTestListener(int aBacklog = 128, int aBufferSize = 65536, const CCmInetAddr& aAddr = Loopback())
        : m_Fd(socket(static_cast<int>(aAddr.GetType()), SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        setsockopt(m_Fd.Get(), SOL_SOCKET, SO_RCVBUF, &aBufferSize, sizeof aBufferSize);
        m_Addr = Bind(m_Fd, aAddr);
        EXPECT_EQ(0, listen(m_Fd.Get(), aBacklog));
    }
    const CCmInetAddr& Addr() const { return m_Addr; }
    int GetFd() const { return m_Fd.Get(); }
    // Waits for a peer; the result never blocks.
    CTestFd Accept() const { return CTestFd(accept4(m_Fd.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)); }

private:
    CTestFd m_Fd;
    CCmInetAddr m_Addr;
};

// Starts a connection from a socket that never blocks.
inline CTestFd ConnectPlain(const CCmInetAddr& aAddr) {
    CTestFd fd = MakeTcpSocket(aAddr.GetType());
    const int nRv = connect(fd.Get(), reinterpret_cast<const sockaddr*>(aAddr.GetPtr()), aAddr.GetSize());
    EXPECT_TRUE(nRv == 0 || errno == EINPROGRESS || errno == EAGAIN);  // the last: at a path without room
    return fd;
}

// A listener that accepts no more connections and refuses none.
class CFullListener : public CTestListener {
public:
    explicit CFullListener(const CCmInetAddr& aAddr = Loopback()) : CTestListener(0, 65536, aAddr) {
        for (CTestFd& client : m_Clients)
            client = ConnectPlain(Addr());
    }

private:
    CTestFd m_Clients[4];
};

// Two connected TCP sockets that never block.
inline std::pair<CTestFd, CTestFd> MakeTcpPair() {
    const CTestListener listener;
    CTestFd fdClient = ConnectPlain(listener.Addr());
    return {std::move(fdClient), listener.Accept()};
}

// TRUE: the other side has closed gracefully; reads and stores the data before that.
inline BOOL ReadToEnd(const CTestFd& aFd, std::string& aData) {
    char buffer[65536];
    ssize_t lRead = 0;
    while ((lRead = read(aFd.Get(), buffer, sizeof buffer)) > 0)
        aData.append(buffer, static_cast<size_t>(lRead));
    return lRead == 0;
}

// Runs in another thread of the library and waits for it.
inline void RunIn(CCmThreadLink& aThread, const std::function<void()>& aRun) {
    EXPECT_EQ(CM_OK, aThread.Call([&] {
        aRun();
        return CM_OK;
    }));
}

// The main thread adopted, the network thread and the connection manager. Ends everything with the scope and checks that no
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
    void RunUntil(Condition aCondition, const char* aFile = __builtin_FILE(), int aLine = __builtin_LINE()) const {
        ::RunUntil(Main(), aCondition, aFile, aLine);
    }
    // A listener of the calling thread on a port of its own. aAddr (out): the address.
    static CCmRefPtrT<ICmAcceptor> Listen(ICmAcceptorConnectorSink& aSink, CCmInetAddr& aAddr, DWORD aType = 1) {
        const auto pAcceptor = MakeAcceptor(aType);
        EXPECT_EQ(CM_OK, pAcceptor->StartListen(&aSink, Loopback()));
        EXPECT_EQ(CM_OK, pAcceptor->GetListenAddr(aAddr));
        return pAcceptor;
    }
    // Runs all events posted to the main thread so far.
    void RunPosted() const {
        for (int i = 0; i < 3; ++i)
            m_pMain->RunOnce();
    }
    void InNetwork(std::function<void()> aRun) const { RunIn(NetworkLink(), aRun); }

    static void EndNetworkThread() {
        ACmThread* pNetwork = Network();
        if (pNetwork && pNetwork->GetThreadType() != CCmThreadManager::TT_MAIN) {
            pNetwork->Stop();
            YieldUntil([=] {
                CCmFakeClock::AdvanceAny(CCmTimeValue(1));  // lingering transports time out
                return pNetwork->Join() != CM_ERROR_TIMEOUT;
            });
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

    // A transport of the main thread; null: the connect has failed.
    CCmRefPtrT<ICmTransport> Connect(const CCmInetAddr& aAddr, DWORD aType = CCmConnectionManager::CTYPE_TCP) const {
        CTestConnectSink sink;
        const auto pConnector = MakeConnector(aType);
        pConnector->AsycConnect(&sink, aAddr);
        EXPECT_EQ(0u, sink.Count()) << "reported from inside AsycConnect";
        RunUntil([&] { return sink.Count() == 1; });
        return sink.m_Transports.empty() ? nullptr : sink.m_Transports[0];
    }
    // To a plain socket.
    CCmRefPtrT<ICmTransport> ConnectTo(CTestFd& aPeer, int aBufferSize = 65536,
                                       DWORD aType = CCmConnectionManager::CTYPE_TCP) const {
        const CTestListener listener(1, aBufferSize);
        const auto pTransport = Connect(listener.Addr(), aType);
        aPeer = listener.Accept();
        return pTransport;
    }

private:
    std::unique_ptr<CMainThread> m_pMain;
};
