// A session over transports: framing, misuse, upcalls and the proxy.
#include <map>
#include <thread>

#include "talvo/connection/protocol/len_pkg_conn.h"
#include "talvo/connection/protocol/pkg_conn_client.h"
#include "talvo/connection/protocol/pkg_sender.h"
#include "talvo/session/forward_core.h"
#include "tests/session/forward_fixture.h"

namespace {

std::string Package(const std::string& aText) { return "\6" + Bytes(static_cast<DWORD>(aText.size())) + aText; }
std::string Framed(const std::string& aText) { return Bytes(static_cast<DWORD>(aText.size())) + aText; }

}  // namespace

TEST_F(ForwardTest, EachConnectionGetsItsFramesByReferenceWithOneCall) {
    CConnEnd<CLenPkgConn> length;
    CConnEnd<CPkgConnClient> package;
    CConnEnd<CPkgSender> sender;
    length.Connect();
    package.Connect(std::string("\2\0\0\0\0\0\0\17", 8));
    sender.Connect();
    const CCmRefPtrT<CFakeLower> pRaw(new CFakeLower), pDatagrams(new CFakeLower(CM_TRANSPORT_TYPE_UDP));
    Add(*pRaw);
    Add(*pDatagrams);
    DWORD dwId = 0;
    for (ICmTransport* p : {static_cast<ICmTransport*>(length.m_pConn.Get()), static_cast<ICmTransport*>(package.m_pConn.Get()),
                            static_cast<ICmTransport*>(sender.m_pConn.Get())})
        EXPECT_EQ(CM_OK, m_pSession->AddReceiver(p, {}, dwId));
    Turn();
    EXPECT_EQ((Lines{"join 1", "join 2", "join 3", "join 4", "join 5"}), m_Sink.Take());
    const std::string strLarge = Pattern(3000);
    length.m_pLower->m_dwRoom = 7 + 4 + 1000;
    for (const std::string& strText : {std::string("one"), strLarge, std::string("three")})
        EXPECT_EQ(CM_OK, Forward(strText));
    EXPECT_EQ(CM_OK, Forward(""));
    Turn();
    const std::string strAll = "one" + strLarge + "three";
    EXPECT_EQ(Lines{strAll}, pRaw->m_Sends);
    EXPECT_EQ((Lines{"one", strLarge, "three"}), pDatagrams->m_Sends);
    EXPECT_EQ(Lines{Package("one") + Package(strLarge) + Package("three")}, package.m_pLower->m_Sends);
    // The rest of a frame that was begun goes before anything else of the connection.
    EXPECT_EQ(2u, StatisticsOf(*m_pSession, 3).m_Sent.m_ullMessages);
    EXPECT_EQ(2000u, length.Get(CM_OPT_TRANSPORT_UNACKNOWLEDGED));
    length.m_pLower->MakeRoom();
    Turn();
    EXPECT_EQ(Framed("one") + Framed(strLarge) + Framed("three"), length.m_pLower->TakeSent());
    EXPECT_EQ(9 * 3 + strAll.size(), sender.m_pLower->GetSent().size());
    // Received data and the end still come to the connection's user.
    length.Receive(Framed("hello"));
    package.m_pLower->Vanish();
    EXPECT_EQ(Lines{"receive hello"}, length.Take());
    EXPECT_EQ(Lines{"disconnect 20001"}, package.Take());
    Turn();
    EXPECT_EQ(Lines{"gone 4 20001"}, m_Sink.Take());
    EXPECT_EQ(CM_OK, m_pSession->Close(CM_OK));
}

