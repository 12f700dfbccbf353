#include "talvo/transport/tcp/transport_tcp.h"

#include <sys/ioctl.h>

#include "talvo/transport/udp/transport_udp.h"
#include "tests/support/network_fixture.h"

namespace {

// A transport on the main thread's reactor, with a plain socket for a peer.
class TransportTcpTest : public testing::Test {
protected:
    void SetUp() override {
        auto [fdOurs, fdPeer] = MakeTcpPair();
        m_pTransport = Make();
        m_pTransport->GetPeer().SetHandle(dup(fdOurs.Get()));
        m_fdPeer = std::move(fdPeer);
    }
    using CRefTransport = CCmRefPtrT<CCmTransportTcp>;
    virtual CRefTransport Make() { return new CCmTransportTcp(&m_Main.GetReactor()); }
    void Open() {
        Set(*m_pTransport, CM_OPT_TRANSPORT_SNDBUF, 65535);  // small, so that it is full soon
        ASSERT_EQ(CM_OK, m_pTransport->OpenWithSink(&m_Sink));
    }
    template <class Condition>
    void Until(Condition aCondition) const {
        RunUntil(m_Main.GetReactor(), aCondition);
    }
    // Enough turns for whatever the loop still has to say.
    void Settle() {
        for (int i = 0; i < 5; ++i)
            m_Main.RunOnce();
    }
    // Sends until the socket has no room.
    DWORD Fill() {
        CCmTransportParameter para;
        const std::string strData(60000, 'f');
        DWORD dwSent = 0;
        while (SendText(*m_pTransport, strData, &para) == CM_OK || para.m_dwHaveSent > 0)
            dwSent += para.m_dwHaveSent;
        return dwSent;
    }
    // Reads at the peer so many bytes, letting the loop run.
    std::string PeerReads(size_t aCount) {
        std::string strData;
        Until([&] {
            strData += m_fdPeer.Read();
            return strData.size() >= aCount;
        });
        return strData;
    }

    CMainThread m_Main;
    CTestSink m_Sink;
    CCmRefPtrT<CCmTransportTcp> m_pTransport;
    CTestFd m_fdPeer;
};

// Puts every byte, turned over, into a record: its length, and as many bytes. One of no bytes is the end.
class CRecordTransport : public CCmTransportTcp {
public:
    using CCmTransportTcp::CCmTransportTcp;

