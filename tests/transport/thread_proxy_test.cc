#include "talvo/transport/transport_tcp.h"
#include "talvo/transport/transport_thread_proxy.h"
#include "tests/support/fake_clock.h"
#include "tests/support/fake_transport.h"
#include "tests/support/trace_capture.h"

namespace {

constexpr DWORD MEBIBYTE = 1 << 20;

class ThreadProxyTest : public testing::Test {
protected:
    // Sends messages of aSize until one is refused; how many bytes were taken.
    static DWORD FillQueue(ICmTransport& aTransport, DWORD aSize) {
        const std::string strData(aSize, 'q');
        CCmTransportParameter para;
        DWORD dwTaken = 0;
        while (SendText(aTransport, strData, &para) == CM_OK)
            dwTaken += para.m_dwHaveSent;
        EXPECT_EQ(0u, para.m_dwHaveSent);
        return dwTaken;
    }
    void Pause(const CFakeConnection& aConnection, BOOL aPause) {
        EXPECT_EQ(CM_OK, aConnection.m_pProxy->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPause));
        aConnection.Sync();
    }

    CTestNetwork m_Network;
};

}  // namespace

TEST_F(ThreadProxyTest, UpcallsComeInTheMakingThreadInOrder) {
    CTestFd peer;
    CTestSink sink;
    const auto pProxy = m_Network.ConnectTo(peer);
    ASSERT_TRUE(pProxy);
    const DWORD dwSelf = cm_thread_self_id();
    sink.m_Receive = [&] { EXPECT_EQ(dwSelf, cm_thread_self_id()); };
    ASSERT_EQ(CM_ERROR_INVALID_ARG, pProxy->OpenWithSink(nullptr));
    ASSERT_EQ(CM_OK, pProxy->OpenWithSink(&sink));
    const std::string strData = Pattern(3 * MEBIBYTE);
    size_t stWritten = 0;
    m_Network.RunUntil([&] {
        if (stWritten < strData.size())
            WriteSome(peer, strData, stWritten);
        return stWritten == strData.size();
    });
    peer.Close();
    m_Network.RunUntil([&] { return sink.m_nDisconnects > 0; });
    m_Network.RunPosted();
    EXPECT_TRUE(strData == sink.m_strReceived);
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, sink.m_Reason);
    EXPECT_EQ(nullptr, pProxy->GetSink());
    EXPECT_EQ(CM_ERROR_NULL_POINTER, SendText(*pProxy, "late"));
    DWORD dwType = 0;
    EXPECT_EQ(CM_ERROR_NULL_POINTER, pProxy->GetOption(CM_OPT_TRANSPORT_TRAN_TYPE, &dwType));
}

TEST_F(ThreadProxyTest, SendingCopiesNoPayloadAndJoinsWhatWaits) {
    CFakeConnection connection(m_Network);
    const auto pData = MakeData(Pattern(1000));
    CCmMessageBlock block(pData.Get());
    block.AdvanceTopLevelWritePtr(1000);
    CCmTransportParameter para;
    EXPECT_EQ(CM_OK, connection.m_pProxy->SendData(block, &para));
    EXPECT_EQ(1000u, para.m_dwHaveSent);
    EXPECT_EQ(0u, block.GetChainedLength());
    connection.Sync();
    EXPECT_EQ(pData->GetBasePtr(), connection.m_pFake->m_pFirst);

    // While the network thread is busy 200 messages come together: 64 pieces a call.
    std::string strAll = Pattern(1000);
    connection.m_pFake->m_Calls.clear();
    CCmEventThread busy;
    m_Network.NetworkLink().Post([&] { busy.Wait(); });
    for (unsigned i = 0; i < 200; ++i) {
        strAll += Pattern(10, i);
        EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, Pattern(10, i)));
    }
    busy.Signal();
    connection.Sync();
    EXPECT_EQ(strAll, connection.m_pFake->m_strSent);
    EXPECT_EQ((std::vector<DWORD>{64, 64, 64, 8}), connection.m_pFake->m_Calls);
}

