// The orderly end of everything.
#include "tests/support/network_fixture.h"

namespace {

constexpr CCmThreadManager::ENetworkThreadMode MODES[] = {CCmThreadManager::NETWORK_THREAD_OWN,
                                                          CCmThreadManager::NETWORK_THREAD_MAIN};

void ForAllStreams(const std::function<void(const CTestNetwork&, DWORD aType, BOOL aDies)>& aRun) {
    using Manager = CCmConnectionManager;
    for (const auto mode : MODES)
        for (const DWORD dwType : {DWORD{1}, Manager::CTYPE_PDU_LENGTH | 1u, Manager::CTYPE_SEND_NO_PARTIAL_DATA | 1u})
            for (const BOOL bDies : {FALSE, TRUE})
                aRun(CTestNetwork(mode), dwType, bDies);
}

}  // namespace

// In both modes, over every kind of stream, from the side whose sends are refused once the socket is full. The peer reads what
// was sent once the sink has got OnDisconnect, or it dies then.
TEST(DrainTest, SinksGetOneEndWhatWasTakenGoesOutAndALossIsReported) {
    ForAllStreams([](const CTestNetwork& aNetwork, DWORD aType, BOOL aDies) {
        CTestFd peer;
        CTestConnectSink accepted;
        CTestSink sink;
        CCmDrainLog drain;
        CCmInetAddr addr;
        const auto pAcceptor = aNetwork.Listen(accepted, addr);
        const auto pTransport = aNetwork.ConnectTo(peer, 4096, aType);
        pTransport->OpenWithSink(&sink);
        Set(*pTransport, CM_OPT_TRANSPORT_SNDBUF, 16384);
        const std::string strPart = Pattern(4096);
        size_t stTaken = 0;
        for (CCmTransportParameter para; stTaken < (4u << 20) && SendText(*pTransport, strPart, &para) == CM_OK;)
            stTaken += para.m_dwHaveSent;
        std::string strRead;
        CCmEventThread ended;
        sink.m_Disconnect = [&] { ended.Signal(); };
        std::thread reader([&] {
            ended.Wait();
            if (aDies)
                peer = CTestFd();  // with unread data, which is a reset
            else
                YieldUntil([&] { return ReadToEnd(peer, strRead); });
        });
        CCmTimeValue tvLimit(60);
        EXPECT_EQ(CM_OK, CTestNetwork::Manager().Drain(&tvLimit, aDies ? &drain : nullptr));
        aNetwork.RunUntil([&] { return drain.m_nCalls == aDies; });
        reader.join();
        EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_CLOSE, sink.m_Reason);
        EXPECT_EQ(1, sink.m_nDisconnects);
        EXPECT_LE(aDies ? 0 : stTaken, strRead.size());
        EXPECT_EQ(aDies ? CM_ERROR_NETWORK_SOCKET_ERROR : CM_OK, drain.m_Reason);
        EXPECT_EQ(aDies, drain.m_Left.m_dwLost);
        EXPECT_EQ(aDies, drain.m_Left.m_ullLostBytes > 0);
        EXPECT_NE(CM_OK, SendText(*pTransport, "x"));
        EXPECT_NE(CM_OK, pAcceptor->GetListenAddr(addr));
        EXPECT_EQ(CM_OK, pAcceptor->StartListen(&accepted, Loopback())) << "it can go on";
    });
}