    static std::string Encode(const std::string& aText) {
        std::string strRecord(1, static_cast<char>(aText.size()));
        for (const char c : aText)
            strRecord += static_cast<char>(~c);
        return strRecord;
    }
    // Takes the whole records off aRaw.
    static std::string Decode(std::string& aRaw) {
        std::string strText;
        size_t st = 0;
        for (; IsWhole(aRaw, st); st += static_cast<size_t>(aRaw[st]) + 1) {
            for (const char c : aRaw.substr(st + 1, static_cast<size_t>(aRaw[st])))
                strText += static_cast<char>(~c);
        }
        aRaw.erase(0, st);
        return strText;
    }
    static BOOL IsWhole(const std::string& aRaw, size_t aStart = 0) {
        return aRaw.size() > aStart && aRaw.size() - aStart > static_cast<size_t>(aRaw[aStart]);
    }

protected:
    // A record at a time, however much has come.
    int Read_i(char* aBuf, DWORD, BOOL& aMore) override {
        while (!IsWhole(m_strIn)) {
            char raw[1000];
            const int nRecv = Recv_i(raw, sizeof raw);
            if (nRecv == 0)
                NoteEnd_i();
            if (nRecv <= 0)
                return nRecv == 0 ? -1 : nRecv;
            m_strIn.append(raw, static_cast<size_t>(nRecv));
        }
        aMore = TRUE;
        if (m_strIn[0] == 0)
            return IsEndTold_i() ? 0 : -1;
        std::string strRecord = m_strIn.substr(0, static_cast<size_t>(m_strIn[0]) + 1);
        m_strIn.erase(0, strRecord.size());
        return static_cast<int>(Decode(strRecord).copy(aBuf, 127));
    }
    DWORD GetHeld_i() const override { return IsWhole(m_strIn) ? static_cast<DWORD>(m_strIn[0]) : 0; }
    void NoteEnd_i() override {
        static constexpr CWayToFail CUT = {CM_FAILURE_PROTOCOL, "cut off", "receive from"};
        if (m_strIn != std::string(1, '\0'))
            NoteFailure_i(CUT);
    }
    int Write_i(const iovec* aPieces, DWORD aCount) override {
        CmResult rv = Flush_i(FALSE);
        int nTaken = 0;
        for (DWORD i = 0; i < aCount; ++i) {
            const std::string strText(static_cast<const char*>(aPieces[i].iov_base), aPieces[i].iov_len);
            for (size_t st = 0; st < strText.size() && rv == CM_OK; st += 100) {
                m_strOut = Encode(strText.substr(st, 100));
                nTaken += static_cast<int>(m_strOut.size() - 1);
                rv = Flush_i(FALSE);
            }
        }
        if (rv == CM_ERROR_PARTIAL_DATA)
            WaitForRoom_i();
        errno = EAGAIN;
        return nTaken > 0 ? nTaken : -1;
    }
    CmResult Flush_i(BOOL aEnd) override {
        if (aEnd && !std::exchange(m_bEnded, TRUE))
            m_strOut += Encode("");
        while (!m_strOut.empty()) {
            const int nSent = Send_i(m_strOut.data(), static_cast<DWORD>(m_strOut.size()));
            if (nSent <= 0)
                return nSent == 0 ? CM_ERROR_PARTIAL_DATA : CM_ERROR_NETWORK_SOCKET_ERROR;
            m_strOut.erase(0, static_cast<size_t>(nSent));
        }
        return CM_OK;
    }
    DWORD GetUnsent_i() const override { return static_cast<DWORD>(m_strOut.size()); }
    CCmChainPtr TakeUnsent_i() override {
        const std::string strOut = std::exchange(m_strOut, "");
        return CCmChainPtr(ViewOf(strOut).DuplicateChained());
    }

private:
    std::string m_strIn, m_strOut;
    BOOL m_bEnded = FALSE;
};

class LayerTest : public TransportTcpTest {
protected:
    CRefTransport Make() override { return new CRecordTransport(&m_Main.GetReactor()); }
    void Again() {
        m_Sink.m_strReceived.clear();
        m_Sink.m_nReceives = m_Sink.m_nSends = m_Sink.m_nDisconnects = 0;
        SetUp();
    }
    // Pauses behind the first record of a burst that has left the socket.
    void OpenAndPause(const std::string& aBurst) {
        m_Sink.m_Receive = [this] { Pause(TRUE); };
        Open();
        m_fdPeer.Write(aBurst);
        Until([&] { return m_Sink.m_nReceives == 1; });
        m_Sink.m_Receive = [] {};
        Settle();
        EXPECT_EQ(1, m_Sink.Upcalls());
    }
    void Pause(BOOL aPause) { EXPECT_EQ(CM_OK, m_pTransport->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &aPause)); }
    ECmFailureCause Cause() {
        CCmFailure failure;
        EXPECT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_LAST_FAILURE, &failure));
        return failure.GetCause();
    }

    const std::string m_strRecord = CRecordTransport::Encode(Pattern(100));
};

}  // namespace