TEST_F(ThreadProxyTest, SendingPushesBackAndTellsOnceWhenHalfHasGone) {
    CFakeConnection connection(m_Network);
    connection.SetRoom(0);
    const DWORD dwTaken = FillQueue(*connection.m_pProxy, 64 * 1024);
    EXPECT_EQ(MEBIBYTE + 64 * 1024, dwTaken);  // one message beyond the limit
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(*connection.m_pProxy, "refused again"));
    connection.MakeRoom(dwTaken - MEBIBYTE / 2 - 1);
    m_Network.RunPosted();
    EXPECT_EQ(0, connection.m_Sink.m_nSends);
    connection.MakeRoom(1);
    m_Network.RunPosted();
    EXPECT_EQ(1, connection.m_Sink.m_nSends);
    EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, "taken"));
    connection.MakeRoom(CFakeTransport::EVERYTHING);
    m_Network.RunPosted();
    EXPECT_EQ(1, connection.m_Sink.m_nSends);
    EXPECT_EQ(std::string(dwTaken, 'q') + "taken", connection.m_pFake->m_strSent);

    DWORD dwLimit = 100;
    EXPECT_EQ(CM_OK, connection.m_pProxy->SetOption(CM_OPT_TRANSPORT_PROXY_SEND_LIMIT, &dwLimit));
    connection.SetRoom(0);
    EXPECT_EQ(110u, FillQueue(*connection.m_pProxy, 10));
    connection.MakeRoom(CFakeTransport::EVERYTHING);
    m_Network.RunPosted();
    EXPECT_EQ(2, connection.m_Sink.m_nSends);
}

TEST_F(ThreadProxyTest, AcceptedDataGoesOutBeforeTheClose) {
    for (const BOOL bRelease : {FALSE, TRUE}) {
        CTestFd peer;
        auto pProxy = m_Network.ConnectTo(peer, 4096);
        ASSERT_TRUE(pProxy);
        CTestSink sink;
        if (!bRelease)  // a transport that was never opened keeps its word, too
            pProxy->OpenWithSink(&sink);
        const std::string strData = Pattern(900 * 1024);
        EXPECT_EQ(CM_OK, SendText(*pProxy, strData));
        if (!bRelease) {
            EXPECT_EQ(CM_OK, pProxy->Disconnect(CM_OK));
            EXPECT_EQ(CM_ERROR_NULL_POINTER, SendText(*pProxy, "too late"));
        }
        pProxy.Reset();
        std::string strRead;
        m_Network.RunUntil([&] { return ReadToEnd(peer, strRead); });
        EXPECT_TRUE(strData == strRead);
        EXPECT_EQ(0, sink.Upcalls());
    }
}

TEST_F(ThreadProxyTest, LingeringIsBoundedAndOnlyForAnOrderlyEnd) {
    CFakeConnection broken(m_Network);
    broken.SetRoom(0);
    EXPECT_EQ(CM_OK, SendText(*broken.m_pProxy, "unsent"));
    broken.m_pProxy->Disconnect(CM_ERROR_NETWORK_SOCKET_CLOSE);
    broken.Sync();
    EXPECT_EQ(1, broken.m_pFake->m_nDisconnects);
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_CLOSE, broken.m_pFake->m_Reason);

    CCmFakeClock clock;
    CCmTraceCapture trace;
    CFakeConnection orderly(m_Network);
    BOOL bPause = TRUE;
    orderly.m_pProxy->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause);
    orderly.SetRoom(0);
    EXPECT_EQ(CM_OK, SendText(*orderly.m_pProxy, "unsent"));
    orderly.m_pProxy->Disconnect(CM_OK);
    orderly.Sync();
    EXPECT_EQ(0, orderly.m_pFake->m_nDisconnects);
    EXPECT_FALSE(orderly.m_pFake->m_bPaused) << "the peer's close would not be noticed";
    clock.Advance(CCmTimeValue(29));
    m_Network.InNetwork([] {});
    EXPECT_EQ(0, orderly.m_pFake->m_nDisconnects);
    clock.Advance(CCmTimeValue(2));
    YieldUntil([&] { return orderly.m_pFake->m_nDisconnects == 1; });
    EXPECT_EQ(1u, trace.Count("data unsent when closing"));
}

