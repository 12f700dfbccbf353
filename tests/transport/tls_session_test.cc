#include "talvo/transport/tls/tls_session.h"

#include "talvo/transport/tls/transport_ssl.h"
#include "tests/support/blocks.h"
#include "tests/support/network_fixture.h"
#include "tests/support/tls_peer.h"

namespace {

// An open transport and a peer behind their handshake.
class TlsSessionTest : public testing::Test {
protected:
    void Begin(BOOL aServer, int aVersion, std::pair<CTestFd, CTestFd> aSockets) {
        m_pTransport.Reset();
        auto [fdOurs, fdPeer] = std::move(aSockets);
        m_pTransport = new CCmTransportSsl(&m_Main.GetReactor(), CM_TRANSPORT_TYPE_TLS);
        m_pTransport->GetPeer().SetHandle(dup(fdOurs.Get()));
        m_pPeer = std::make_unique<CTlsPeer>(std::move(fdPeer), !aServer, aVersion);
        const auto& certificates = CTestCertificates::Get();
        const auto pContext = aServer ? certificates.MakeServer() : certificates.MakeClient();
        EXPECT_EQ(CM_OK, m_pTransport->Begin(pContext, aServer ? nullptr : "localhost"));
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*m_pTransport, "early"));
    }
    void Shake(BOOL aServer, int aVersion, std::pair<CTestFd, CTestFd> aSockets = MakeTcpPair()) {
        Begin(aServer, aVersion, std::move(aSockets));
        for (int i = 0; i < 100 && !(Session().Handshake() == talvo::CTlsSession::DONE && SSL_is_init_finished(m_pPeer->Get()));
             ++i) {
            m_pPeer->Receive();
            m_pPeer->Send();
        }
        ASSERT_TRUE(Session().IsUp()) << Session().GetFailureText();
        Set(*m_pTransport, CM_OPT_TRANSPORT_SNDBUF, 4096);
    }
    talvo::CTlsSession& Session() { return *m_pTransport->GetSession(); }
    template <class Condition>
    void Until(Condition aCondition, const char* aFile = __builtin_FILE(), int aLine = __builtin_LINE()) {
        const auto both = [&] {
            m_pPeer->Send();
            m_pPeer->Receive();
            return aCondition();
        };
        RunUntil(m_Main.GetReactor(), both, aFile, aLine);
    }

    CMainThread m_Main;
    CCmRefPtrT<CCmTransportSsl> m_pTransport;
    std::unique_ptr<CTlsPeer> m_pPeer;
};

// Data before it is delivered, and the peer learns of what is wrong. A whole record fills the buffer of a read.
TEST_F(TlsSessionTest, EachEndHasItsReason) {
    enum { GARBAGE, CHANGED, ALERT };
    for (const auto& [nVersion, stSize] : {std::pair{TLS1_2_VERSION, 4}, {TLS1_2_VERSION, 16384}, {TLS1_3_VERSION, 16384}}) {
        for (const int nEnd : {GARBAGE, CHANGED, ALERT}) {
            Shake(nVersion == TLS1_2_VERSION, nVersion);
            CTestSink sink(*m_pTransport);
            const std::string strData = Pattern(static_cast<size_t>(stSize));
            m_pPeer->Seal(strData);
            m_pPeer->Send(0);
            const size_t stGood = m_pPeer->m_strSealed.size();
            if (nEnd == ALERT) {
                const std::string strWrong = "\x17\x03\x03" + std::string("\0\x20", 2) + std::string(32, 'x');
                BIO_write(SSL_get_rbio(m_pPeer->Get()), strWrong.data(), static_cast<int>(strWrong.size()));
            } else {
                SSL_shutdown(m_pPeer->Get());
            }
            m_pPeer->Receive();
            m_pPeer->Send(0);
            if (nEnd == CHANGED)
                m_pPeer->m_strSealed[stGood + 6] ^= 1;
            if (nEnd == GARBAGE)
                m_pPeer->m_strSealed += Pattern(30000);
            Until([&] { return sink.m_nDisconnects == 1 && (nEnd == ALERT || m_pPeer->HasEnd()); });
            EXPECT_EQ("receive " + strData + (nEnd == GARBAGE ? ", disconnect 20001" : ", disconnect 20103"), sink.Take());
            EXPECT_EQ(nEnd == GARBAGE ? CM_FAILURE_NONE : CM_FAILURE_PROTOCOL,
                      Get<CCmFailure>(*m_pTransport, CM_OPT_TRANSPORT_LAST_FAILURE).GetCause());
        }
    }
}