// Everything over sockets uses its reactor in the same way.
TEST(HomeReactorTest, NothingIsTouchedAfterTheEndOfTheThread) {
    CTestSink sink;
    CTestConnectSink connects;
    CCmRefPtrT<ICmTransport> pTcp, pUdp;
    CCmRefPtrT<ICmAcceptor> pAcceptor;
    CCmRefPtrT<ICmConnector> pConnector;
    CTestFd peer;
    {
        const CMainThread main;
        auto [fdOurs, fdPeer] = MakeTcpPair();
        const CCmRefPtrT<CCmTransportTcp> pTransport(new CCmTransportTcp(&main.GetReactor()));
        pTransport->GetPeer().SetHandle(dup(fdOurs.Get()));
        pTcp = pTransport.Get();
        peer = std::move(fdPeer);
        EXPECT_EQ(CM_OK, pTcp->OpenWithSink(&sink));
        const CCmRefPtrT<CCmTransportUdp> pDatagrams(new CCmTransportUdp(&main.GetReactor()));
        pDatagrams->GetPeer().Open(Loopback());
        pUdp = pDatagrams.Get();
        EXPECT_EQ(CM_OK, pUdp->OpenWithSink(&sink));
        CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_MAIN);
        CCmConnectionManager::Instance()->CreateConnectionServer(1, pAcceptor.ParaOut());
        CCmConnectionManager::Instance()->CreateConnectionClient(1, pConnector.ParaOut());
        EXPECT_EQ(CM_OK, pAcceptor->StartListen(&connects, Loopback()));
        CCmConnectionManager::CleanupInstance();
    }
    CCmThreadManager::Instance()->SetNetworkThreadMode(CCmThreadManager::NETWORK_THREAD_OWN);
    BOOL bPause = TRUE;
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pTcp->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pUdp->SetOption(CM_OPT_TRANSPORT_PAUSE_READING, &bPause));
    while (SendText(*pTcp, Pattern(65536)) == CM_OK) {
    }
    EXPECT_EQ(CM_OK, pAcceptor->StopListen(CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, pAcceptor->StartListen(&connects, Loopback()));
    pConnector->AsycConnect(&connects, Loopback(9));
    pConnector->CancelConnect();
    EXPECT_EQ(0u, connects.Count());
    EXPECT_EQ(CM_OK, pTcp->Disconnect(CM_OK));
    pTcp.Reset();
    pUdp.Reset();
    pAcceptor.Reset();
    pConnector.Reset();
    EXPECT_EQ("", CCmLiveCounter::Dump());
}

TEST_F(TransportTcpTest, ReceivesExactlyOneBufferAndMore) {
    const std::string strData = Pattern(16384);
    m_fdPeer.Write(strData);
    Open();
    Until([&] { return m_Sink.m_strReceived.size() == 16384; });
    EXPECT_EQ(strData, m_Sink.m_strReceived);
    const int nReceives = m_Sink.m_nReceives;
    Settle();
    EXPECT_EQ(nReceives, m_Sink.Upcalls());
    m_fdPeer.Write("more");
    Until([&] { return m_Sink.m_strReceived == strData + "more"; });
}

TEST_F(TransportTcpTest, ReadsAsMuchAsItIsAskedTo) {
    EXPECT_EQ(16384u, Get<DWORD>(*m_pTransport, CM_OPT_TRANSPORT_READ_SIZE));
    for (DWORD dwWrong : {4095u, (1u << 20) + 1})
        EXPECT_EQ(CM_ERROR_INVALID_ARG, m_pTransport->SetOption(CM_OPT_TRANSPORT_READ_SIZE, &dwWrong));
    const std::string strData = Pattern(50000);
    Open();
    for (const DWORD dwRight : {4096u, 1u << 20, 20000u}) {
        Set(*m_pTransport, CM_OPT_TRANSPORT_READ_SIZE, dwRight);
        const int nBefore = m_Sink.m_nReceives;
        m_Sink.m_strReceived.clear();
        m_fdPeer.Write(strData);
        YieldUntil([&] { return Get<int>(*m_pTransport, CM_OPT_TRANSPORT_FIO_NREAD) == 50000; });
        Until([&] { return m_Sink.m_strReceived == strData; });
        EXPECT_EQ(static_cast<int>((50000 + dwRight - 1) / dwRight), m_Sink.m_nReceives - nBefore);
    }
}

