#include "benchmarks/counts/message_path.h"

#include <malloc.h>
#include <sys/syscall.h>

#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "talvo/co.h"
#include "talvo/event/timer_wrapper_id.h"
#include "talvo/http/channel_manager.h"
#include "talvo/http/server/channel_server.h"
#include "talvo/session/forward_session.h"

namespace {

// Accepts, and sends all data back.
class CEcho : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        m_pTransport = aTrpt;
        EXPECT_EQ(CM_OK, aTrpt->OpenWithSink(this));
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override {
        EXPECT_EQ(CM_OK, aTrptId->SendData(aData));
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}

    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmTransport> m_pTransport;
};

// Answers every request with the same few bytes.
class CHello : public ICmChannelServerAcceptorSink {
public:
    void OnRequest(ICmChannelHttpServer* aChannel, ICmChannelServerAcceptor*) override {
        EXPECT_EQ(CM_OK, aChannel->AnswerText(200, m_strType, m_strBody));
    }

    CCmRefPtrT<ICmChannelServerAcceptor> m_pAcceptor;

private:
    const CCmString m_strType = "text/plain";
    const CCmString m_strBody = "Hello, World!";
};

// A plain blocking socket; the counters do not count its system calls.
class CPlainPeer {
public:
    CPlainPeer(const CCmInetAddr& aAddr, const std::string& aRequest)
        : m_Fd(socket(static_cast<int>(aAddr.GetType()), SOCK_STREAM | SOCK_CLOEXEC, 0)), m_strRequest(aRequest) {
        EXPECT_EQ(0, connect(m_Fd.Get(), reinterpret_cast<const sockaddr*>(aAddr.GetPtr()), aAddr.GetSize()));
    }

    // The answer, which has the length of the first answer.
    size_t Trip() {
        const long lSize = static_cast<long>(m_strRequest.size());
        EXPECT_EQ(lSize, syscall(SYS_sendto, m_Fd.Get(), m_strRequest.data(), lSize, MSG_NOSIGNAL, nullptr, 0));
        const long lAnswer = syscall(SYS_recvfrom, m_Fd.Get(), m_Room, m_stAnswer > 0 ? m_stAnswer : sizeof m_Room,
                                     m_stAnswer > 0 ? MSG_WAITALL : 0, nullptr, nullptr);
        EXPECT_LT(0, lAnswer);
        m_stAnswer = static_cast<size_t>(lAnswer);
        return m_stAnswer;
    }

private:
    const CTestFd m_Fd;
    const std::string m_strRequest;
    char m_Room[4096];
    size_t m_stAnswer = 0;
};

// The cost of a trip, aTrips of them, in a thread of their own. aTrip returns the size of the answer.
CCost TripsCost(const CTestNetwork& aNetwork, size_t aTrips, const std::function<size_t()>& aTrip) {
    CCounters spent;
    size_t stAnswer = 0;
    std::atomic<BOOL> bDone{FALSE};
    std::thread peer([&] {
        for (size_t n = 0; n < 100; ++n)  // lets all buffers reach their final size
            stAnswer = aTrip();
        const CCounters before = CCounters::Now();
        for (size_t n = 0; n < aTrips; ++n)
            aTrip();
        spent = CCounters::Now() - before;
        bDone = TRUE;
    });
    aNetwork.RunUntil([&] { return bDone.load(); });
    peer.join();
    return CCost(spent, aTrips, stAnswer);
}

// The same for aMessages copies of aRequest and their answers. aReconnect: see EchoOnceCost.
CCost MessagesCost(const CTestNetwork& aNetwork, const CCmInetAddr& aAddr, const std::string& aRequest, size_t aMessages,
                   BOOL aReconnect = FALSE) {
    std::optional<CPlainPeer> plain;
    return TripsCost(aNetwork, aMessages, [&] {
        if (!plain || aReconnect)
            plain.emplace(aAddr, aRequest);
        return plain->Trip();
    });
}