TEST_F(ForwardTest, MisuseHasItsResults) {
    const CCmRefPtrT<CFakeLower> pOpen(new CFakeLower), pUnopened(new CFakeLower);
    CCmRefPtrT<ICmForwardSession> pOther;
    DWORD dwId = 0;
    CCmForwardReceiverOptions wrong;
    wrong.m_Join = static_cast<ECmForwardJoin>(9);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, CCmConnectionManager::CreateForwardSession_i(nullptr, pOther.ParaOut()));
    EXPECT_EQ(CM_OK, CCmConnectionManager::CreateForwardSession_i(&m_Sink, pOther.ParaOut()));
    const DWORD dwFirst = Add(*pOpen);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pSession->AddReceiver(nullptr, {}, dwId));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pSession->AddReceiver(pUnopened.Get(), {}, dwId));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pSession->AddReceiver(pOpen.Get(), wrong, dwId));
    EXPECT_EQ(CM_ERROR_FOUND, m_pSession->AddReceiver(pOpen.Get(), {}, dwId));
    EXPECT_EQ(CM_ERROR_FOUND, pOther->AddReceiver(pOpen.Get(), {}, dwId));
    Option(CM_OPT_FORWARD_RECEIVERS, 1);
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, m_pSession->AddReceiver(pUnopened.Get(), {}, dwId));
    Option(CM_OPT_FORWARD_MAX_MESSAGE, 4);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, Forward("12345"));
    DWORD dwZero = 0;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pSession->SetOption(CM_OPT_FORWARD_LOG_BYTES, &dwZero));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pSession->SetOption(CM_OPT_FORWARD_KEYS, nullptr));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pSession->SetOption(1, &dwZero));
    EXPECT_EQ(CM_OK, m_pSession->RemoveReceiver(dwFirst, CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_pSession->RemoveReceiver(dwFirst, CM_OK));
    Turn();
    EXPECT_EQ(Lines{}, m_Sink.Take()) << "the user has removed it before its OnJoin";
    EXPECT_NE(dwFirst, Add(*pUnopened));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, m_pSession->RemoveReceiver(dwFirst, CM_OK));
    // A message that was forwarded before is longer than the receiver's transport can take.
    const CCmRefPtrT<CFakeLower> lowers[] = {CCmRefPtrT<CFakeLower>(new CFakeLower(CM_TRANSPORT_TYPE_UDP)),
                                             CCmRefPtrT<CFakeLower>(new CFakeLower(CM_TRANSPORT_TYPE_UDP))};
    for (const auto& pDatagrams : lowers)
        pDatagrams->OpenWithSink(&m_User);
    wrong.m_Join = CM_FORWARD_JOIN_OLDEST;
    const std::string strLong(70000, 'x');
    EXPECT_EQ(CM_OK, ForwardText(*pOther, strLong));
    EXPECT_EQ(CM_OK, pOther->AddReceiver(lowers[0].Get(), wrong, dwId));
    const CCmRefPtrT<talvo::CForwardCore> pCore(new talvo::CForwardCore(m_Sink, FALSE));
    EXPECT_EQ(CM_OK, pCore->AddReceiver(lowers[1].Get(), {}, dwId));
    talvo::CForwardMessage message;
    EXPECT_EQ(CM_OK, talvo::CForwardPacker().Pack(ViewOf(strLong), 70000, nullptr, message));
    EXPECT_EQ(CM_OK, pCore->ForwardMessage(message));
    Turn();
    EXPECT_EQ((Lines{"join 1", "gone 1 10008", "gone 1 10008"}), m_Sink.Take());
    EXPECT_EQ(CM_OK, pCore->Close(CM_OK));
    EXPECT_EQ(CM_OK, m_pSession->Close(CM_ERROR_TIMEOUT));
    EXPECT_EQ(std::vector<CmResult>{CM_ERROR_TIMEOUT}, pUnopened->m_Disconnects);
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, m_pSession->Close(CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, m_pSession->AddReceiver(pOpen.Get(), {}, dwId));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, Forward("1234"));
    EXPECT_EQ(0u, StatisticsOf(*m_pSession, 0).m_dwReceivers);
    EXPECT_EQ("", m_pSession->Dump());
    Turn();
    EXPECT_EQ(Lines{}, m_Sink.Take());
}