TEST_F(TransportTcpTest, FullSocketGivesOneOnSend) {
    Open();
    const DWORD dwFilled = Fill();
    CCmTransportParameter para;
    const std::string strData = Pattern(5000);
    CCmMessageBlock block = ViewOf(strData);
    for (int i = 0; i < 3; ++i) {  // refused three times, told once
        para.m_dwHaveSent = 77;
        EXPECT_EQ(CM_ERROR_PARTIAL_DATA, m_pTransport->SendData(block, &para));
        EXPECT_EQ(0u, para.m_dwHaveSent);
        EXPECT_EQ(5000u, block.GetChainedLength());
    }
    Settle();
    EXPECT_EQ(0, m_Sink.m_nSends);
    PeerReads(dwFilled);
    Until([&] { return m_Sink.m_nSends > 0; });
    Settle();
    EXPECT_EQ(1, m_Sink.m_nSends);
    EXPECT_EQ(CM_OK, m_pTransport->SendData(block, &para));
    EXPECT_EQ(strData, PeerReads(5000));
    m_fdPeer.Write("x");  // its report says again that there is room
    Until([&] { return m_Sink.m_nReceives > 0; });
    EXPECT_EQ(1, m_Sink.m_nSends);
}

// With bytes of the peer unread: a socket closed now would answer the next ones with a reset.
TEST_F(TransportTcpTest, AnOrderlyEndDeliversWhatWasTaken) {
    Open();
    const DWORD dwFilled = Fill();
    m_fdPeer.Write("unread");
    EXPECT_EQ(CM_OK, m_pTransport->Disconnect(CM_OK));
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*m_pTransport, "x"));
    EXPECT_EQ(nullptr, m_pTransport->GetSink());
    EXPECT_EQ(dwFilled, PeerReads(dwFilled).size());
    char c = 0;
    Until([&] { return recv(m_fdPeer.Get(), &c, 1, 0) == 0; });
    EXPECT_EQ(0, m_Sink.Upcalls());
}

TEST_F(TransportTcpTest, ChainBeyondSixtyFourPiecesGetsItsOnSend) {
    Open();
    Settle();  // the first write readiness is past: no other comes by itself
    const std::string strData = Pattern(150);
    std::vector<std::unique_ptr<CCmMessageBlock>> blocks;
    for (const char& c : strData) {
        blocks.push_back(std::make_unique<CCmMessageBlock>(1, &c, CCmMessageBlock::DONT_DELETE, 1));
        if (blocks.size() > 1)
            blocks.front()->Append(blocks.back().get());
    }
    CCmTransportParameter para;
    std::vector<DWORD> sent;
    m_Sink.m_Send = [&] {
        m_pTransport->SendData(*blocks.front(), &para);
        sent.push_back(para.m_dwHaveSent);
    };
    EXPECT_EQ(CM_ERROR_PARTIAL_DATA, m_pTransport->SendData(*blocks.front(), &para));
    EXPECT_EQ(64u, para.m_dwHaveSent);
    EXPECT_EQ(strData, PeerReads(150));
    Settle();
    EXPECT_EQ((std::vector<DWORD>{64, 22}), sent);
}

TEST_F(TransportTcpTest, OpeningAgainChangesTheSinkAndDisconnectEndsUpcalls) {
    Open();
    CTestSink second;
    EXPECT_EQ(CM_OK, m_pTransport->OpenWithSink(&second));
    m_fdPeer.Write("for the second");
    Until([&] { return second.m_strReceived == "for the second"; });
    Fill();
    EXPECT_EQ(CM_OK, m_pTransport->Disconnect(CM_OK));
    EXPECT_EQ(nullptr, m_pTransport->GetSink());
    send(m_fdPeer.Get(), "late", 4, MSG_NOSIGNAL);
    Settle();
    EXPECT_EQ(0, m_Sink.Upcalls());
    EXPECT_EQ(1, second.Upcalls());
    EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*m_pTransport, "x"));
    EXPECT_EQ(CM_OK, m_pTransport->Disconnect(CM_OK));
}