CCost EchoIn(CCmThreadLink& aThread, const CTestNetwork& aNetwork, size_t aMessages, DWORD aSize, BOOL aReconnect) {
    CEcho echo;
    CCmInetAddr addr;
    RunIn(aThread, [&] { echo.m_pAcceptor = CTestNetwork::Listen(echo, addr); });
    const CCost cost = MessagesCost(aNetwork, addr, std::string(aSize, 'x'), aMessages, aReconnect);
    RunIn(aThread, [&] {
        echo.m_pAcceptor.Reset();
        echo.m_pTransport.Reset();
    });
    return cost;
}

// Connects, and sends a message again whenever it has come back.
class CTrips : public ICmAcceptorConnectorSink, public ICmTransportSink {
public:
    CTrips(size_t aTrips, DWORD aSize) : m_strMessage(aSize, 'x'), m_stLeft(aTrips + WARM_UP) {}

    void OnConnectIndication(CmResult aReason, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        ASSERT_EQ(CM_OK, aReason);
        m_pTransport = aTrpt;
        EXPECT_EQ(CM_OK, aTrpt->OpenWithSink(this));
        EXPECT_EQ(CM_OK, SendText(*aTrpt, m_strMessage));
    }
    void OnReceive(CCmMessageBlock& aData, ICmTransport* aTrptId, CCmTransportParameter*) override {
        m_stReceived += aData.GetChainedLength();
        if (m_stReceived % m_strMessage.size() != 0)
            return;
        if (m_stReceived == WARM_UP * m_strMessage.size())
            m_Before = CCounters::Now();
        if (--m_stLeft > 0)
            EXPECT_EQ(CM_OK, SendText(*aTrptId, m_strMessage));
        else
            m_Spent = CCounters::Now() - m_Before;
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}

    BOOL IsDone() const { return m_stLeft == 0; }
    const CCounters& GetSpent() const { return m_Spent; }

    CCmRefPtrT<ICmConnector> m_pConnector;
    CCmRefPtrT<ICmTransport> m_pTransport;

private:
    static constexpr size_t WARM_UP = 100;  // lets all buffers reach their final size
    const std::string m_strMessage;
    std::atomic<size_t> m_stLeft;
    size_t m_stReceived = 0;
    CCounters m_Before, m_Spent;
};

// Adds each connection to a session.
class CFanOut : public ICmAcceptorConnectorSink, public ICmTransportSink, public ICmForwardSink {
public:
    void OnConnectIndication(CmResult, ICmTransport* aTrpt, ICmAcceptorConnectorId*) override {
        DWORD dwId = 0;
        EXPECT_EQ(CM_OK, aTrpt->OpenWithSink(this));
        EXPECT_EQ(CM_OK, m_pSession->AddReceiver(aTrpt, {}, dwId));
    }
    void OnReceive(CCmMessageBlock&, ICmTransport*, CCmTransportParameter*) override {}
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}
    void OnReceiver(DWORD, CmResult) override { ADD_FAILURE(); }
    void OnForward() override {}
    void OnJoin(DWORD) override { ++m_stJoined; }

    CCmRefPtrT<ICmAcceptor> m_pAcceptor;
    CCmRefPtrT<ICmForwardSession> m_pSession;
    std::atomic<size_t> m_stJoined{0};
};

class CCountingEvent : public ICmEvent {
public:
    explicit CCountingEvent(size_t& aCount) : m_stCount(aCount) {}
    CmResult OnEventFire() override {
        ++m_stCount;
        return CM_OK;
    }

private:
    size_t& m_stCount;
};

class CIgnoredTimer : public CCmTimerWrapperIDSink {
public:
    void OnTimer(CCmTimerWrapperID*) override { ADD_FAILURE(); }
};

// One end of a stream. Sends a given number of messages, and counts the received bytes.
class CStreamEnd : public ICmTransportSink {
public:
    explicit CStreamEnd(ICmTransport* aTransport) : m_pTransport(aTransport) {
        EXPECT_EQ(CM_OK, aTransport->OpenWithSink(this));
    }

    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        m_stReceived += aData.GetChainedLength();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override { Send(); }
    void OnDisconnect(CmResult, ICmTransport*) override { ADD_FAILURE(); }