TEST_F(ThreadProxyTest, NothingComesAfterDisconnectOrRelease) {
    const auto postEverything = [](const CFakeConnection& aConnection) {
        aConnection.SetRoom(0);
        FillQueue(*aConnection.m_pProxy, 100000);
        aConnection.Receive("posted");
        aConnection.MakeRoom(CFakeTransport::EVERYTHING);
        aConnection.m_Network.InNetwork(
            [&] { aConnection.m_pFake->m_pSink->OnDisconnect(CM_ERROR_NETWORK_SOCKET_ERROR, aConnection.m_pFake.Get()); });
    };
    {
        CFakeConnection connection(m_Network);
        postEverything(connection);
        connection.m_pProxy->Disconnect(CM_OK);
        m_Network.RunPosted();
        EXPECT_EQ(0, connection.m_Sink.Upcalls());
        EXPECT_EQ(CM_ERROR_NULL_POINTER, connection.m_pProxy->OpenWithSink(&connection.m_Sink));
    }
    {
        CFakeConnection connection(m_Network);
        postEverything(connection);
        connection.m_pProxy.Reset();
        m_Network.RunPosted();
        EXPECT_EQ(0, connection.m_Sink.Upcalls());
    }
    CFakeConnection connection(m_Network);  // and without either everything does come
    postEverything(connection);
    m_Network.RunPosted();
    EXPECT_EQ(3, connection.m_Sink.Upcalls());
}

TEST_F(ThreadProxyTest, ReleaseInsideEachUpcall) {
    CFakeConnection receive(m_Network), send(m_Network), disconnect(m_Network);
    receive.m_Sink.m_Receive = [&] { receive.m_pProxy.Reset(); };
    send.m_Sink.m_Send = [&] { send.m_pProxy.Reset(); };
    disconnect.m_Sink.m_Disconnect = [&] { disconnect.m_pProxy.Reset(); };
    send.SetRoom(0);
    FillQueue(*send.m_pProxy, 100000);
    for (CFakeConnection* pEach : {&receive, &send, &disconnect}) {
        pEach->Receive("first");
        pEach->Receive("second");
    }
    send.MakeRoom(CFakeTransport::EVERYTHING);
    m_Network.InNetwork([&] { disconnect.m_pFake->m_pSink->OnDisconnect(CM_ERROR_NETWORK_SOCKET_ERROR, nullptr); });
    m_Network.RunPosted();
    EXPECT_EQ(1, receive.m_Sink.Upcalls());
    EXPECT_EQ(3, send.m_Sink.Upcalls());
    EXPECT_EQ(3, disconnect.m_Sink.Upcalls());
    EXPECT_FALSE(receive.m_pProxy || send.m_pProxy || disconnect.m_pProxy);
}

TEST_F(ThreadProxyTest, ReceivingPushesBackAndGoesOn) {
    CFakeConnection connection(m_Network);
    const std::string strChunk = Pattern(16384);
    DWORD dwPushed = 0;
    m_Network.InNetwork([&] {
        while (!connection.m_pFake->m_bPaused && dwPushed < 10 * MEBIBYTE) {
            connection.m_pFake->Receive(strChunk);
            dwPushed += 16384;
        }
    });
    EXPECT_EQ(MEBIBYTE, dwPushed) << "64 chunks and what they cost besides";
    EXPECT_EQ(1u, m_Network.Main().GetPendingEventsCount()) << "a burst wakes the user's thread once";
    m_Network.RunPosted();
    connection.Sync();
    EXPECT_FALSE(connection.m_pFake->m_bPaused);
    EXPECT_EQ(dwPushed, connection.m_Sink.m_strReceived.size());

    DWORD dwLimit = 400;  // the first chunk counts 228 bytes, the second, of one byte, 129
    connection.m_pProxy->SetOption(CM_OPT_TRANSPORT_PROXY_RECV_LIMIT, &dwLimit);
    connection.Receive(std::string(100, 'x'));
    EXPECT_FALSE(connection.m_pFake->m_bPaused);
    connection.Receive("x");
    EXPECT_FALSE(connection.m_pFake->m_bPaused);
    connection.Receive("x");
    EXPECT_TRUE(connection.m_pFake->m_bPaused);
    // A pause by hand and one by the limit do not end each other.
    Pause(connection, TRUE);
    m_Network.RunPosted();
    Pause(connection, FALSE);
    EXPECT_TRUE(connection.m_pFake->m_bPaused);
    m_Network.RunPosted();
    connection.Sync();
    EXPECT_FALSE(connection.m_pFake->m_bPaused);
}

