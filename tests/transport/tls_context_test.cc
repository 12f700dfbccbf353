#include <malloc.h>
#include <openssl/conf.h>
#include <openssl/ssl.h>

#include "talvo/base/config.h"
#include "talvo/transport/tls/default_context.h"
#include "talvo/transport/tls/session_store.h"
#include "talvo/transport/tls/ssl_context.h"
#include "tests/support/network_fixture.h"
#include "tests/support/tls_certificates.h"
#include "tests/support/tls_pair.h"
#include "tests/support/tls_peer.h"

namespace {

using ContextPtr = CCmRefPtrT<CCmSslContext>;
constexpr DWORD BOTH_TYPES[] = {CM_TRANSPORT_TYPE_TLS_1_2, CM_TRANSPORT_TYPE_TLS_1_3};

std::string TextOf(const std::string& aFile) {
    std::ifstream file(aFile, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class TlsContextTest : public testing::Test {
protected:
    CTlsPair Shake(const ContextPtr& aClient, const ContextPtr& aServer, const char* aName = "localhost",
                   DWORD aType = CM_TRANSPORT_TYPE_TLS, WORD aPort = 443) {
        return CTlsPair(m_Main.GetReactor(), aClient, aServer, aName, aType, aPort);
    }
    BOOL IsGood(const ContextPtr& aClient, const ContextPtr& aServer, const char* aName = "localhost") {
        return Shake(aClient, aServer, aName).IsDone();
    }
    // The client's and the server's opinion.
    BOOL IsResumed(const ContextPtr& aClient, const ContextPtr& aServer, DWORD aType, const char* aName = "localhost",
                   WORD aPort = 443) {
        CTlsPair pair = Shake(aClient, aServer, aName, aType, aPort);
        EXPECT_TRUE(pair.IsDone());
        EXPECT_EQ(pair.m_Client.Info().m_bResumed, pair.m_Server.Info().m_bResumed);
        return pair.m_Client.Info().m_bResumed;
    }
    std::string CertificateOf(CTlsPair aPair) {
        std::string strDer;
        EXPECT_EQ(CM_OK, aPair.m_Client.m_Transport.GetOption(CM_OPT_TRANSPORT_SSL_PEER_CERTIFICATE, &strDer));
        return strDer;
    }

    CCmFakeClock m_Clock;
    CMainThread m_Main;
    CCmTraceCapture m_Trace;
};

// Each as CASE=NAME, by the reason for which it is refused; "": it is good.
TEST_F(TlsContextTest, CertificatesAreJudgedInBothVersions) {
    const CTestCertificates certificates(
        "rsa other-name wrong-order many-names expired not-yet-valid name-in-cn no-name partial-wildcard two-wildcards "
        "ip-as-name self-signed unknown-root missing-intermediate wrong-purpose sha1 rsa1024 chain-too-long revoked");
    const std::pair<const char*, const char*> cases[] = {
        {"",
         "server=localhost server=WWW.Example.TEST server=127.0.0.1 server=::1 rsa=localhost wrong-order=localhost "
         "many-names=localhost"},
        {"hostname mismatch",
         "server=a.b.example.test server=example.test other-name=localhost name-in-cn=localhost "
         "no-name=localhost partial-wildcard=localhost.example.test two-wildcards=a.b.example.test"},
        {"IP address mismatch", "server=127.0.0.2 ip-as-name=127.0.0.1"},
        {"certificate has expired", "expired=localhost"},
        {"certificate is not yet valid", "not-yet-valid=localhost"},
        {"self-signed certificate", "self-signed=localhost"},
        {"unable to get local issuer certificate", "unknown-root=localhost missing-intermediate=localhost"},
        {"unsuitable certificate purpose", "wrong-purpose=localhost"},
        {"CA signature digest algorithm too weak", "sha1=localhost"},
        {"EE certificate key too weak", "rsa1024=localhost"},
        {"certificate revoked", "revoked=localhost"},
        {"excessive message size", "chain-too-long=localhost"}};
    const auto pClient = certificates.MakeClient(), pListed = certificates.MakeClient();
    EXPECT_EQ(CM_OK, pListed->SetRevocationLists(certificates.PathOf("revocations.pem").c_str()));
    EXPECT_TRUE(IsGood(pListed, certificates.MakeServer()));
    for (const auto& [szWhy, szCases] : cases) {
        std::istringstream words(szCases);
        for (std::string strCase, strName; std::getline(words, strCase, '=') && words >> strName >> std::ws;) {
            const ContextPtr pServer(new CCmSslContext);
            EXPECT_EQ(CM_OK, pServer->SetCiphers("DEFAULT:@SECLEVEL=0", nullptr));
            const std::string strFile = certificates.PathOf(strCase);
            EXPECT_EQ(CM_OK, pServer->AddCertificate((strFile + ".pem").c_str(), (strFile + ".key").c_str()));
            for (const DWORD dwType : BOTH_TYPES) {
                CTlsPair pair = Shake(strCase == "revoked" ? pListed : pClient, pServer, strName.c_str(), dwType);
                EXPECT_STREQ(szWhy, pair.m_Client.IsDone() ? "" : pair.m_Client.Session().GetFailureText()) << strCase;
                EXPECT_EQ(*szWhy && strCase != "chain-too-long", pair.m_Client.Session().IsUnverified()) << strCase;
            }
        }
    }
    for (const char* pName : {"", ".localhost"}) {
        CCmTransportSsl transport(&m_Main.GetReactor(), CM_TRANSPORT_TYPE_TLS);
        EXPECT_EQ(CM_ERROR_FAILURE, transport.Begin(pClient, pName));
    }
}

TEST_F(TlsContextTest, OpenSslsConfigurationMakesRulesStricterAlone) {
    const CTestCertificates certificates("rsa1024");
    const CCmTempDir dir;
    const auto configure = [&](const std::string& aText) {
        const std::string strFile = dir.Write("openssl.cnf", "talvo=a\n[a]\nssl_conf=b\n[b]\nsystem_default=c\n[c]\n" + aText);
        EXPECT_EQ(1, CONF_modules_load_file(strFile.c_str(), "talvo", 0));
    };
    configure("MinProtocol=TLSv1\nMaxProtocol=TLSv1.1\nCipherString=ALL:@SECLEVEL=0\nOptions=UnsafeLegacyRenegotiation\n");
    const auto pClient = certificates.MakeClient(), pServer = certificates.MakeServer();
    const ContextPtr pWeak(new CCmSslContext);
    const std::string strWeak = certificates.PathOf("rsa1024");
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pWeak->AddCertificate((strWeak + ".pem").c_str(), (strWeak + ".key").c_str()));
    EXPECT_EQ(CM_TLS_1_3, Shake(pClient, pServer).m_Client.Info().m_dwVersion);
    configure("MinProtocol=TLSv1.3\n");
    CCmTransportSsl transport(&m_Main.GetReactor(), CM_TRANSPORT_TYPE_TLS_1_2);
    EXPECT_EQ(CM_ERROR_FAILURE, transport.Begin(certificates.MakeClient(), "localhost"));
    CONF_modules_unload(1);
}

TEST_F(TlsContextTest, NeitherSideRenegotiates) {
    const auto& certificates = CTestCertificates::Get();
    for (const BOOL bServer : {FALSE, TRUE}) {
        auto [ours, theirs] = MakeSocketPair();
        CTlsEnd end(m_Main.GetReactor(), std::move(ours), bServer ? certificates.MakeServer() : certificates.MakeClient(),
                    bServer ? nullptr : "localhost", CM_TRANSPORT_TYPE_TLS);
        CTlsPeer peer(std::move(theirs), !bServer, TLS1_2_VERSION);
        for (int i = 0; i < 5; ++i) {
            peer.Receive();
            peer.Send();
            end.Step();
        }
        ASSERT_TRUE(end.IsDone());
        peer.Receive();
        SSL_renegotiate(peer.Get());
        SSL_do_handshake(peer.Get());
        peer.Send();
        EXPECT_EQ(talvo::CTlsSession::WANT_READ, end.Read());
        EXPECT_EQ(SSL3_RT_ALERT, peer.Socket().Read().at(0)) << bServer;
    }
}

TEST_F(TlsContextTest, AServerJudgesItsClients) {
    const CTestCertificates certificates("client-of-unknown-root");
    const std::tuple<ECmTlsVerify, const char*, BOOL> cases[] = {{CM_TLS_VERIFY_NONE, "client", TRUE},
                                                                 {CM_TLS_VERIFY_OPTIONAL, "", TRUE},
                                                                 {CM_TLS_VERIFY_OPTIONAL, "server", FALSE},  // not for clients
                                                                 {CM_TLS_VERIFY_REQUIRED, "", FALSE},
                                                                 {CM_TLS_VERIFY_REQUIRED, "client", TRUE},
                                                                 {CM_TLS_VERIFY_REQUIRED, "client-of-unknown-root", FALSE}};
    for (const auto& [verify, szCertificate, bGood] : cases) {
        for (const DWORD dwType : BOTH_TYPES) {
            const auto pServer = certificates.MakeServer(), pClient = certificates.MakeClient(szCertificate);
            EXPECT_EQ(CM_OK, pServer->SetTrust(certificates.PathOf("root.pem").c_str()));
            EXPECT_EQ(CM_OK, pServer->SetVerify(verify));
            CTlsPair pair = Shake(pClient, pServer, "localhost", dwType);
            EXPECT_EQ(bGood, pair.m_Server.IsDone()) << verify << " " << szCertificate << " " << dwType;
            const BOOL bShown = verify != CM_TLS_VERIFY_NONE && szCertificate == std::string("client");
            EXPECT_EQ(bShown, pair.m_Server.Session().IsVerified()) << verify << " " << szCertificate;
            EXPECT_TRUE(!bShown || IsResumed(pClient, pServer, dwType));
        }
    }
}

TEST_F(TlsContextTest, AServerPresentsTheCertificateOfTheNameAndNeedsACommonProtocol) {
    const CTestCertificates certificates("other-name");
    const auto pServer = certificates.MakeServer(), pClient = certificates.MakeClient();
    const std::string strFile = certificates.PathOf("other-name");  // of the other kind of key
    EXPECT_EQ(CM_OK, pServer->AddCertificate((strFile + ".pem").c_str(), (strFile + ".key").c_str()));
    const std::string strFirst = CertificateOf(Shake(pClient, pServer));
    EXPECT_EQ(strFirst, CertificateOf(Shake(pClient, pServer, "a.example.test")));
    const std::string strOther = CertificateOf(Shake(pClient, pServer, "OTHER.test"));
    EXPECT_NE(strFirst, strOther);
    EXPECT_EQ(strOther, CertificateOf(Shake(pClient, pServer, "www.example.test"))) << "exact goes before the wildcard";
    EXPECT_EQ(strFirst, CertificateOf(Shake(pClient, pServer, "127.0.0.1"))) << "no name is sent";
    EXPECT_FALSE(IsGood(pClient, pServer, "unknown.test"));
    const auto pSome = certificates.MakeServer(), pOther = certificates.MakeClient();
    EXPECT_TRUE(pSome->SetAlpn("talvo,http/1.1") == CM_OK && pOther->SetAlpn("h2") == CM_OK && !IsGood(pOther, pSome));
}

TEST_F(TlsContextTest, RefusedSettingsHaveAResultAndALineWithoutSecrets) {
    const CTestCertificates certificates("locked");
    const CCmTempDir dir;
    const std::string strNone = dir.PathOf("none"), strBad = dir.Write("bad", "no certificate");
    const std::string strServer = certificates.PathOf("server.pem"), strLocked = certificates.PathOf("locked.key");
    const std::string strCut = dir.Write("cut", TextOf(strServer) + "-----BEGIN CERTIFICATE-----\nAAAA\n");
    const ContextPtr pContext(new CCmSslContext);
    CCmSslContext& context = *pContext;
    const auto own = [&](const std::string& aChain, const std::string& aKey, const CCmSslContext::Passphrase& aPhrase = {}) {
        return context.AddCertificate(aChain.c_str(), aKey.c_str(), aPhrase);
    };
    const auto wrong = [] { return "wrong-phrase"; };
    const auto throwing = []() -> CCmString { throw std::runtime_error("no phrase"); };
    const CmResult missing[] = {context.SetTrust(strNone.c_str()),
                                context.SetTrust(nullptr, strBad.c_str()),
                                own(strNone, strLocked),
                                context.SetRevocationLists(strNone.c_str()),
                                own(strServer, strNone),
                                context.SetKeyLog((strNone + "/log").c_str()),
                                context.SetTrust("")};
    const CmResult invalid[] = {context.SetTrust(strBad.c_str()),
                                context.SetRevocationLists(strServer.c_str()),
                                context.AddCertificate(strServer.c_str(), nullptr),
                                own(strBad, strLocked),
                                own(strCut, certificates.PathOf("server.key")),
                                own(strServer, certificates.PathOf("client.key")),
                                own(strServer, strLocked, wrong),
                                own(strServer, strLocked, throwing),
                                context.SetAlpn("h2,,http/1.1"),
                                context.SetCiphers(nullptr, "TLS_AES_128_GCM_SHA256:TLS_NONE")};
    EXPECT_EQ(std::size(missing), static_cast<size_t>(std::ranges::count(missing, CM_ERROR_NOT_FOUND)));
    EXPECT_EQ(std::size(invalid), static_cast<size_t>(std::ranges::count(invalid, CM_ERROR_INVALID_ARG)));
    EXPECT_EQ(std::size(missing) + std::size(invalid), m_Trace.Count(", refused. "));
    EXPECT_EQ(CM_OK, own(strServer, strLocked, [] { return "open sesame"; }));
    EXPECT_EQ(CM_OK, context.SetKeyLog(strBad.c_str()));
    EXPECT_FALSE(m_Trace.Contains("phrase") || m_Trace.Contains("sesame") || m_Trace.Contains("PRIVATE"));
    EXPECT_FALSE(IsGood(pContext, certificates.MakeServer())) << "after a refused trust";
    EXPECT_TRUE(IsGood(certificates.MakeClient(), pContext));
    EXPECT_TRUE(TextOf(strBad).ends_with('\n')) << "no secrets";
    EXPECT_EQ(std::filesystem::perms(0600), std::filesystem::status(strBad).permissions());
    EXPECT_EQ(CM_ERROR_ALREADY_INITIALIZED, context.SetVerify(CM_TLS_VERIFY_NONE));
}

TEST_F(TlsContextTest, ReloadServesTheNewFilesAndKeepsTheOldOnesIfTheyAreBad) {
    const CTestCertificates certificates("other-name");
    const CCmTempDir dir;
    const auto copy = [&](const char* aName) {
        dir.Write("own.pem", TextOf(certificates.PathOf(aName + std::string(".pem"))));
        dir.Write("own.key", TextOf(certificates.PathOf(aName + std::string(".key"))));
    };
    copy("server");
    const ContextPtr pServer(new CCmSslContext), pClient = certificates.MakeClient();
    EXPECT_EQ(CM_OK, pServer->AddCertificate(dir.PathOf("own.pem").c_str(), dir.PathOf("own.key").c_str()));
    EXPECT_TRUE(IsGood(pClient, pServer));
    copy("other-name");
    dir.Write("own.key", "");
    EXPECT_EQ(CM_ERROR_INVALID_ARG, pServer->Reload());
    EXPECT_TRUE(m_Trace.Contains("CCmSslContext::Reload, refused. file=" + dir.PathOf("own.key")));
    EXPECT_TRUE(IsResumed(pClient, pServer, CM_TRANSPORT_TYPE_TLS_1_3));
    copy("other-name");
    EXPECT_EQ(CM_OK, pServer->Reload());
    EXPECT_FALSE(IsGood(pClient, pServer)) << "a session of the old certificate was resumed";
    EXPECT_TRUE(IsGood(pClient, pServer, "other.test"));
}

TEST_F(TlsContextTest, SessionsAreResumedForTheSameServerAlone) {
    const auto& certificates = CTestCertificates::Get();
    for (const DWORD dwType : BOTH_TYPES) {
        const auto pServer = certificates.MakeServer(), pClient = certificates.MakeClient();
        const auto resumed = [&](const char* aName, WORD aPort = 443) {
            return IsResumed(pClient, pServer, dwType, aName, aPort);
        };
        EXPECT_FALSE(resumed("localhost"));
        for (int i = 0; i < 4; ++i)
            EXPECT_TRUE(resumed("localhost")) << "each brings a ticket for the next";
        EXPECT_FALSE(resumed("a.example.test") || resumed("127.0.0.1"));
        EXPECT_FALSE(resumed("localhost", 444));
        EXPECT_TRUE(resumed("localhost"));
        EXPECT_FALSE(IsResumed(certificates.MakeClient(), pServer, dwType)) << "another context";
        EXPECT_FALSE(IsResumed(pClient, certificates.MakeServer(), dwType)) << "another server";
        EXPECT_FALSE(resumed("localhost")) << "that one's ticket";
        EXPECT_TRUE(resumed("localhost"));
        m_Clock.Advance(CCmTimeValue(7201));
        EXPECT_FALSE(resumed("localhost"));
        m_Clock.Advance(CCmTimeValue(7199));
        EXPECT_TRUE(resumed("localhost"));

        for (const BOOL bClient : {TRUE, FALSE}) {
            const auto pQuietServer = certificates.MakeServer(), pQuiet = certificates.MakeClient();
            EXPECT_EQ(CM_OK, (bClient ? pQuiet : pQuietServer)->SetSessionKeeping(FALSE));
            EXPECT_FALSE(IsResumed(pQuiet, pQuietServer, dwType) || IsResumed(pQuiet, pQuietServer, dwType));
        }
        const auto pOnce = certificates.MakeClient();
        EXPECT_FALSE(IsResumed(pOnce, pServer, dwType));
        std::deque<CTlsEnd> ends;  // two use the tickets up, and go no further
        for (int i = 0; i < 2; ++i)
            ends.emplace_back(m_Main.GetReactor(), MakeSocketPair().first, pOnce, "localhost", dwType);
        EXPECT_EQ(dwType == CM_TRANSPORT_TYPE_TLS_1_2, IsResumed(pOnce, pServer, dwType));
        const auto pBlind = certificates.MakeClient();
        EXPECT_EQ(CM_OK, pBlind->SetVerify(CM_TLS_VERIFY_NONE));
        EXPECT_FALSE(IsResumed(pBlind, pServer, dwType) || IsResumed(pBlind, pServer, dwType));
    }
    EXPECT_EQ(4u, m_Trace.Count("a server is not verified. name=localhost"));
}

// OpenSSL marks the session of a connection that fails; those of TLS 1.2 share one.
TEST_F(TlsContextTest, ABrokenConnectionCostsNoSession) {
    const auto pServer = CTestCertificates::Get().MakeServer(), pClient = CTestCertificates::Get().MakeClient();
    EXPECT_FALSE(IsResumed(pClient, pServer, CM_TRANSPORT_TYPE_TLS_1_2));
    for (int i = 0; i < 2; ++i) {
        CTlsPair pair = Shake(pClient, pServer, "localhost", CM_TRANSPORT_TYPE_TLS_1_2);
        EXPECT_TRUE(pair.m_Client.Info().m_bResumed);
        EXPECT_LT(0, send(pair.m_Server.m_Transport.GetHandle(), "no record", 9, MSG_NOSIGNAL));
        EXPECT_EQ(talvo::CTlsSession::FAILED, pair.m_Client.Read());
        EXPECT_TRUE(IsResumed(pClient, pServer, CM_TRANSPORT_TYPE_TLS_1_2));
    }
}

// OpenSSL has 16 KiB for sending since the tickets, and would keep them. A session of TLS 1.2 is not copied for each client.
TEST_F(TlsContextTest, IdleConnectionsHaveNoBuffers) {
    const auto pServer = CTestCertificates::Get().MakeServer(), pClient = CTestCertificates::Get().MakeClient();
    for (const DWORD dwType : BOTH_TYPES) {
        EXPECT_FALSE(IsResumed(pClient, pServer, dwType));
        EXPECT_TRUE(IsResumed(pClient, pServer, dwType));
        std::deque<CTlsPair> pairs;
        const size_t stBefore = mallinfo2().uordblks;
        for (int i = 0; i < 8; ++i)
            pairs.emplace_back(m_Main.GetReactor(), pClient, pServer, "localhost", dwType);
        const size_t stMost = dwType == CM_TRANSPORT_TYPE_TLS_1_2 ? 25200 : 36864;  // of both ends
        EXPECT_LT((mallinfo2().uordblks - stBefore) / 8, stMost);
    }
}

TEST_F(TlsContextTest, ATicketOutlivesOneChangeOfTheKeys) {
    const auto& certificates = CTestCertificates::Get();
    for (const DWORD dwType : BOTH_TYPES) {
        const auto pServer = certificates.MakeServer(), pClient = certificates.MakeClient();
        EXPECT_FALSE(IsResumed(pClient, pServer, dwType, "a.example.test"));  // makes the first key
        m_Clock.Advance(CCmTimeValue(43200 - 60));
        EXPECT_FALSE(IsResumed(pClient, pServer, dwType));
        m_Clock.Advance(CCmTimeValue(120));
        EXPECT_TRUE(IsResumed(pClient, pServer, dwType)) << "the key before";
    }
}

TEST_F(TlsContextTest, TheStoreIsBounded) {
    talvo::CSessionStore store;
    const auto make = [](unsigned char aId) {
        talvo::CSslSessionPtr pSession(SSL_SESSION_new());
        SSL_SESSION_set_protocol_version(pSession.get(), TLS1_2_VERSION);
        SSL_SESSION_set1_id(pSession.get(), &aId, 1);
        return pSession;
    };
    const auto taken = [&](const std::string& aServer) {
        const auto pSession = store.Take(aServer, TLS1_2_VERSION, TLS1_3_VERSION);
        unsigned uLength = 0;
        return pSession ? *SSL_SESSION_get_id(pSession.get(), &uLength) : 0;
    };
    for (unsigned char by = 1; by <= 6; ++by)
        store.Keep("a", make(by).get(), 0);
    EXPECT_EQ(nullptr, store.Take("a", TLS1_3_VERSION, TLS1_3_VERSION));
    for (unsigned char by = 6; by >= 3; --by) {
        EXPECT_EQ(by, taken("a"));
        store.Drop("a", make(by).get());
    }
    store.Keep("a", make(1).get(), talvo::CSessionStore::MOST_BYTES + 1);
    EXPECT_EQ(0, taken("a"));
    for (int i = 0; i < 1025; ++i) {
        store.Keep(std::to_string(i), make(1).get(), 0);
        EXPECT_EQ(1, taken("0"));
    }
    EXPECT_EQ(0, taken("1")) << "not used for the longest time";
}

TEST_F(TlsContextTest, TheDefaultFollowsItsSectionAndFilesOnceAMinute) {
    const auto& certificates = CTestCertificates::Get();
    const CCmTempDir dir;
    const auto pServer = certificates.MakeServer();
    const std::string strRoot = TextOf(certificates.PathOf("root.pem"));
    const auto configure = [&](const std::string& aMore) {
        EXPECT_EQ(CM_OK, load_config_file(dir.Write("cfg", "[Ssl]\nCaFile=" + dir.PathOf("ca") + "\n" + aMore).c_str()));
        talvo::CDefaultContext::Instance().Clear();
    };
    const auto good = [&] { return IsGood(CCmSslContext::GetDefault(), pServer); };
    const auto pass = [&](long aSeconds) { m_Clock.Advance(CCmTimeValue(aSeconds)); };
    // The file is missing: the system's store must not take its place.
    setenv("SSL_CERT_FILE", certificates.PathOf("root.pem").c_str(), 1);
    configure("");
    EXPECT_FALSE(good());
    EXPECT_EQ(1u, m_Trace.Count("CCmSslContext::SetTrust, refused. file=" + dir.PathOf("ca")));
    EXPECT_EQ(CM_OK, load_config_file(dir.Write("cfg", "").c_str()));
    EXPECT_FALSE(good());
    pass(60);
    EXPECT_TRUE(good()) << "the system's store";
    unsetenv("SSL_CERT_FILE");
    configure("MinVersion=1.3\n");
    dir.Write("ca", strRoot);
    EXPECT_TRUE(good());
    const auto pBefore = CCmSslContext::GetDefault();
    pass(60);
    EXPECT_EQ(pBefore.Get(), CCmSslContext::GetDefault().Get()) << "nothing has changed";
    dir.Write("ca", "");
    pass(59);
    EXPECT_TRUE(good());
    pass(1);
    EXPECT_FALSE(good());
    configure("MinVersion=1.1\n");
    CCmSslContext::GetDefault();
    EXPECT_EQ(1u, m_Trace.Count("MinVersion is neither 1.2 nor 1.3"));
    load_config_file("");
    talvo::CDefaultContext::Instance().Clear();
}

TEST_F(TlsContextTest, OneContextServesManyThreads) {
    const auto& certificates = CTestCertificates::Get();
    const auto pServer = certificates.MakeServer(), pClient = certificates.MakeClient();
    std::atomic<int> nGood{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            CCmReactorEpoll reactor;
            for (int n = 0; n < 20; ++n) {
                nGood += CTlsPair(reactor, pClient, pServer, "localhost", BOTH_TYPES[n % 2]).IsDone();
                EXPECT_EQ(CM_OK, i == 0 && n % 5 == 0 ? pServer->Reload() : CM_OK);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(80, nGood);
}

}  // namespace
