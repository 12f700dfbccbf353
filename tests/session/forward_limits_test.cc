// The limits of a session's receivers, and the room that they leave.
#include "talvo/session/forward_core.h"
#include "tests/session/forward_fixture.h"

TEST_F(ForwardTest, LimitsOfTimeBytesAndRoomAgain) {
    const CCmRefPtrT<CFakeLower> pSlow(new CFakeLower), pWaits(new CFakeLower), pFast(new CFakeLower);
    pSlow->m_dwRoom = pWaits->m_dwRoom = 0;
    const DWORD dwSlow = Add(*pSlow, Options(CM_FORWARD_DISCONNECT, 0, 5000));
    Add(*pFast);
    Turn();
    EXPECT_EQ(CM_OK, Forward("late"));
    Pass(CCmTimeValue(4, 900000));
    EXPECT_EQ(4900u, StatisticsOf(*m_pSession, dwSlow).m_ullLagMilliseconds);
    EXPECT_EQ(CM_OK, Forward("later"));
    m_Sink.Take();
    Pass(CCmTimeValue(0, 200000));
    Turn();
    EXPECT_EQ(Lines{"gone 1 10013"}, m_Sink.Take());
    EXPECT_EQ(std::vector<CmResult>{CM_ERROR_PARTIAL_DATA}, pSlow->m_Disconnects);
    const CCmForwardStatistics all = StatisticsOf(*m_pSession);
    EXPECT_EQ((CCmForwardCount{2, 9}), all.m_Dropped);
    EXPECT_EQ((CCmForwardCount{2, 9}), all.m_Sent);
    EXPECT_EQ(2u, all.m_ullLongestLag);
    CCmForwardReceiverOptions options = Options(CM_FORWARD_WAIT);
    options.m_dwMaxBytes = 10;
    options.m_strLabel = "scr\"een\n";
    const DWORD dwWaits = Add(*pWaits, options);
    Turn();
    m_Sink.Take();
    EXPECT_EQ(CM_OK, Forward("123456789"));
    EXPECT_EQ(CM_OK, Forward("x"));
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, Forward("y"));
    Turn();
    EXPECT_EQ(Lines{}, m_Sink.Take());
    pWaits->MakeRoom(9);
    Turn();
    EXPECT_EQ(Lines{"forward"}, m_Sink.Take());
    EXPECT_EQ(CM_OK, Forward("y"));
    EXPECT_EQ(3u, StatisticsOf(*m_pSession, dwWaits).m_Due.m_ullMessages);
    EXPECT_NE(std::string::npos, m_pSession->Dump().find("\"scr?een?\" due=3/11 sent=1/9 dropped=0/0 conflated=0/0 lag=2/2"));
    // An orderly end finishes the message that a stream has begun.
    EXPECT_EQ(CM_OK, Forward("zz"));
    pWaits->TakeSent();
    pWaits->MakeRoom(3);
    Turn();
    EXPECT_EQ(CM_OK, m_pSession->RemoveReceiver(dwWaits, CM_OK));
    pWaits->MakeRoom();
    EXPECT_EQ("xyzz", pWaits->TakeSent());
    Pass(CCmTimeValue(1));
    EXPECT_EQ(std::vector<CmResult>{CM_OK}, pWaits->m_Disconnects);
}

TEST_F(ForwardTest, ALimitOfTimeIsKeptAfterAReceiverHasHeldBack) {
    const CCmTimeValue tvStep(0, 55000);
    const CCmRefPtrT<CFakeLower> pWaits(new CFakeLower);
    pWaits->m_dwRoom = 0;
    Add(*pWaits, Options(CM_FORWARD_WAIT, 0, 100));
    Turn();
    EXPECT_EQ(CM_OK, Forward("1"));
    Pass(tvStep);
    EXPECT_EQ(CM_OK, Forward("2"));
    Pass(tvStep);  // "1" is at the limit
    pWaits->MakeRoom(1);
    Turn();
    EXPECT_EQ(CM_OK, Forward("3"));
    Pass(tvStep);  // and now "2"
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, Forward("4"));
    // Likewise after OnForward.
    pWaits->MakeRoom(2);
    Turn();
    EXPECT_EQ(CM_OK, Forward("4"));
    Pass(tvStep);
    EXPECT_EQ(CM_OK, Forward("5"));
    Pass(CCmTimeValue(0, 48000));
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, Forward("6"));
    pWaits->MakeRoom(1);
    Turn();
    Pass(tvStep);
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, Forward("6"));
    EXPECT_EQ((Lines{"join 1", "forward", "forward"}), m_Sink.Take());
}

TEST_F(ForwardTest, AShorterLimitOfTimeThanThatOfAnEarlierReceiverIsKept) {
    const CCmRefPtrT<CFakeLower> pLong(new CFakeLower), pShort(new CFakeLower);
    pLong->m_dwRoom = pShort->m_dwRoom = 0;
    Add(*pLong, Options(CM_FORWARD_DISCONNECT, 0, 60000));
    Turn();
    EXPECT_EQ(CM_OK, Forward("a"));
    Add(*pShort, Options(CM_FORWARD_DISCONNECT, 0, 1000));
    Turn();
    EXPECT_EQ(CM_OK, Forward("b"));
    m_Sink.Take();
    Pass(CCmTimeValue(1, 100000));
    Turn();
    EXPECT_EQ(Lines{"gone 2 10013"}, m_Sink.Take());
}

TEST_F(ForwardTest, LimitsCountFromOnJoinAndRoomIsReportedAtTheirHalf) {
    // As behind a proxy, whose OnJoin may end when the limit of time has passed.
    const CCmRefPtrT<talvo::CForwardCore> pCore(new talvo::CForwardCore(m_Sink, TRUE));
    const CCmRefPtrT<CFakeLower> pJoins(new CFakeLower);
    pJoins->OpenWithSink(&m_User);
    pJoins->m_dwRoom = 0;
    DWORD dwId = 0;
    EXPECT_EQ(CM_OK, pCore->AddReceiver(pJoins.Get(), Options(CM_FORWARD_DISCONNECT, 0, 1000), dwId));
    const std::string strText = "text";
    CCmMessageBlock first = ViewOf(strText), second = ViewOf(strText);
    EXPECT_EQ(CM_OK, pCore->Forward(first, nullptr));
    Pass(CCmTimeValue(1, 500000));
    EXPECT_EQ(1u, pCore->GetReceiverCount());
    pCore->StartReceiver(dwId);
    EXPECT_EQ(CM_OK, pCore->Forward(second, nullptr));
    EXPECT_EQ(0u, pCore->GetReceiverCount());
    EXPECT_EQ(CM_OK, pCore->Close(CM_OK));
    m_Sink.Take();
    const CCmRefPtrT<CFakeLower> pLate(new CFakeLower);
    pLate->m_dwRoom = 0;
    Add(*pLate, Options(CM_FORWARD_WAIT, 4));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(CM_OK, Forward("z"));
    Turn();
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, Forward("z"));
    m_Sink.Take();
    pLate->MakeRoom(2);
    Turn();
    EXPECT_EQ(Lines{}, m_Sink.Take());
    pLate->MakeRoom(1);
    Turn();
    EXPECT_EQ(Lines{"forward"}, m_Sink.Take());
}