TEST_F(ForwardTest, AMessageKeepsOnlyItsOwnBytesOfForeignMemory) {
    const std::string strAll(1 << 20, 'x');
    CCmMessageBlock part = ViewOf(strAll);
    part.AdvanceTopLevelReadPtr((1 << 20) - 2000);
    talvo::CForwardMessage message;
    EXPECT_EQ(CM_OK, talvo::CForwardPacker().Pack(part, 2000, nullptr, message));
    ASSERT_TRUE(message.m_pPayload);
    message.m_pPayload->RewindChained();
    EXPECT_EQ(2000u, message.m_pPayload->GetTopLevelSpace());
}

TEST_F(ForwardTest, AReceiverThatSkipsMessagesKeepsNoStorageOfOthers) {
    // Notes whether a connection with a send buffer may keep the storage.
    struct CNoting : CFakeLower {
        CNoting() { m_dwMaxMessage = 65535; }
        CmResult SendData(CCmMessageBlock& aData, CCmTransportParameter* aPara) override {
            m_nShared += (aData.GetFlag() & CCmMessageBlock::WRITE_LOCKED) != 0;
            return CFakeLower::SendData(aData, aPara);
        }
        int m_nShared = 0;
    };
    for (const ECmForwardPolicy policy :
         {CM_FORWARD_DISCONNECT, CM_FORWARD_DROP_OLDEST, CM_FORWARD_CONFLATE, CM_FORWARD_WAIT}) {
        const CCmRefPtrT<CNoting> pLower(new CNoting);
        const DWORD dwId = Add(*pLower, Options(policy));
        Turn();
        EXPECT_EQ(CM_OK, Forward(std::string(500, 'x')));
        Turn();
        EXPECT_EQ(policy == CM_FORWARD_DISCONNECT || policy == CM_FORWARD_WAIT, pLower->m_nShared) << policy;
        EXPECT_EQ(CM_OK, m_pSession->RemoveReceiver(dwId, CM_OK));
    }
}

TEST_F(ForwardTest, ALongBacklogHoldsUpNoForward) {
    const CCmRefPtrT<CFakeLower> pLate(new CFakeLower);
    CCmForwardReceiverOptions options;
    options.m_Join = CM_FORWARD_JOIN_OLDEST;
    const std::string strText(16384, 'x');
    for (int i = 0; i < 128; ++i)
        EXPECT_EQ(CM_OK, Forward(strText));
    pLate->m_dwRoom = 0;
    Add(*pLate, options);
    Turn();
    pLate->MakeRoom();
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(CM_OK, Forward(strText));
    EXPECT_EQ(Lines{std::string(65536, 'x')}, pLate->m_Sends);
}

TEST_F(ForwardTest, EveryOperationMayComeInsideEveryUpcall) {
    const CCmRefPtrT<CFakeLower> lowers[] = {CCmRefPtrT<CFakeLower>(new CFakeLower), CCmRefPtrT<CFakeLower>(new CFakeLower),
                                             CCmRefPtrT<CFakeLower>(new CFakeLower)};
    const DWORD dwFirst = Add(*lowers[0], Options(CM_FORWARD_WAIT, 2));
    m_Sink.m_Inside = [&](const std::string& aLine) {
        EXPECT_EQ(CM_OK, Forward(aLine + ";"));
        if (aLine == "join 1") {
            SendText(*lowers[0], "snapshot;");
            Add(*lowers[1]);
        } else if (aLine == "join 2") {
            lowers[1]->Vanish();
        } else if (aLine == "gone 2 20001") {
            Add(*lowers[2]);
            EXPECT_EQ(CM_OK, m_pSession->RemoveReceiver(dwFirst, CM_OK));
        }
    };
    Turn();
    EXPECT_EQ("snapshot;join 1;", lowers[0]->TakeSent());
    EXPECT_EQ((Lines{"join 1", "join 2", "gone 2 20001", "join 2"}), m_Sink.Take());
    EXPECT_EQ("join 2;", lowers[2]->TakeSent());
    // The release inside an upcall ends the others.
    m_Sink.m_Inside = [&](const std::string&) { m_pSession.Reset(); };
    lowers[1]->m_pSink = lowers[0]->m_pSink = nullptr;
    Add(*lowers[1]);
    Add(*lowers[0]);
    Turn();
    EXPECT_EQ(Lines{"join 1"}, m_Sink.Take());
    EXPECT_EQ(1u, lowers[2]->m_Disconnects.size());
}