TEST_F(TlsSessionTest, AnswersThatNobodyReadsStopReading) {
    for (const BOOL bEnds : {FALSE, TRUE}) {
        Shake(bEnds, TLS1_3_VERSION, MakeSocketPair());
        CTestSink sink(*m_pTransport);
        while (m_pPeer->m_strSealed.size() < 50000) {
            EXPECT_EQ(1, SSL_key_update(m_pPeer->Get(), SSL_KEY_UPDATE_REQUESTED));
            SSL_do_handshake(m_pPeer->Get());
            m_pPeer->Send();
            m_Main.RunOnce();
        }
        EXPECT_TRUE(Session().WaitsForAnswers());
        EXPECT_LE(Session().GetUnsent(), 16384u + 100u);
        m_pPeer->Seal("all read");
        if (bEnds)
            shutdown(m_pPeer->Socket().Get(), SHUT_WR);
        else
            Until([&] { return sink.m_strReceived == "all read"; });
        RunUntil(m_Main.GetReactor(), [&] { return sink.m_nDisconnects == bEnds; });
    }
}

TEST_F(TlsSessionTest, ASendWaitsWhileATicketIsIncomplete) {
    constexpr auto WRITE = [](SSL* aSsl, void*) {
        return SSL_SESSION_set1_ticket_appdata(SSL_get_session(aSsl), std::string(2000, 't').data(), 2000);
    };
    Shake(FALSE, TLS1_3_VERSION, MakeSocketPair());
    CTestSink sink(*m_pTransport);
    SSL_CTX_set_session_ticket_cb(SSL_get_SSL_CTX(m_pPeer->Get()), WRITE, nullptr, nullptr);
    SSL_set_max_send_fragment(m_pPeer->Get(), 512);
    EXPECT_EQ(1, SSL_new_session_ticket(m_pPeer->Get()));
    SSL_do_handshake(m_pPeer->Get());
    while (m_pPeer->m_strSealed.size() != 1) {
        m_pPeer->Send(0);
        m_pPeer->Send(m_pPeer->m_strSealed.size() - 1);
        m_Main.RunOnce();
    }
    RunUntil(m_Main.GetReactor(), [&] { return !Session().CanSeal(); });
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(CM_ERROR_PARTIAL_DATA, SendText(*m_pTransport, "too early"));
        m_Main.RunOnce();
    }
    EXPECT_EQ("", sink.Take());
    Until([&] { return sink.m_nSends == 1; });
    EXPECT_EQ(CM_OK, SendText(*m_pTransport, "now"));
    Until([&] { return m_pPeer->m_strReceived == "now"; });
}

// The client's data comes with the last bytes of its handshake.
TEST_F(TlsSessionTest, TicketsWaitForTheAnswerOfOneUpcall) {
    const std::function<void()> answers[] = {[] {}, [&] { SendText(*m_pTransport, "answer"); },
                                             [&] { m_pTransport->Disconnect(CM_OK); }, [&] { m_pTransport.Reset(); }};
    for (const auto& answer : answers) {
        Begin(TRUE, TLS1_3_VERSION, MakeSocketPair());
        do {
            m_pPeer->Receive();
            if (SSL_is_init_finished(m_pPeer->Get()))
                m_pPeer->Seal("data");
            m_pPeer->Send();
        } while (Session().Handshake() == talvo::CTlsSession::WANT_READ);
        m_pPeer->Receive();
        EXPECT_EQ(0, SSL_SESSION_has_ticket(SSL_get_session(m_pPeer->Get())));
        CTestSink sink(*m_pTransport);
        sink.m_Receive = answer;
        Until([&] { return SSL_SESSION_has_ticket(SSL_get_session(m_pPeer->Get())) == 1; });
        EXPECT_EQ("receive data", sink.Take());
        EXPECT_EQ(&answer == &answers[1] ? "answer" : "", m_pPeer->m_strReceived);
    }
}

TEST_F(TlsSessionTest, TheUserEndsItInsideEachUpcall) {
    enum { RELEASE, DISCONNECT, SEND_AND_RELEASE };
    for (const int nEnd : {RELEASE, DISCONNECT, SEND_AND_RELEASE}) {
        for (const auto upcall : {&CTestSink::m_Receive, &CTestSink::m_Send, &CTestSink::m_Disconnect}) {
            Shake(nEnd == RELEASE, TLS1_3_VERSION);
            CTestSink sink;
            std::string strTaken;
            const auto fill = [&] {
                CCmTransportParameter para;
                for (CmResult rv = CM_OK; rv == CM_OK; strTaken.append(para.m_dwHaveSent, 'f'))
                    rv = SendText(*m_pTransport, std::string(60000, 'f'), &para);
            };
            sink.*upcall = [&] {
                if (nEnd == SEND_AND_RELEASE && upcall != &CTestSink::m_Disconnect)
                    fill();
                nEnd == DISCONNECT ? void(m_pTransport->Disconnect(CM_OK)) : m_pTransport.Reset();
            };
            EXPECT_EQ(CM_OK, m_pTransport->OpenWithSink(&sink));
            if (upcall == &CTestSink::m_Receive)
                m_pPeer->Seal(Pattern(40000));
            else if (upcall == &CTestSink::m_Send)
                fill();
            else
                SSL_shutdown(m_pPeer->Get());
            Until([&] { return m_pPeer->HasEnd(); });
            EXPECT_EQ(strTaken, m_pPeer->m_strReceived);
            EXPECT_EQ(1, sink.Upcalls());
        }
    }
}