// The network thread stops at the limit while the user's thread takes: neither may miss what the other did.
TEST_F(ThreadProxyTest, ReceivingNeverSticksAtTheLimit) {
    constexpr size_t TOTAL = 20000;
    CFakeConnection connection(m_Network);
    DWORD dwLimit = 8;
    connection.m_pProxy->SetOption(CM_OPT_TRANSPORT_PROXY_RECV_LIMIT, &dwLimit);
    size_t stPushed = 0;
    std::function<void()> pump = [&] {
        for (int i = 0; i < 64 && stPushed < TOTAL && !connection.m_pFake->m_bPaused; ++i, ++stPushed)
            connection.m_pFake->Receive("r");
        if (stPushed < TOTAL)
            m_Network.NetworkLink().Post([&] { pump(); });
    };
    m_Network.NetworkLink().Post([&] { pump(); });
    m_Network.RunUntil([&] { return connection.m_Sink.m_strReceived.size() == TOTAL; });
    connection.m_pProxy->Disconnect(CM_OK);
    YieldUntil([&] {
        BOOL bDone = FALSE;
        m_Network.InNetwork([&] {
            connection.m_pFake->m_bPaused = FALSE;
            bDone = stPushed == TOTAL;
        });
        return bDone;
    });
}

TEST_F(ThreadProxyTest, PauseByHandHoldsDataAndTheEndBackButNoOnSend) {
    CFakeConnection connection(m_Network);
    connection.m_Sink.m_Receive = [&] {
        if (connection.m_Sink.m_nReceives == 1) {
            BOOL bPause = TRUE;
            connection.m_pProxy->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause);
        }
    };
    for (const char* pText : {"a", "b", "c"})
        connection.Receive(pText);
    m_Network.RunPosted();
    connection.Sync();
    EXPECT_EQ("a", connection.m_Sink.m_strReceived);
    EXPECT_TRUE(connection.m_pFake->m_bPaused);
    // Two connections that feed each other pause reading until the other has sent: that must not be circular.
    connection.SetRoom(0);
    FillQueue(*connection.m_pProxy, 100000);
    connection.Receive("d");  // was on its way
    connection.MakeRoom(CFakeTransport::EVERYTHING);
    m_Network.RunPosted();
    EXPECT_EQ(1, connection.m_Sink.m_nSends);
    m_Network.InNetwork([&] { connection.m_pFake->m_pSink->OnDisconnect(CM_ERROR_NETWORK_SOCKET_ERROR, nullptr); });
    // Paused, owed an OnSend that ends the pause, and lost: the data still comes before the end.
    connection.m_Sink.m_Disconnect = [&] { EXPECT_EQ("abcd", connection.m_Sink.m_strReceived); };
    m_Network.RunPosted();
    EXPECT_EQ(2, connection.m_Sink.Upcalls());
    Pause(connection, FALSE);
    m_Network.RunPosted();
    EXPECT_EQ("abcd", connection.m_Sink.m_strReceived);
    EXPECT_EQ(1, connection.m_Sink.m_nDisconnects);
}