// In both modes: a handshake that the peer leaves open, at either end, and an attempt that nobody answers.
TEST(DrainTest, WhatIsNotConnectedEnds) {
    for (const auto mode : MODES) {
        CTestNetwork network(mode);
        constexpr DWORD PACKAGE = CCmConnectionManager::CTYPE_PDU_PACKAGE | CCmConnectionManager::CTYPE_TCP;
        const CTestListener silent;
        const CFullListener full;
        CTestConnectSink accepted, handshake, attempt;
        CCmInetAddr addr;
        const auto pAcceptor = network.Listen(accepted, addr, PACKAGE);
        const CTestFd client = ConnectPlain(addr);
        const auto pHandshake = network.MakeConnector(PACKAGE), pAttempt = network.MakeConnector();
        pHandshake->AsycConnect(&handshake, silent.Addr());
        pAttempt->AsycConnect(&attempt, full.Addr());
        const CTestFd peer = silent.Accept();
        std::string strRequest, strNothing;
        network.RunUntil([&] { return !ReadToEnd(peer, strRequest) && strRequest.size() == 8; });
        CCmTimeValue tvLimit(60);
        EXPECT_EQ(CM_OK, network.Manager().Drain(&tvLimit));
        EXPECT_EQ(std::vector<CmResult>{CM_ERROR_NOT_AVAILABLE}, handshake.m_Reasons);
        EXPECT_EQ(std::vector<CmResult>{CM_ERROR_NOT_AVAILABLE}, attempt.m_Reasons);
        network.RunUntil([&] { return ReadToEnd(peer, strRequest) && ReadToEnd(client, strNothing); });
        EXPECT_EQ(CM_OK, pAcceptor->StartListen(&accepted, Loopback())) << "it can go on";
        pAttempt->AsycConnect(&attempt, silent.Addr());
        network.RunUntil([&] { return attempt.Count() == 2; });
        EXPECT_EQ(CM_OK, attempt.m_Reasons.back());
    }
}

// A transport that a user has paused stays paused behind a proxy.
TEST(DrainTest, PausedReadingHidesTheEndBehindAProxyOnly) {
    for (const auto mode : MODES) {
        CTestNetwork network(mode);
        CTestFd peer;
        const auto pTransport = network.ConnectTo(peer);
        CTestSink sink(*pTransport);
        Set(*pTransport, CM_OPT_TRANSPORT_PAUSE_READING, TRUE);
        EXPECT_EQ(4, send(peer.Get(), "late", 4, MSG_NOSIGNAL));
        CCmTimeValue tvLimit(60);
        EXPECT_EQ(CM_OK, network.Manager().Drain(&tvLimit));
        EXPECT_EQ(mode == CCmThreadManager::NETWORK_THREAD_MAIN, sink.m_nDisconnects);
        Set(*pTransport, CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
        network.RunUntil([&] { return sink.m_nDisconnects == 1; });
        EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_CLOSE, sink.m_Reason);
    }
}

TEST(DrainTest, AtTheLimitItReportsAndCuts) {
    CCmFakeClock clock;
    CTestNetwork network;
    CTestFd peer;
    CTestSink sink;
    CCmDrainLog drain, second;
    const auto pProxy = network.ConnectTo(peer, 4096);
    pProxy->OpenWithSink(&sink);
    EXPECT_EQ(CM_OK, SendText(*pProxy, Pattern(900 * 1024)));
    CCmTimeValue tvLimit(5);
    EXPECT_EQ(CM_OK, network.Manager().Drain(&tvLimit, &drain));
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, network.Manager().Drain(&tvLimit, &second));
    const auto pass = [&](int aMsec) {
        clock.Advance(CCmTimeValue(0, aMsec * 1000));
        network.Main().RunOnce(nullptr);
    };
    for (int i = 0; i < 49; ++i)
        pass(100);
    EXPECT_EQ(0, drain.m_nCalls);
    network.RunUntil([&] { return pass(10), drain.m_nCalls == 1; });
    EXPECT_EQ(CM_ERROR_TIMEOUT, drain.m_Reason);
    EXPECT_EQ(1u, drain.m_Left.m_dwConnections);
    EXPECT_LT(0u, drain.m_Left.m_ullBytes);
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_CLOSE, sink.m_Reason);
    EXPECT_EQ(CM_OK, network.Manager().Drain(&tvLimit, &second)) << "the next one may begin";
    network.RunUntil([&] { return pass(10), second.m_nCalls == 1; });
    EXPECT_EQ(CM_OK, second.m_Reason);
}
