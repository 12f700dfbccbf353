// Proxies whose threads end before them.
#include "tests/support/proxy_fixture.h"

TEST(ProxyThreadEndTest, NetworkThreadFirst) {
    CTestNetwork network;
    CTestFd peer;
    const auto pProxy = network.ConnectTo(peer);
    CTestSink sink(*pProxy);
    CTestConnectSink indications;
    CCmInetAddr addr;
    const auto pAcceptor = network.Listen(indications, addr);
    const auto pConnector = network.MakeConnector();
    network.EndNetworkThread();

    pConnector->AsycConnect(&indications, addr);
    EXPECT_EQ(0u, indications.Count());
    network.RunUntil([&] { return sink.m_nDisconnects + indications.Count() == 2; });
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_CLOSE, sink.m_Reason);
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, indications.m_Reasons.at(0));
    std::string strRead;
    EXPECT_TRUE(ReadToEnd(peer, strRead));
    EXPECT_EQ(CM_ERROR_NULL_POINTER, SendText(*pProxy, "x"));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pAcceptor->GetListenAddr(addr));
    EXPECT_EQ(CM_OK, pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pAcceptor->StartListen(&indications, addr));
}

TEST(ProxyThreadEndTest, WhatLingersGoesOutBeforeTheNetworkThreadEnds) {
    for (const auto mode : {CCmThreadManager::NETWORK_THREAD_OWN, CCmThreadManager::NETWORK_THREAD_MAIN}) {
        for (const BOOL bDisconnect : {TRUE, FALSE}) {  // a transport that was never opened keeps its word, too
            CTestNetwork network(mode);
            CTestFd peer;
            auto pProxy = network.ConnectTo(peer, 4096, CCmConnectionManager::CTYPE_FORCE_THREAD_PROXY | 1);
            const std::string strData = Pattern(900 * 1024);
            EXPECT_EQ(CM_OK, SendText(*pProxy, strData));
            if (bDisconnect)
                pProxy->Disconnect(CM_OK);
            std::thread([&] { pProxy.Reset(); }).join();  // any thread may release it
            CCmThreadManager::Instance()->StopAllThreads();
            std::string strRead;
            std::thread reader([&] { YieldUntil([&] { return ReadToEnd(peer, strRead); }); });
            CCmThreadManager::Instance()->JoinAllThreads();
            reader.join();
            EXPECT_TRUE(strData == strRead) << strRead.size();
        }
    }
}

TEST(ProxyThreadEndTest, ConnectThatTheNetworkThreadNeverReachedIsReported) {
    CTestNetwork network;
    const CTestListener listener;
    const auto pStarted = network.MakeConnector();
    const auto pUnreached = network.MakeConnector();
    CTestConnectSink sink;
    CCmEventThread busy;
    network.NetworkLink().Post([&] { busy.Wait(); });
    pStarted->AsycConnect(&sink, listener.Addr());
    for (int i = 0; i < 200; ++i)  // more than one turn of the loop runs
        network.NetworkLink().Post([] {});
    pUnreached->AsycConnect(&sink, listener.Addr());
    network.Network()->GetReactor()->StopEventLoop();  // in the turn that runs
    busy.Signal();
    network.EndNetworkThread();
    network.RunUntil([&] { return sink.Count() >= 2; });
    network.RunPosted();
    EXPECT_EQ(std::vector<CmResult>(2, CM_ERROR_NOT_AVAILABLE), sink.m_Reasons);
}

// The network thread is too busy to end in time: it is given up and unregistered, comes back later and still lingers.
TEST(ProxyThreadEndTest, NetworkThreadComesBackAfterItWasGivenUp) {
    CTestNetwork network;
    CTestConnectSink sink;
    const CTestListener listener;
    auto pConnector = network.MakeConnector();
    CCmEventThread busy;
    {
        CFakeConnection lingering(network);
        lingering.SetRoom(0);
        EXPECT_EQ(CM_OK, SendText(*lingering.m_pProxy, "unsent"));
        lingering.m_pProxy->Disconnect(CM_OK);
        lingering.Sync();
        const CCmRefPtrT<CCmThreadLink> pLink(&network.NetworkLink());
        pLink->Post([&] { busy.Wait(); });
        pConnector->AsycConnect(&sink, listener.Addr());
        CCmConnectionManager::CleanupInstance();
        EXPECT_EQ(nullptr, network.Network());
        busy.Signal();
        RunIn(*pLink, [&] {
            EXPECT_EQ(0, lingering.m_pFake->m_nDisconnects);
            lingering.m_pFake->m_pSink->OnDisconnect(CM_ERROR_NETWORK_SOCKET_ERROR, lingering.m_pFake.Get());
        });
        network.RunUntil([&] { return sink.Count() == 1 && lingering.m_pFake->m_nDisconnects == 1; });
        YieldUntil([] {  // the thread deletes its reactor, and then itself
            const CCmString strLive = CCmLiveCounter::Dump();
            return strLive.find("CCmReactorBase 1\n") != std::string::npos &&
                   strLive.find("ACmThread 1\n") != std::string::npos;
        });
    }
    EXPECT_NE(CM_OK, sink.m_Reasons.at(0));
    EXPECT_EQ(nullptr, network.Network()) << "the manager has come back to life";
}
