#include "talvo/transport/thread_proxy/transport_thread_proxy.h"
#include "tests/support/proxy_fixture.h"

namespace {

constexpr DWORD MEBIBYTE = 1 << 20;

class ThreadProxyTest : public testing::Test {
protected:
    // Stops the transport and sends messages of aSize until one is refused; how many bytes were taken.
    static DWORD FillQueue(const CFakeConnection& aConnection, DWORD aSize = 100000) {
        aConnection.SetRoom(0);
        const std::string strData(aSize, 'q');
        CCmTransportParameter para;
        DWORD dwTaken = 0;
        while (SendText(*aConnection.m_pProxy, strData, &para) == CM_OK)
            dwTaken += para.m_dwHaveSent;
        EXPECT_EQ(0u, para.m_dwHaveSent);
        return dwTaken;
    }

    CCmFakeClock m_Clock;  // however slow the machine is, no time-out of the library's comes unless a test says so
    CTestNetwork m_Network;
};

}  // namespace

TEST_F(ThreadProxyTest, SendingCopiesNoPayloadAndJoinsWhatWaits) {
    CFakeConnection connection(m_Network);
    std::string strAll = Pattern(1000);
    CCmRefPtrT<CCmDataBlock> pData;
    ASSERT_EQ(CM_OK, CCmDataBlock::CreateInstance(pData.ParaOut(), 1000, strAll.data()));
    CCmMessageBlock block(pData.Get());
    block.AdvanceTopLevelWritePtr(1000);
    EXPECT_EQ(CM_OK, connection.m_pProxy->SendData(block));
    EXPECT_EQ(0u, block.GetChainedLength());
    connection.Sync();
    EXPECT_EQ(pData->GetBasePtr(), connection.m_pFake->m_pFirst);

    // While the network thread is busy 200 messages come together: 64 pieces a call.
    CCmEventThread busy;
    m_Network.NetworkLink().Post([&] { busy.Wait(); });
    for (unsigned i = 0; i < 200; ++i) {
        strAll += Pattern(10, i);
        EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, Pattern(10, i)));
    }
    busy.Signal();
    connection.Sync();
    EXPECT_EQ(strAll, connection.m_pFake->GetSent());
    EXPECT_EQ((std::vector<DWORD>{1, 64, 64, 64, 8}), connection.m_pFake->m_Pieces);
}

TEST_F(ThreadProxyTest, SendingPushesBackAndTellsOnceWhenHalfHasGone) {
    CFakeConnection connection(m_Network);
    const DWORD dwTaken = FillQueue(connection, 64 * 1024);
    EXPECT_EQ(MEBIBYTE + 64 * 1024, dwTaken);  // one message beyond the limit
    connection.MakeRoom(dwTaken - MEBIBYTE / 2 - 1);
    m_Network.RunPosted();
    EXPECT_EQ(0, connection.m_Sink.m_nSends);
    connection.MakeRoom(1);
    m_Network.RunPosted();
    EXPECT_EQ(1, connection.m_Sink.m_nSends);
    EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, "taken"));
    connection.MakeRoom();
    m_Network.RunPosted();
    EXPECT_EQ(1, connection.m_Sink.m_nSends);
    EXPECT_EQ(std::string(dwTaken, 'q') + "taken", connection.m_pFake->GetSent());
    DWORD dwLimit = 100;
    EXPECT_EQ(CM_OK, connection.m_pProxy->SetOption(CM_OPT_TRANSPORT_PROXY_SEND_LIMIT, &dwLimit));
    EXPECT_EQ(110u, FillQueue(connection, 10));
}

// A byte costs as much memory as a block does, and so does a datagram without one.
TEST_F(ThreadProxyTest, SendingOfSingleBytesIsBoundedByTheirBlocks) {
    for (const DWORD dwType : {CM_TRANSPORT_TYPE_TCP, CM_TRANSPORT_TYPE_UDP}) {
        CFakeConnection connection(m_Network, dwType);
        connection.Open();
        connection.SetRoom(0);
        const std::string strText(dwType == CM_TRANSPORT_TYPE_TCP ? 1 : 0, 'q');
        connection.Inside([](const std::string&) { return CM_ERROR_PARTIAL_DATA; });
        DWORD dwTaken = 0;
        while (dwTaken < MEBIBYTE && SendText(*connection.m_pProxy, strText) == CM_OK)
            ++dwTaken;
        EXPECT_EQ(MEBIBYTE / 128 + 1, dwTaken);
        connection.Inside([](const std::string&) { return CM_OK; });
        connection.MakeRoom();
        m_Network.RunPosted();
        EXPECT_EQ(1, connection.m_Sink.m_nSends);
        EXPECT_EQ(dwTaken * strText.size(), connection.m_pFake->GetSent().size());
        EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, "taken"));
    }
}