    void Start(size_t aMessages, DWORD aSize) {
        m_stLeft = aMessages;
        m_dwSize = aSize;
        Send();
    }
    size_t GetReceived() const { return m_stReceived; }

private:
    void Send() {
        while (m_Made || m_stLeft > 0) {
            if (!m_Made) {
                m_Made.emplace(m_dwSize).AdvanceTopLevelWritePtr(m_dwSize);
                --m_stLeft;
            }
            if (m_pTransport->SendData(*m_Made) != CM_OK)
                return;  // OnSend follows
            m_Made.reset();
        }
    }

    CCmRefPtrT<ICmTransport> m_pTransport;
    std::optional<CCmMessageBlock> m_Made;
    size_t m_stLeft = 0;
    DWORD m_dwSize = 0;
    size_t m_stReceived = 0;
};

}  // namespace

CCost::CCost(const CCounters& aSpent, size_t aMessages, size_t aSize) {
    const double dMessages = static_cast<double>(aMessages);
    m_dCalls = static_cast<double>(aSpent.m_ullCalls) / dMessages;
    m_dWakes = static_cast<double>(aSpent.m_ullWakes) / dMessages;
    m_dAllocations = static_cast<double>(aSpent.m_ullAllocations) / dMessages;
    m_dCopies = static_cast<double>(aSpent.m_ullCopied) / (dMessages * static_cast<double>(aSize));
    m_dLocks = static_cast<double>(aSpent.m_ullLocks) / dMessages;
}

CCost EchoCost(const CTestNetwork& aNetwork, BOOL aInNetwork, size_t aMessages, DWORD aSize) {
    return EchoIn(aInNetwork ? aNetwork.NetworkLink() : aNetwork.MainLink(), aNetwork, aMessages, aSize, FALSE);
}

CCost EchoOnceCost(const CTestNetwork& aNetwork, size_t aConnections, DWORD aSize) {
    return EchoIn(aNetwork.NetworkLink(), aNetwork, aConnections, aSize, TRUE);
}

CCost CoroutineEchoCost(const CTestNetwork& aNetwork, size_t aMessages, DWORD aSize) {
    const auto serve = [](talvo::connection aPeer) -> talvo::task<> {
        while (auto message = co_await aPeer.receive())
            co_await aPeer.send(*message);
    };
    std::optional<talvo::listener> echo;
    CCmInetAddr addr;
    RunIn(aNetwork.NetworkLink(), [&] {
        EXPECT_TRUE(echo.emplace().listen("127.0.0.1:0", talvo::tcp, serve));
        addr = echo->local_address().native();
    });
    const CCost cost = MessagesCost(aNetwork, addr, std::string(aSize, 'x'), aMessages);
    RunIn(aNetwork.NetworkLink(), [&] { echo.reset(); });
    return cost;
}

CCost PairEchoCost(const CTestNetwork& aNetwork, DWORD aType, size_t aMessages, DWORD aSize, CCmRefPtrT<CCmSslContext> aServer,
                   CCmRefPtrT<CCmSslContext> aClient) {
    CEcho echo;
    CTrips trips(aMessages, aSize);
    aNetwork.InNetwork([&] {
        echo.m_pAcceptor = CTestNetwork::MakeAcceptor(aType);
        if (aServer)
            Set(*cm_get_connect_options(echo.m_pAcceptor.Get()), CM_OPT_CONNECT_SSL_CONTEXT, aServer);
        EXPECT_EQ(CM_OK, echo.m_pAcceptor->StartListen(&echo, Loopback()));
        CCmInetAddr addr;
        EXPECT_EQ(CM_OK, echo.m_pAcceptor->GetListenAddr(addr));
        trips.m_pConnector = CTestNetwork::MakeConnector(aType);
        if (aClient)
            Set(*cm_get_connect_options(trips.m_pConnector.Get()), CM_OPT_CONNECT_SSL_CONTEXT, aClient);
        trips.m_pConnector->AsycConnect(&trips, addr);
    });
    aNetwork.RunUntil([&] { return trips.IsDone(); });
    aNetwork.InNetwork([&] {
        for (auto* pTransport : {&trips.m_pTransport, &echo.m_pTransport})
            pTransport->Reset();
        trips.m_pConnector.Reset();
        echo.m_pAcceptor.Reset();
    });
    return CCost(trips.GetSpent(), aMessages, aSize);
}

