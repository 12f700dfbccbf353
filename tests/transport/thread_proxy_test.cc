#include <malloc.h>

#include "tests/support/proxy_fixture.h"

namespace {

constexpr DWORD MEBIBYTE = 1 << 20;

struct ThreadProxyTest : testing::Test {
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
    std::vector<std::string> texts;
    for (unsigned i = 0; i < 200; ++i)
        strAll += texts.emplace_back(Pattern(10, i));
    connection.SendTogether(texts);
    EXPECT_EQ(strAll, connection.m_pFake->GetSent());
    EXPECT_EQ((std::vector<DWORD>{1, 64, 64, 64, 8}), connection.m_pFake->m_Pieces);
}

TEST_F(ThreadProxyTest, SendingPushesBackAndTellsOnceWhenHalfHasGone) {
    CFakeConnection connection(m_Network);
    const DWORD dwTaken = connection.Fill(64 * 1024) * 64 * 1024;
    EXPECT_EQ(MEBIBYTE + 64 * 1024, dwTaken);  // one message beyond the limit
    connection.MakeRoom(dwTaken - MEBIBYTE / 2 - 1);
    EXPECT_EQ("", connection.TakeUpcalls());
    connection.MakeRoom(1);
    EXPECT_EQ("send", connection.TakeUpcalls());
    EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, "taken"));
    connection.MakeRoom();
    EXPECT_EQ("", connection.TakeUpcalls());
    EXPECT_EQ(std::string(dwTaken, 'q') + "taken", connection.m_pFake->GetSent());
    Set(*connection.m_pProxy, CM_OPT_TRANSPORT_PROXY_SEND_LIMIT, DWORD{100});
    EXPECT_EQ(11u, connection.Fill(10));
}

// A user that has paused until OnSend would otherwise wait for ever.
TEST_F(ThreadProxyTest, ARefusedUserGetsOnSendOfALostConnectionInAPause) {
    CFakeConnection connection(m_Network), roomy(m_Network);
    connection.Fill();
    for (CFakeConnection* pEach : {&connection, &roomy}) {
        pEach->Pause(TRUE);
        pEach->Receive("rest");
        pEach->Lose();
        EXPECT_EQ(pEach == &connection ? "send" : "", pEach->TakeUpcalls());
        EXPECT_EQ(CM_ERROR_NULL_POINTER, SendText(*pEach->m_pProxy, "late"));
        EXPECT_EQ("", pEach->TakeUpcalls());
        pEach->Pause(FALSE);
        EXPECT_EQ("receive rest, disconnect 20001", pEach->TakeUpcalls());
    }
}

// A byte costs as much memory as a block does, and so does a datagram without one.
TEST_F(ThreadProxyTest, SendingOfSingleBytesIsBoundedByTheirBlocks) {
    for (const auto& [dwLane, dwSize] : {std::pair{STREAM, 1u}, {DATAGRAMS, 0u}}) {
        CFakeConnection connection(m_Network, dwLane);
        connection.Open();
        EXPECT_EQ(MEBIBYTE / 128 + 1, connection.Fill(dwSize));
        connection.MakeRoom();
        EXPECT_EQ("send", connection.TakeUpcalls());
        EXPECT_EQ(dwSize * (MEBIBYTE / 128 + 1), connection.m_pFake->GetSent().size());
        EXPECT_EQ(CM_OK, SendText(*connection.m_pProxy, "taken"));
    }
}

// The limits count these bytes; those before them in the same buffer would come on top.
TEST_F(ThreadProxyTest, OfForeignMemoryOnlyTheUnreadBytesAreCopied) {
    CFakeConnection connection(m_Network);
    const std::string strAll = Pattern(MEBIBYTE), strEnd = strAll.substr(MEBIBYTE - 5);
    CCmMessageBlock sent = ViewOf(strAll), received = ViewOf(strAll);
    for (CCmMessageBlock* pBlock : {&sent, &received})
        pBlock->AdvanceTopLevelReadPtr(MEBIBYTE - 5);
    connection.SetRoom(0);
    const auto allocated = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
    const size_t stBefore = allocated();
    EXPECT_EQ(CM_OK, connection.m_pProxy->SendData(sent));
    connection.Sync();
    EXPECT_LT(allocated(), stBefore + MEBIBYTE / 2);
    m_Network.InNetwork([&] { connection.m_pFake->m_pSink->OnReceive(received, connection.m_pFake.Get()); });
    EXPECT_LT(allocated(), stBefore + MEBIBYTE / 2);
    connection.MakeRoom();
    m_Network.RunPosted();
    EXPECT_EQ(strEnd, connection.m_pFake->GetSent());
    EXPECT_EQ(strEnd, connection.m_Sink.m_strReceived);
}

// For what waits in the proxy, and for what the transport has not got rid of.
TEST_F(ThreadProxyTest, LingeringIsBoundedAndOnlyForAnOrderlyEnd) {
    m_Clock.Advance(CCmTimeValue(20L * 365 * 86400));  // beyond 2038
    CFakeConnection broken(m_Network), orderly(m_Network), below(m_Network, MESSAGES), done(m_Network, MESSAGES);
    broken.Fill();
    broken.m_pProxy->Disconnect(CM_ERROR_NETWORK_SOCKET_CLOSE);
    orderly.Pause(TRUE);
    orderly.Fill();
    orderly.m_pProxy->Disconnect(CM_OK);
    for (CFakeConnection* pEach : {&below, &done}) {
        m_Network.InNetwork([&] { pEach->m_pFake->m_dwUnacknowledged = 1; });
        pEach->Open();
        pEach->m_pProxy.Reset();
    }
    done.Sync();
    EXPECT_EQ(std::vector<CmResult>{CM_ERROR_NETWORK_SOCKET_CLOSE}, broken.m_pFake->m_Disconnects);
    EXPECT_FALSE(orderly.m_pFake->m_bPaused) << "the peer's close would not be noticed";
    EXPECT_EQ(0, done.m_pFake->m_nDisconnects);
    m_Network.InNetwork([&] { done.m_pFake->m_dwUnacknowledged = 0; });
    m_Clock.Advance(CCmTimeValue(29));
    YieldUntil([&] { return done.m_pFake->m_nDisconnects == 1; });
    EXPECT_EQ(CM_OK, done.m_pFake->m_Disconnects[0]);
    EXPECT_EQ(0, orderly.m_pFake->m_nDisconnects + below.m_pFake->m_nDisconnects);
    m_Clock.Advance(CCmTimeValue(2));
    YieldUntil([&] { return orderly.m_pFake->m_nDisconnects + below.m_pFake->m_nDisconnects == 2; });
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