// Also while the peer goes on writing: a close with bytes of the peer that nobody reads resets the connection.
TEST_F(ThreadProxyTest, AcceptedDataGoesOutBeforeTheClose) {
    for (const BOOL bRelease : {FALSE, TRUE}) {  // a transport that was never opened keeps its word, too
        CTestFd peer;
        CTestSink sink;
        auto pProxy = m_Network.ConnectTo(peer, 4096);
        const std::string strData = Pattern(900 * 1024);
        BOOL bPause = TRUE;
        if (!bRelease) {
            EXPECT_EQ(CM_OK, pProxy->OpenWithSink(&sink));
            EXPECT_EQ(CM_OK, pProxy->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause));
        }
        EXPECT_EQ(CM_OK, SendText(*pProxy, strData));
        if (!bRelease)
            pProxy->Disconnect(CM_OK);
        std::thread([&] { pProxy.Reset(); }).join();  // any thread may release it
        std::string strRead;
        YieldUntil([&] {
            m_Clock.Advance(CCmTimeValue(0, 1000));  // the library looks from time to time whether all has gone
            m_Network.InNetwork([] {});              // the system is filled up again: reading is slower than sending
            strRead += peer.Read(1024);
            return strRead.size() == strData.size() || (send(peer.Get(), "unread", 6, MSG_NOSIGNAL) == -1 && errno != EAGAIN);
        });
        ReadToEnd(peer, strRead);  // writing ends with the close here; what has arrived before is there to be read
        EXPECT_TRUE(strData == strRead);
        EXPECT_EQ(0, sink.Upcalls());
    }
}

TEST_F(ThreadProxyTest, LingeringIsBoundedAndOnlyForAnOrderlyEnd) {
    CFakeConnection broken(m_Network), orderly(m_Network);
    FillQueue(broken);
    broken.m_pProxy->Disconnect(CM_ERROR_NETWORK_SOCKET_CLOSE);
    orderly.Pause(TRUE);
    FillQueue(orderly);
    orderly.m_pProxy->Disconnect(CM_OK);
    orderly.Sync();
    EXPECT_EQ(1, broken.m_pFake->m_nDisconnects);
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_CLOSE, broken.m_pFake->m_Disconnects.at(0));
    EXPECT_FALSE(orderly.m_pFake->m_bPaused) << "the peer's close would not be noticed";
    m_Clock.Advance(CCmTimeValue(29));
    orderly.Sync();
    EXPECT_EQ(0, orderly.m_pFake->m_nDisconnects);
    m_Clock.Advance(CCmTimeValue(2));
    YieldUntil([&] { return orderly.m_pFake->m_nDisconnects == 1; });
}

TEST_F(ThreadProxyTest, NothingComesAfterDisconnectOrRelease) {
    for (const int nWay : {0, 1, 2}) {
        CFakeConnection connection(m_Network);
        FillQueue(connection);
        connection.Receive("posted");
        connection.MakeRoom();
        connection.Lose();
        if (nWay == 1)
            connection.m_pProxy->Disconnect(CM_OK);
        else if (nWay == 2)
            connection.m_pProxy.Reset();
        m_Network.RunPosted();
        EXPECT_EQ(nWay == 0 ? 3 : 0, connection.m_Sink.Upcalls());
    }
}

TEST_F(ThreadProxyTest, ReleaseInsideEachUpcall) {
    CFakeConnection receive(m_Network), send(m_Network), disconnect(m_Network);
    receive.m_Sink.m_Receive = [&] { receive.m_pProxy.Reset(); };
    send.m_Sink.m_Send = [&] { send.m_pProxy.Reset(); };
    disconnect.m_Sink.m_Disconnect = [&] { disconnect.m_pProxy.Reset(); };
    FillQueue(send);
    for (CFakeConnection* pEach : {&receive, &send, &disconnect}) {
        pEach->Receive("first");
        pEach->Receive("second");
    }
    send.MakeRoom();
    disconnect.Lose();
    m_Network.RunPosted();
    EXPECT_EQ(1, receive.m_Sink.Upcalls());
    EXPECT_EQ(3, send.m_Sink.Upcalls());
    EXPECT_EQ(3, disconnect.m_Sink.Upcalls());
}