CCost TlsOnceCost(const CTestNetwork& aNetwork, CCmRefPtrT<CCmSslContext> aServer, size_t aConnections,
                  const std::function<size_t(const CCmInetAddr&)>& aClient) {
    CEcho echo;
    CCmInetAddr addr;
    aNetwork.InNetwork([&] {
        echo.m_pAcceptor = CTestNetwork::MakeAcceptor(CM_TRANSPORT_TYPE_TLS);
        Set(*cm_get_connect_options(echo.m_pAcceptor.Get()), CM_OPT_CONNECT_SSL_CONTEXT, aServer);
        EXPECT_EQ(CM_OK, echo.m_pAcceptor->StartListen(&echo, Loopback()));
        EXPECT_EQ(CM_OK, echo.m_pAcceptor->GetListenAddr(addr));
    });
    const CCost cost = TripsCost(aNetwork, aConnections, [&] { return aClient(addr); });
    aNetwork.InNetwork([&] {
        echo.m_pAcceptor.Reset();
        echo.m_pTransport.Reset();
    });
    return cost;
}

CCost HttpCost(const CTestNetwork& aNetwork, size_t aMessages, const char* aPath, const char* aHeaders) {
    CHello hello;
    CCmInetAddr addr("127.0.0.1", 0);
    EXPECT_EQ(CM_OK, aPath ? addr.SetPath(aPath) : CM_OK);
    RunIn(aNetwork.NetworkLink(), [&] {
        EXPECT_EQ(CM_OK, CCmChannelManager::Instance()->CreateHttpAcceptor(hello.m_pAcceptor.ParaOut()));
        EXPECT_EQ(CM_OK, hello.m_pAcceptor->StartListen(&hello, addr));
        EXPECT_EQ(CM_OK, hello.m_pAcceptor->GetListenAddr(addr));
    });
    const std::string strRequest = std::string("GET / HTTP/1.1\r\nHost: localhost\r\nAccept: */*\r\n") + aHeaders + "\r\n";
    const CCost cost = MessagesCost(aNetwork, addr, strRequest, aMessages);
    RunIn(aNetwork.NetworkLink(), [&] { hello.m_pAcceptor.Reset(); });
    return cost;
}

CCost StreamCost(const CTestNetwork& aNetwork, DWORD aType, size_t aMessages, DWORD aSize) {
    CTestConnectSink server, client;
    CCmInetAddr addr;
    const auto pAcceptor = CTestNetwork::Listen(server, addr, aType);
    const auto pConnector = CTestNetwork::MakeConnector(aType);
    pConnector->AsycConnect(&client, addr);
    aNetwork.RunUntil([&] { return server.Count() == 1 && client.Count() == 1; });
    CStreamEnd to(server.m_Transports.at(0).Get());
    CStreamEnd from(client.m_Transports.at(0).Get());
    const auto stream = [&](size_t aCount) {
        const size_t stWanted = to.GetReceived() + aCount * aSize;
        PostTo(aNetwork.Main(), [&] { from.Start(aCount, aSize); });
        aNetwork.RunUntil([&] { return to.GetReceived() >= stWanted; });
    };
    stream(aMessages / 4);  // lets all buffers reach their final size
    const CCounters before = CCounters::Now();
    stream(aMessages);
    return CCost(CCounters::Now() - before, aMessages, aSize);
}