TEST_F(ForwardTest, MessagesThatLieInTheLogAsTheyLeaveAreEncodedAnewForOtherTypes) {
    const CCmRefPtrT<CFakeLower> pRaw(new CFakeLower), pSlow(new CFakeLower);
    CConnEnd<CLenPkgConn> late;
    late.Connect();
    pSlow->m_dwRoom = 1001;
    Add(*pRaw);
    const DWORD dwSlow = Add(*pSlow);
    Turn();
    std::string strAll, strFramed;
    uint64_t ullBegun = 0;
    for (size_t i = 0; i < 900; ++i) {
        const std::string strText = std::to_string(10000 + i) + Pattern(i == 500 ? 2000 : i % 50);
        ullBegun += strAll.size() < 1001;
        EXPECT_EQ(CM_OK, Forward(strText));
        strAll += strText;
        strFramed += Framed(strText);
    }
    Turn();
    EXPECT_EQ(Lines{strAll}, pRaw->m_Sends);
    EXPECT_EQ(ullBegun, StatisticsOf(*m_pSession, dwSlow).m_Sent.m_ullMessages);
    CCmForwardReceiverOptions options;
    options.m_Join = CM_FORWARD_JOIN_OLDEST;
    DWORD dwId = 0;
    EXPECT_EQ(CM_OK, m_pSession->AddReceiver(late.m_pConn.Get(), options, dwId));
    EXPECT_EQ(CM_OK, Forward("both"));
    pSlow->MakeRoom();
    for (int i = 0; i < 3; ++i)
        Turn();
    EXPECT_EQ(strAll + "both", pSlow->GetSent());
    EXPECT_EQ(strFramed + Framed("both"), late.m_pLower->TakeSent());
}

TEST_F(ForwardTest, AForgottenKeyIsNoSilentLoss) {
    const CCmRefPtrT<CFakeLower> pStopped(new CFakeLower), pLate(new CFakeLower);
    CCmForwardReceiverOptions options = Options(CM_FORWARD_CONFLATE);
    options.m_Join = CM_FORWARD_JOIN_ALL_KEYS;
    Option(CM_OPT_FORWARD_LOG_MESSAGES, 1);
    Option(CM_OPT_FORWARD_KEYS, 2);
    pStopped->m_dwRoom = 0;
    Add(*pStopped, options);
    Turn();
    for (const uint64_t ullKey : {1, 2, 1})
        EXPECT_EQ(CM_OK, Forward(std::to_string(ullKey), ullKey));
    pStopped->MakeRoom(2);
    Turn();
    EXPECT_EQ("21", pStopped->TakeSent());
    // Keys 2 and 1 are forgotten, but were sent; the message of key 3 was not.
    EXPECT_EQ(CM_OK, Forward("3", 3));
    EXPECT_EQ(CM_OK, Forward("4", 4));
    Turn();
    EXPECT_EQ(Lines{"join 1"}, m_Sink.Take());
    EXPECT_EQ(CM_OK, Forward("5", 5));
    Turn();
    EXPECT_EQ(Lines{"gone 1 10013"}, m_Sink.Take());
    Add(*pLate, options);
    Turn();
    EXPECT_EQ("45", pLate->TakeSent());
    const CCmForwardStatistics all = StatisticsOf(*m_pSession);
    EXPECT_EQ((CCmForwardCount{6, 6}), all.m_Forwarded);
    EXPECT_EQ((CCmForwardCount{2 + 2, 4}), all.m_Sent);
    EXPECT_EQ((CCmForwardCount{1, 1}), all.m_Conflated);
    EXPECT_EQ((CCmForwardCount{3, 3}), all.m_Dropped);
}