TEST_F(ThreadProxyTest, ReceivingPushesBackAndGoesOn) {
    CFakeConnection connection(m_Network);
    DWORD dwPushed = 0;
    for (const std::string strChunk(16384, 'r'); !connection.m_pFake->m_bPaused && dwPushed < 10 * MEBIBYTE; dwPushed += 16384)
        connection.Receive(strChunk);
    EXPECT_EQ(MEBIBYTE, dwPushed) << "64 chunks and what they cost besides";
    EXPECT_EQ(1u, m_Network.Main().GetPendingEventsCount()) << "a burst wakes the user's thread once";
    // A pause by hand and one by the limit do not end each other.
    connection.Pause(TRUE);
    m_Network.RunPosted();
    connection.Pause(FALSE);
    connection.Sync();
    EXPECT_TRUE(connection.m_pFake->m_bPaused);
    // Reading goes on when no more than half of the limit waits, which 31 chunks are.
    for (const int nTaken : {32, 33}) {
        connection.m_Sink.m_Receive = [&connection, nTaken] { connection.Pause(connection.m_Sink.m_nReceives == nTaken); };
        m_Network.RunPosted();
        connection.Pause(FALSE);
        connection.Sync();
        EXPECT_EQ(nTaken == 32, connection.m_pFake->m_bPaused) << nTaken;
    }
    m_Network.RunPosted();
    EXPECT_EQ(dwPushed, connection.m_Sink.m_strReceived.size());
}

// The network thread stops at the limit while the user's thread takes: neither may miss what the other did.
TEST_F(ThreadProxyTest, ReceivingNeverSticksAtTheLimit) {
    constexpr size_t TOTAL = 5000;
    CFakeConnection connection(m_Network);
    DWORD dwLimit = 8 * 129;  // eight chunks of one byte, and what they cost
    connection.m_pProxy->SetOption(CM_OPT_TRANSPORT_PROXY_RECV_LIMIT, &dwLimit);
    size_t stPushed = 0;
    BOOL bStop = FALSE;
    std::function<void()> pump = [&] {
        for (int i = 0; i < 64 && stPushed < TOTAL && !connection.m_pFake->m_bPaused; ++i, ++stPushed)
            connection.m_pFake->Receive("r");
        if (stPushed < TOTAL && !bStop)
            m_Network.NetworkLink().Post([&] { pump(); });
    };
    m_Network.NetworkLink().Post([&] { pump(); });
    m_Network.RunUntil([&] { return connection.m_Sink.m_strReceived.size() == TOTAL; });
    m_Network.InNetwork([&] { bStop = TRUE; });
    connection.Sync();
}

TEST_F(ThreadProxyTest, PauseByHandHoldsDataAndTheEndBackButNoOnSend) {
    CFakeConnection connection(m_Network);
    connection.m_Sink.m_Receive = [&] { connection.Pause(TRUE); };
    for (const char* pText : {"a", "b", "c"})
        connection.Receive(pText);
    m_Network.RunPosted();
    connection.Sync();
    EXPECT_EQ("a", connection.m_Sink.m_strReceived);
    EXPECT_TRUE(connection.m_pFake->m_bPaused);
    // Two connections that feed each other pause reading until the other has sent: that must not be circular.
    FillQueue(connection);
    connection.Receive("d");  // was on its way
    connection.MakeRoom();
    m_Network.RunPosted();
    EXPECT_EQ(1, connection.m_Sink.m_nSends);
    connection.Lose();
    m_Network.RunPosted();
    EXPECT_EQ(2, connection.m_Sink.Upcalls());
    connection.m_Sink.m_Receive = [] {};
    connection.m_Sink.m_Disconnect = [&] { EXPECT_EQ("abcd", connection.m_Sink.m_strReceived); };
    connection.Pause(FALSE);
    m_Network.RunPosted();
    EXPECT_EQ(1, connection.m_Sink.m_nDisconnects);
}

// Paused, owed an OnSend that ends the pause, and lost: the data still comes before the end.
TEST_F(ThreadProxyTest, PauseThatEndsInOnSendKeepsTheOrder) {
    CFakeConnection connection(m_Network);
    connection.m_Sink.m_Receive = [&] { connection.Pause(connection.m_Sink.m_nReceives == 1); };
    connection.m_Sink.m_Send = [&] { connection.Pause(FALSE); };
    connection.m_Sink.m_Disconnect = [&] { EXPECT_EQ("ab", connection.m_Sink.m_strReceived); };
    FillQueue(connection);
    connection.Receive("a");
    connection.Receive("b");
    connection.MakeRoom();
    connection.Lose();
    m_Network.RunPosted();
    EXPECT_EQ(4, connection.m_Sink.Upcalls());
}