CCost PostCost(const CTestNetwork& aNetwork, size_t aEvents) {
    ICmEventQueue& queue = *CTestNetwork::Network()->GetEventQueue();
    size_t stRan = 0;
    const auto post = [&] {
        std::atomic<BOOL> bHeld{FALSE}, bGo{FALSE};
        PostTo(queue, [&] {
            bHeld = TRUE;
            YieldUntil([&] { return bGo.load(); });
        });
        YieldUntil([&] { return bHeld.load(); });
        const CCounters before = CCounters::Now();
        for (size_t n = 0; n < aEvents; ++n)
            queue.PostEvent(new CCountingEvent(stRan));
        bGo = TRUE;
        aNetwork.InNetwork([] {});
        return CCounters::Now() - before;
    };
    post();  // lets all buffers reach their final size
    const CCost cost(post(), aEvents, 1);
    EXPECT_EQ(2 * aEvents, stRan);
    return cost;
}

CCost TimerCost(const CTestNetwork& aNetwork, size_t aTimers) {
    CCounters spent;
    aNetwork.InNetwork([&] {
        CIgnoredTimer sink;
        std::vector<CCmTimerWrapperID> others(aTimers), timers(aTimers);
        for (CCmTimerWrapperID& timer : others)
            timer.Schedule(&sink, CCmTimeValue(3600), 1);
        const auto run = [&] {
            for (const long lSeconds : {600, 700}) {
                for (CCmTimerWrapperID& timer : timers)
                    timer.Schedule(&sink, CCmTimeValue(lSeconds), 1);
            }
            for (CCmTimerWrapperID& timer : timers)
                EXPECT_EQ(CM_OK, timer.Cancel());
        };
        run();  // lets all buffers reach their final size
        const CCounters before = CCounters::Now();
        run();
        spent = CCounters::Now() - before;
    });
    return CCost(spent, aTimers, 1);
}

CCost ForwardCost(const CTestNetwork& aNetwork, BOOL aInNetwork, size_t aReceivers, size_t aMessages, DWORD aSize) {
    CFanOut fanOut;
    CCmInetAddr addr;
    const auto inThread = [&](const std::function<void()>& aRun) { aInNetwork ? aNetwork.InNetwork(aRun) : aRun(); };
    inThread([&] {
        EXPECT_EQ(CM_OK, aNetwork.Manager().CreateForwardSession(&fanOut, fanOut.m_pSession.ParaOut()));
        fanOut.m_pAcceptor =
            aNetwork.Listen(fanOut, addr, CCmConnectionManager::CTYPE_TCP | CCmConnectionManager::CTYPE_PDU_PACKAGE);
    });
    std::vector<std::unique_ptr<CPlainPeer>> peers;
    const auto join = [&] {
        peers.push_back(std::make_unique<CPlainPeer>(addr, std::string("\1\0\0\0\0\0\0\17", 8)));
        peers.back()->Trip();
        aNetwork.RunUntil([&] { return fanOut.m_stJoined == peers.size(); });
        return malloc_usable_size(peers.back().get());
    };
    join();  // pays for what all share
    size_t stPeers = 0;
    const size_t stBefore = mallinfo2().uordblks;
    while (peers.size() < aReceivers)
        stPeers += join();
    const double dHeld = static_cast<double>(mallinfo2().uordblks - stBefore - stPeers) / static_cast<double>(aReceivers - 1);
    const std::string strMessage(aSize, 'x');
    const auto forward = [&] {
        CCmMessageBlock block = ViewOf(strMessage);
        EXPECT_EQ(CM_OK, fanOut.m_pSession->Forward(block));
    };
    const auto isSent = [&](size_t aCount) {
        CCmForwardStatistics statistics;
        inThread([&] { fanOut.m_pSession->GetStatistics(statistics); });
        return statistics.m_Sent.m_ullMessages == aCount * aReceivers;
    };
    inThread(forward);
    aNetwork.RunUntil([&] { return isSent(1); });
    const CCounters before = CCounters::Now();
    for (size_t n = 0; n < aMessages; ++n)
        inThread(forward);
    aNetwork.RunUntil([&] { return isSent(aMessages + 1); });
    CCost cost(CCounters::Now() - before, aMessages * aReceivers, aSize);
    cost.m_dHeld = dHeld;
    inThread([&] {
        fanOut.m_pSession.Reset();
        fanOut.m_pAcceptor.Reset();
    });
    return cost;
}