// A log that is sent over TLS. The line comes while OpenSSL reads, and has sealed answers already.
TEST_F(TlsSessionTest, ALineOfTheTraceIsSentFromInsideACall) {
    class CLog : public ICmTraceSink {
    public:
        void OnTrace(DWORD, const char*, std::string_view) override { m_Line(); }
        std::function<void()> m_Line;
    } log;
    Shake(FALSE, TLS1_3_VERSION, MakeSocketPair());
    const auto pLog = m_pTransport;
    const auto pReader = std::move(m_pPeer);
    CTestSink logSink(*pLog);
    Shake(FALSE, TLS1_3_VERSION, MakeSocketPair());
    CTestSink sink(*m_pTransport);
    std::string strLog;
    log.m_Line = [&] {
        EXPECT_EQ(CM_OK, SendText(*pLog, "line "));
        SendText(*m_pTransport, "of the session in the call");
        strLog += "line ";
    };
    CCmTrace::SetSink(&log);
    CCmTrace::Enable(TRUE);
    EXPECT_EQ(1, SSL_key_update(m_pPeer->Get(), SSL_KEY_UPDATE_REQUESTED));
    SSL_do_handshake(m_pPeer->Get());
    m_pPeer->Send();
    shutdown(m_pPeer->Socket().Get(), SHUT_RDWR);
    RunUntil(m_Main.GetReactor(), [&] { return sink.m_nDisconnects == 1; });
    CCmTrace::Enable(FALSE);
    CCmTrace::SetSink(nullptr);
    EXPECT_NE("", strLog);
    RunUntil(m_Main.GetReactor(), [&] { return (pReader->Receive(), pReader->m_strReceived == strLog); });
}

// Random traffic in both directions, compared with strings.
class TlsWalkTest : public TlsSessionTest {
protected:
    enum EEnd { PEER_ENDS, PEER_CUTS, WE_END_SENDING, WE_DISCONNECT, ENDS };