TEST_F(TransportTcpTest, ReleaseInsideEachUpcall) {
    const auto release = [this] { m_pTransport.Reset(); };
    const HANDLE fd = m_pTransport->GetHandle();
    m_Sink.m_Receive = release;
    Open();
    m_fdPeer.Write(Pattern(40000));  // more than one buffer: the loop would go on reading
    Until([&] { return m_Sink.m_nReceives > 0; });
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "the socket is open after the last release";
    Settle();
    EXPECT_EQ(1, m_Sink.Upcalls());

    SetUp();
    m_Sink.m_Send = release;
    Open();
    PeerReads(Fill());
    Until([&] { return m_Sink.m_nSends > 0; });
    SetUp();
    m_Sink.m_Disconnect = release;
    Open();
    m_fdPeer.Close();
    Until([&] { return m_Sink.m_nDisconnects > 0; });
    Settle();
    EXPECT_EQ(std::string::npos, CCmLiveCounter::Dump().find("CCmTransportTcp"));
}

TEST_F(TransportTcpTest, LastReleaseUnregistersAtOnce) {
    Open();
    const HANDLE fd = m_pTransport->GetHandle();
    m_pTransport.Reset();
    CTestHandler next(fd);
    auto [fdA, fdB] = MakeTcpPair();
    const CTestFd again(fdA.Get() == fd ? -1 : dup2(fdA.Get(), fd));
    EXPECT_EQ(CM_OK, m_Main.GetReactor().RegisterHandler(&next, ACmEventHandler::READ_MASK)) << "the number was still taken";
    next.m_Input = [] { return -2; };
    fdB.Write("x");
    Until([&] { return next.m_nInputs > 0; });
    EXPECT_EQ(0, m_Sink.Upcalls());
    m_Main.GetReactor().RemoveHandler(&next, ACmEventHandler::ALL_EVENTS_MASK);
}

TEST_F(TransportTcpTest, PausedReadingLosesNothing) {
    const auto pause = [&](BOOL aPause) { Set(*m_pTransport, CM_OPT_TRANSPORT_PAUSE_READING, aPause); };
    const std::string strData = Pattern(60000);
    // Pauses in the middle of a burst, behind the first whole buffer.
    m_Sink.m_Receive = [&] { pause(m_Sink.m_nReceives == 1); };
    pause(TRUE);
    Open();
    m_fdPeer.Write(strData);
    Settle();
    EXPECT_EQ(0, m_Sink.Upcalls());
    pause(FALSE);
    Until([&] { return m_Sink.m_nReceives > 0; });
    Settle();
    m_fdPeer.Close();  // with unread bytes at our side
    Settle();
    EXPECT_EQ(1, m_Sink.Upcalls());
    pause(FALSE);
    Until([&] { return m_Sink.m_nDisconnects > 0; });
    Settle();
    EXPECT_EQ(strData, m_Sink.m_strReceived);
    EXPECT_EQ(CM_ERROR_NETWORK_SOCKET_ERROR, m_Sink.m_Reason);
}

TEST_F(TransportTcpTest, DetachedSocketStaysOpenAndSilent) {
    Open();
    const CTestFd owned(m_pTransport->GetHandle());
    Set(*m_pTransport, CM_OPT_TRANSPORT_FD, CM_INVALID_HANDLE);
    m_fdPeer.Write("x");
    Settle();
    m_pTransport.Reset();
    Settle();
    EXPECT_EQ(0, m_Sink.Upcalls());
    owned.Write("y");
    EXPECT_EQ("y", PeerReads(1));
}