TEST(ForwardProxyTest, OtherThreadsForwardInTheirOrder) {
    CTestNetwork network;
    CForwardLogSink sink;
    CTestFd fdPeer;
    CCmRefPtrT<ICmForwardSession> pSession;
    ASSERT_EQ(CM_OK, network.Manager().CreateForwardSession(&sink, pSession.ParaOut()));
    const CCmRefPtrT<ICmTransport> pTransport = network.ConnectTo(fdPeer);
    DWORD dwId = 0;
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pSession->AddReceiver(pTransport.Get(), {}, dwId));
    CTestSink user(*pTransport);
    EXPECT_EQ(CM_OK, pSession->AddReceiver(pTransport.Get(), Options(CM_FORWARD_WAIT), dwId));
    EXPECT_EQ(CM_ERROR_FOUND, pSession->AddReceiver(pTransport.Get(), {}, dwId));
    CCmRefPtrT<ICmForwardSession> pHere;
    EXPECT_EQ(CM_OK, CCmConnectionManager::CreateForwardSession_i(&sink, pHere.ParaOut()));
    auto* pInner = Get<ICmTransport*>(*pTransport, CM_OPT_TRANSPORT_INNER_TRANSPORT);
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pHere->AddReceiver(pInner, {}, dwId)) << "it is of another thread";
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pHere->AddReceiver(pTransport.Get(), {}, dwId));
    sink.m_Inside = [&](const std::string& aLine) {
        if (aLine == "join 1") {
            EXPECT_EQ(CM_OK, SendText(*pTransport, "snapshot "));
        }
    };
    constexpr int MESSAGES = 2000;
    const auto forward = [&](char aWho) {
        for (int i = 0; i < MESSAGES; ++i) {
            const std::string strText = aWho + std::to_string(10000 + i);
            YieldUntil([&] { return ForwardText(*pSession, strText) == CM_OK; });
        }
    };
    std::thread other(forward, 'b');
    forward('a');
    other.join();
    std::string strGot;
    const size_t stAll = 9 + 2 * 6 * MESSAGES;
    network.RunUntil([&] {
        ReadToEnd(fdPeer, strGot);
        return strGot.size() >= stAll;
    });
    ASSERT_EQ(stAll, strGot.size());
    EXPECT_EQ("snapshot ", strGot.substr(0, 9));
    std::map<char, int> next;
    for (size_t i = 9; i < stAll; i += 6)
        ASSERT_EQ(std::to_string(10000 + next[strGot[i]]++), strGot.substr(i + 1, 5));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, SendText(*pTransport, "mine"));
    EXPECT_EQ(2u * MESSAGES, StatisticsOf(*pSession).m_Sent.m_ullMessages);
    fdPeer.Close();
    network.RunUntil([&] { return sink.m_Lines.back() == "gone 1 20001" && user.m_nDisconnects == 1; });
    EXPECT_EQ(CM_OK, pSession->Close(CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, ForwardText(*pSession, "late"));
}