TEST_F(ThreadProxyTest, PauseThatEndsInOnSendKeepsTheOrder) {
    CFakeConnection connection(m_Network);
    BOOL bPause = TRUE;
    BOOL bGoOn = FALSE;
    connection.m_Sink.m_Receive = [&] {
        if (connection.m_Sink.m_nReceives == 1)
            connection.m_pProxy->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause);
    };
    connection.m_Sink.m_Send = [&] { connection.m_pProxy->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bGoOn); };
    connection.m_Sink.m_Disconnect = [&] { EXPECT_EQ("ab", connection.m_Sink.m_strReceived); };
    connection.SetRoom(0);
    FillQueue(*connection.m_pProxy, 100000);
    connection.Receive("a");
    connection.Receive("b");
    connection.MakeRoom(CFakeTransport::EVERYTHING);
    m_Network.InNetwork([&] { connection.m_pFake->m_pSink->OnDisconnect(CM_ERROR_NETWORK_SOCKET_ERROR, nullptr); });
    m_Network.RunPosted();
    EXPECT_EQ(4, connection.m_Sink.Upcalls());
}

TEST_F(ThreadProxyTest, BurstReachesTheSocketInFewCalls) {
    CTestFd peer;
    CTestSink sink;
    const auto pProxy = m_Network.ConnectTo(peer);
    ASSERT_TRUE(pProxy);
    ASSERT_EQ(CM_OK, pProxy->OpenWithSink(&sink));
    CCmEventThread busy;
    m_Network.NetworkLink().Post([&] { busy.Wait(); });
    std::string strAll;
    for (unsigned i = 0; i < 1000; ++i) {
        strAll += Pattern(16, i);
        EXPECT_EQ(CM_OK, SendText(*pProxy, Pattern(16, i)));
    }
    busy.Signal();
    std::string strRead;
    m_Network.RunUntil([&] {
        ReadToEnd(peer, strRead);
        return strRead.size() == strAll.size();
    });
    EXPECT_EQ(strAll, strRead);
    m_Network.InNetwork([&] {
        ICmTransport* pInner = nullptr;
        EXPECT_EQ(CM_OK, pProxy->GetOption(CM_OPT_TRANSPORT_INNER_TRANSPORT, &pInner));
        EXPECT_LE(dynamic_cast<CCmTransportTcp&>(*pInner).GetCounters().m_ullSends, 1000u / 64 + 2);
    });
}

TEST_F(ThreadProxyTest, Options) {
    for (const auto& [dwType, dwAnswer] :
         {std::pair(0x20001u, 0x20001u), {0x10001u, 0x10001u}, {0x30001u, 0x20001u}, {1u, 1u}}) {
        CFakeConnection connection(m_Network, dwType);
        DWORD dwValue = 0;
        EXPECT_EQ(CM_OK, connection.m_pProxy->GetOption(CM_OPT_TRANSPORT_TRAN_TYPE, &dwValue));
        EXPECT_EQ(dwAnswer, dwValue);
    }
    CFakeConnection connection(m_Network);
    ICmTransport& proxy = *connection.m_pProxy;
    DWORD dwValue = 0;
    for (const DWORD dwOption : {CM_OPT_TRANSPORT_PROXY_SEND_LIMIT, CM_OPT_TRANSPORT_PROXY_RECV_LIMIT}) {
        EXPECT_EQ(CM_OK, proxy.GetOption(dwOption, &dwValue));
        EXPECT_EQ(MEBIBYTE, dwValue);
        EXPECT_EQ(CM_ERROR_INVALID_ARG, proxy.SetOption(dwOption, nullptr));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, proxy.GetOption(dwOption, nullptr));
    }
    ICmTransport* pInner = nullptr;
    EXPECT_EQ(CM_OK, proxy.GetOption(CM_OPT_TRANSPORT_INNER_TRANSPORT, &pInner));
    EXPECT_EQ(connection.m_pFake.Get(), pInner);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, proxy.SetOption(CM_OPT_TRANSPORT_INNER_TRANSPORT, &pInner));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, proxy.GetOption(102, &dwValue));
    proxy.Disconnect(CM_OK);
    EXPECT_EQ(CM_ERROR_NULL_POINTER, proxy.GetOption(CM_OPT_TRANSPORT_INNER_TRANSPORT, &pInner));
    EXPECT_EQ(CM_ERROR_NULL_POINTER, proxy.SetOption(CM_OPT_TRANSPORT_TOS, &dwValue));
}