// The socket has nothing more to report when the pause ends, then it has the end besides, and then the end of both sides.
TEST_F(LayerTest, WhatALayerHoldsComesBehindThePauseAndBeforeTheEnd) {
    const std::string strEnd = CRecordTransport::Encode("");
    for (const std::string& strRest : {std::string(), strEnd, m_strRecord.substr(0, 50)}) {
        for (int nEnds = 0; nEnds < 3; ++nEnds) {
            Again();
            OpenAndPause(m_strRecord + m_strRecord + m_strRecord + (nEnds > 0 ? strRest : ""));
            BOOL bAlive = FALSE, bEnd = TRUE;
            int nUnread = 0;
            if (nEnds == 2) {
                EXPECT_EQ(CM_OK, m_pTransport->SetOption(CM_OPT_TRANSPORT_END_SENDING, &bEnd));
                EXPECT_EQ(strEnd, PeerReads(1));
            }
            if (nEnds > 0)
                m_fdPeer.Close();
            Settle();
            EXPECT_EQ(1, m_Sink.Upcalls());
            EXPECT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_SOCK_ALIVE, &bAlive));
            EXPECT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_FIO_NREAD, &nUnread));
            EXPECT_TRUE(bAlive && nUnread == 100);
            Pause(FALSE);
            Until([&] { return m_Sink.m_strReceived == Pattern(100) + Pattern(100) + Pattern(100); });
            if (nEnds == 0)
                continue;
            Until([&] { return m_Sink.m_nDisconnects == 1; });
            EXPECT_EQ(strRest == strEnd ? CM_FAILURE_NONE : CM_FAILURE_PROTOCOL, Cause());
        }
    }
}

// Without the end of the socket, and told of where it is asked for.
TEST_F(LayerTest, TheEndOfALayerIsThePeersEnd) {
    const std::string strSent = m_strRecord + CRecordTransport::Encode("");
    for (BOOL bTold : {FALSE, TRUE}) {
        Again();
        EXPECT_EQ(CM_OK, m_pTransport->SetOption(CM_OPT_TRANSPORT_TELL_END, &bTold));
        Open();
        for (const char c : strSent) {
            m_fdPeer.Write(std::string(1, c));
            Settle();
        }
        Until([&] { return m_Sink.m_nReceives == (bTold ? 2 : 1) && m_Sink.m_nDisconnects == (bTold ? 0 : 1); });
        EXPECT_EQ(Pattern(100), m_Sink.m_strReceived);
    }
    EXPECT_EQ(CM_OK, SendText(*m_pTransport, "answer"));
    std::string strRaw;
    Until([&] { return (strRaw += m_fdPeer.Read()).size() == 7; });
    EXPECT_EQ("answer", CRecordTransport::Decode(strRaw));
}

TEST_F(LayerTest, WhatALayerHasTakenGoesOutByItself) {
    enum { GOES_ON, ENDS_SENDING, DISCONNECTS };
    for (const int nEnd : {GOES_ON, ENDS_SENDING, DISCONNECTS}) {
        Again();
        Open();
        const DWORD dwTaken = Fill();
        int nUnacknowledged = 0, nQueued = 0, nEndSending = TRUE;
        EXPECT_EQ(CM_OK, m_pTransport->GetOption(CM_OPT_TRANSPORT_UNACKNOWLEDGED, &nUnacknowledged));
        EXPECT_EQ(0, m_pTransport->GetPeer().Control(TIOCOUTQ, &nQueued));
        EXPECT_GT(nUnacknowledged, nQueued);
        if (nEnd == ENDS_SENDING)
            m_pTransport->SetOption(CM_OPT_TRANSPORT_END_SENDING, &nEndSending);
        if (nEnd == DISCONNECTS)
            m_pTransport->Disconnect(CM_OK);
        std::string strRaw;
        Until([&] { return ReadToEnd(m_fdPeer, strRaw) || (nEnd == GOES_ON && strRaw.size() == dwTaken / 100 * 101); });
        EXPECT_EQ(nEnd != GOES_ON, strRaw.ends_with('\0'));
        EXPECT_EQ(std::string(dwTaken, 'f'), CRecordTransport::Decode(strRaw));
        Settle();
        EXPECT_EQ(nEnd == DISCONNECTS ? 0 : 1, m_Sink.m_nSends);
    }
}