TEST(ForwardProxyTest, MessagesThatWaitPrecedeALaterReceiver) {
    CTestNetwork network;
    CForwardLogSink sink;
    CCmRefPtrT<ICmForwardSession> pSession;
    ASSERT_EQ(CM_OK, network.Manager().CreateForwardSession(&sink, pSession.ParaOut()));
    CTestFd fdWaits, fdLate;
    const CCmRefPtrT<ICmTransport> pWaits = network.ConnectTo(fdWaits), pLate = network.ConnectTo(fdLate);
    CTestSink waits(*pWaits), late(*pLate);
    DWORD dwWaits = 0, dwLate = 0;
    EXPECT_EQ(CM_OK, pSession->AddReceiver(pWaits.Get(), Options(CM_FORWARD_WAIT, 1), dwWaits));
    network.RunUntil([&] { return sink.m_Lines == Lines{"join 1"}; });
    // The system takes a part of the first. The second is in the log, the session refuses the third, the fourth is queued.
    EXPECT_EQ(CM_OK, ForwardText(*pSession, std::string(12 << 20, 'y')));
    YieldUntil([&] { return StatisticsOf(*pSession, dwWaits).m_Sent.m_ullMessages == 1; });
    for (const char* pText : {"2", "3", "4"}) {
        EXPECT_EQ(CM_OK, ForwardText(*pSession, pText));
        network.InNetwork([] {});
    }
    EXPECT_EQ(2u, StatisticsOf(*pSession).m_Forwarded.m_ullMessages);
    network.InNetwork([&] {
        EXPECT_EQ(CM_OK, pSession->RemoveReceiver(dwWaits, CM_ERROR_TIMEOUT));
        EXPECT_EQ(CM_OK, pSession->AddReceiver(pLate.Get(), {}, dwLate));
    });
    EXPECT_EQ(4u, StatisticsOf(*pSession).m_Forwarded.m_ullMessages);
    EXPECT_EQ(0u, StatisticsOf(*pSession, dwLate).m_Due.m_ullMessages);
    // Its OnJoin waits in this thread.
    EXPECT_EQ(CM_OK, pSession->RemoveReceiver(dwLate, CM_OK));
    BOOL bRun = FALSE;
    PostTo(network.Main(), [&] { bRun = TRUE; });
    network.RunUntil([&] { return bRun; });
    EXPECT_EQ(Lines{"join 1"}, sink.m_Lines);
    EXPECT_EQ(CM_OK, pSession->Close(CM_OK));
}

TEST(ForwardProxyTest, AMebibyteWaitsAndNotMore) {
    CTestNetwork network;
    CForwardLogSink sink;
    CCmRefPtrT<ICmForwardSession> pSession;
    ASSERT_EQ(CM_OK, network.Manager().CreateForwardSession(&sink, pSession.ParaOut()));
    const std::string strText(64 * 1024, 'x');
    int nTaken = 0;
    network.InNetwork([&] {
        while (nTaken < 100 && ForwardText(*pSession, strText) == CM_OK)
            ++nTaken;
    });
    EXPECT_EQ(16, nTaken);
    network.RunUntil([&] { return !sink.m_Lines.empty(); });
    EXPECT_EQ(Lines{"forward"}, sink.Take());
    EXPECT_EQ(CM_OK, ForwardText(*pSession, strText));
    // The end finishes a message that the system has taken in part.
    CTestFd fdPeer;
    const CCmRefPtrT<ICmTransport> pTransport = network.ConnectTo(fdPeer);
    CTestSink user(*pTransport);
    DWORD dwId = 0;
    EXPECT_EQ(CM_OK, pSession->AddReceiver(pTransport.Get(), {}, dwId));
    network.RunUntil([&] { return sink.m_Lines == Lines{"join 1"}; });
    EXPECT_EQ(CM_OK, ForwardText(*pSession, std::string(12 << 20, 'y')));
    YieldUntil([&] { return StatisticsOf(*pSession, dwId).m_Sent.m_ullMessages == 1; });
    EXPECT_EQ(CM_OK, pSession->Close(CM_OK));
    EXPECT_EQ(1u, StatisticsOf(*pSession, 0).m_Sent.m_ullMessages);
    std::string strGot;
    network.RunUntil([&] { return ReadToEnd(fdPeer, strGot); });
    EXPECT_EQ(size_t{12 << 20}, strGot.size());
    network.EndNetworkThread();
    CCmForwardStatistics statistics;
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, pSession->GetStatistics(statistics));
}