    void Walk(unsigned aSeed) {
        SCOPED_TRACE(aSeed);
        m_Random.seed(aSeed);
        m_strTaken.clear();
        m_strSealed.clear();
        m_bOwed = FALSE;
        Shake(aSeed & 1, aSeed & 2 ? TLS1_2_VERSION : TLS1_3_VERSION);
        CTestSink sink;
        sink.m_Send = [&] { EXPECT_TRUE(std::exchange(m_bOwed, FALSE)) << "nobody waits"; };
        m_bTold = BOOL{Pick(2) == 1};
        Set(*m_pTransport, CM_OPT_TRANSPORT_TELL_END, m_bTold);
        Set(*m_pTransport, CM_OPT_TRANSPORT_READ_SIZE, Pick(2) ? DWORD{4096} << Pick(5) : DWORD{16384});
        EXPECT_EQ(CM_OK, m_pTransport->OpenWithSink(&sink));
        for (int i = 0; i < 300; ++i)
            Step();
        Set(*m_pTransport, CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
        Until([&] { return m_pPeer->m_strReceived == m_strTaken && sink.m_strReceived == m_strSealed && !m_bOwed; });
        End(static_cast<EEnd>(aSeed / 4 % ENDS), sink);
        for (const std::string& strEach : sink.m_Received)
            EXPECT_LE(strEach.size(), 16384u);
        EXPECT_EQ(0u, ERR_peek_error());
    }

    void Step() {
        switch (Pick(9)) {
        case 0:
        case 1:
            return SendOurs();
        case 2:
            return Set(*m_pTransport, CM_OPT_TRANSPORT_PAUSE_READING, BOOL{Pick(2) == 1});
        case 3: {
            const std::string strText = Pattern(1 + Pick(Pick(2) ? 100 : 40000), Pick(1000));
            m_strSealed += strText;
            return m_pPeer->Seal(strText);
        }
        case 4:
            if (SSL_version(m_pPeer->Get()) == TLS1_3_VERSION && SSL_key_update(m_pPeer->Get(), Pick(2)) == 1)
                SSL_do_handshake(m_pPeer->Get());
            return;
        case 5:
            return m_pPeer->Send(1 + Pick(Pick(2) ? 30 : 50000));
        case 6:
            return m_pPeer->Receive(1 + Pick(Pick(2) ? 30 : 50000));
        default:
            if (Pick(4) == 0)
                ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR);  // of another user of OpenSSL
            m_Main.RunOnce();
            ERR_clear_error();
        }
    }
    // Other bytes each time, also behind a refusal.
    void SendOurs() {
        const std::string strText = Pattern(1 + Pick(Pick(2) ? 500 : 200000), Pick(1000));
        const unsigned uPiece = Pick(2) ? 300 : 30000;
        const CCmChainPtr pChain = MakeChain(strText, [&] { return 1 + Pick(uPiece); });
        CCmTransportParameter para;
        const CmResult rv = m_pTransport->SendData(*pChain, &para);
        EXPECT_EQ(strText.substr(para.m_dwHaveSent), pChain->FlattenChained());
        EXPECT_EQ(para.m_dwHaveSent == strText.size() ? CM_OK : CM_ERROR_PARTIAL_DATA, rv);
        m_strTaken += strText.substr(0, para.m_dwHaveSent);
        m_bOwed = m_bOwed || rv != CM_OK;
        EXPECT_LE(Session().GetUnsent(), 65536u + 16384u + 1000u);
        EXPECT_GE(Get<DWORD>(*m_pTransport, CM_OPT_TRANSPORT_UNACKNOWLEDGED), Session().GetUnsent());
    }
    void End(EEnd aEnd, CTestSink& aSink) {
        if (aEnd == WE_DISCONNECT || aEnd == WE_END_SENDING) {
            SendOurs();
            if (aEnd == WE_DISCONNECT)
                m_pTransport->Disconnect(CM_OK);
            else
                Set(*m_pTransport, CM_OPT_TRANSPORT_END_SENDING, TRUE);
            Until([&] { return m_pPeer->HasEnd(); });
            EXPECT_EQ(m_strTaken, m_pPeer->m_strReceived);
            EXPECT_EQ(aEnd == WE_DISCONNECT ? CM_ERROR_NOT_INITIALIZED : CM_ERROR_NETWORK_SOCKET_ERROR,
                      SendText(*m_pTransport, "late"));
        }
        if (aEnd == WE_DISCONNECT)
            return;
        Set(*m_pTransport, CM_OPT_TRANSPORT_PAUSE_READING, BOOL{Pick(2) == 1 && aEnd != WE_END_SENDING});
        m_strSealed += Pattern(Pick(100000));
        m_pPeer->Seal(m_strSealed.substr(aSink.m_strReceived.size()));
        if (aEnd != PEER_CUTS)
            SSL_shutdown(m_pPeer->Get());
        do {
            m_pPeer->Send();
            m_Main.RunOnce();
        } while (!m_pPeer->m_strSealed.empty() || Pick(3) > 0);
        shutdown(m_pPeer->Socket().Get(), SHUT_WR);
        m_Main.RunOnce();
        Set(*m_pTransport, CM_OPT_TRANSPORT_PAUSE_READING, FALSE);
        const int nEmpty = m_bTold && aEnd != PEER_CUTS ? 1 : 0;
        const int nDisconnects = aEnd == PEER_ENDS && m_bTold ? 0 : 1;
        Until([&] { return aSink.m_nDisconnects == nDisconnects && aSink.m_strReceived == m_strSealed; });
        Until([&] { return std::count(aSink.m_Received.begin(), aSink.m_Received.end(), "") == nEmpty; });
        EXPECT_EQ(nDisconnects == 0   ? CM_OK
                  : aEnd == PEER_CUTS ? CM_ERROR_NETWORK_TLS_CUT
                                      : CM_ERROR_NETWORK_SOCKET_ERROR,
                  aSink.m_Reason);
    }
    unsigned Pick(unsigned aBelow) { return static_cast<unsigned>(m_Random() % aBelow); }

    std::mt19937 m_Random;
    std::string m_strTaken;   // by SendData
    std::string m_strSealed;  // by the peer
    BOOL m_bOwed = FALSE;     // an OnSend
    BOOL m_bTold = FALSE;     // option 148
};

TEST_F(TlsWalkTest, NothingIsLostOrRepeated) {
    for (unsigned uSeed = 0; uSeed < 24; ++uSeed)
        Walk(uSeed);
}

}  // namespace
