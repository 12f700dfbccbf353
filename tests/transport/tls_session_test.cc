#include "talvo/transport/tls/tls_session.h"

#include "talvo/transport/tls/transport_ssl.h"
#include "tests/support/blocks.h"
#include "tests/support/network_fixture.h"
#include "tests/support/tls_peer.h"

namespace {

// An open transport and a peer behind their handshake.
class TlsSessionTest : public testing::Test {
protected:
    void Shake(BOOL aServer, int aVersion) {
        m_pTransport.Reset();
        auto [fdOurs, fdPeer] = MakeTcpPair();
        m_pTransport = new CCmTransportSsl(&m_Main.GetReactor(), CM_TRANSPORT_TYPE_TLS);
        m_pTransport->GetPeer().SetHandle(dup(fdOurs.Get()));
        m_pPeer = std::make_unique<CTlsPeer>(std::move(fdPeer), !aServer, aVersion);
        const auto& certificates = CTestCertificates::Get();
        const auto pContext = aServer ? certificates.MakeServer() : certificates.MakeClient();
        EXPECT_EQ(CM_OK, m_pTransport->Begin(pContext, aServer ? nullptr : "localhost"));
        EXPECT_EQ(CM_ERROR_NOT_INITIALIZED, SendText(*m_pTransport, "early"));
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
        EXPECT_LE(Session().GetUnsent(), 65536u + 16384u + 16384u + 1000u);
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
        m_pPeer->Seal("last");
        if (aEnd != PEER_CUTS)
            SSL_shutdown(m_pPeer->Get());
        m_pPeer->Send();
        shutdown(m_pPeer->Socket().Get(), SHUT_WR);
        const int nEmpty = m_bTold && aEnd != PEER_CUTS ? 1 : 0;
        const int nDisconnects = aEnd == PEER_ENDS && m_bTold ? 0 : 1;
        Until([&] { return aSink.m_nDisconnects == nDisconnects && aSink.m_strReceived == m_strSealed + "last"; });
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
