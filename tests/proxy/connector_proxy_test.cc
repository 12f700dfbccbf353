#include "talvo/proxy/connector_proxy.h"

#include <poll.h>

#include "talvo/proxy/proxy_functions.h"
#include "talvo/transport/bad_proxies.h"
#include "talvo/transport/race_options.h"
#include "talvo/transport/tls/default_context.h"
#include "tests/support/dns_helpers.h"
#include "tests/support/proxy_source.h"
#include "tests/support/tls_peer.h"

namespace {

constexpr CmResult PROXY = CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE;
constexpr CmResult PEER = CM_ERROR_NETWORK_CONNECT_ERROR;

std::string operator""_b(const char* aText, size_t aSize) { return {aText, aSize}; }

const std::string GREETING = "\5\1\0"_b, METHOD = "\5\0"_b, SOCKS_OPEN = "\5\0\0\1xxxxpp"_b;
const std::string HTTP_OPEN = "HTTP/1.1 200 OK\r\nVia: x\r\n\r\n";

// Connectors in the main thread, and a scripted proxy on a plain socket.
class ConnectorProxyTest : public testing::Test {
protected:
    ~ConnectorProxyTest() override { talvo::CBadProxies::Instance().Clear(); }

    static std::string UriOf(const std::string& aScheme, const CTestListener& aServer) {
        return aScheme + "://" + cm_address_text(aServer.Addr());
    }
    void Begin(const std::string& aUris, DWORD aType = CM_TRANSPORT_TYPE_TCP, const char* aPeer = "peer.test") {
        CCmProxyRoute route;
        if (CCmProxyRoute::FromUris(aUris, route) != CM_OK)
            route = CCmProxyRoute();
        Begin(route, aType, aPeer);
    }
    void Begin(const CCmProxyRoute& aRoute, DWORD aType, const char* aPeer) {
        CCmInetAddr addr;
        EXPECT_EQ(CM_OK, *aPeer == '/' ? addr.SetPath(aPeer) : addr.SetName(aPeer, m_wPort));
        m_pConnector = m_Network.MakeConnector(aType);
        ICmConnectOptions& options = *cm_get_connect_options(m_pConnector.Get());
        Set(options, CM_OPT_CONNECT_ROUTE, aRoute);
        if (m_Prepare)
            m_Prepare(options);
        m_stBefore = m_Sink.Count();
        m_pConnector->AsycConnect(&m_Sink, addr, m_bTimed ? &m_tvTimeout : nullptr);
        EXPECT_EQ(m_stBefore, m_Sink.Count()) << "from inside AsycConnect";
    }
    static BOOL HasPeer(const CTestListener& aServer) {
        pollfd listener{aServer.GetFd(), POLLIN, 0};
        return poll(&listener, 1, 0) == 1;
    }
    // The connection of the connector, once it has sent aRequest.
    CTestFd Accept(const CTestListener& aServer, const std::string& aRequest) const {
        CTestFd fd;
        m_Network.RunUntil([&] {
            if (fd.Get() == -1 && HasPeer(aServer))
                fd = aServer.Accept();
            return fd.Get() != -1;
        });
        if (!aRequest.empty())
            Expect(fd, aRequest);
        return fd;
    }
    void Expect(const CTestFd& aFd, const std::string& aRequest) const {
        std::string strRead;
        m_Network.RunUntil([&] { return (strRead += aFd.Read()).size() >= aRequest.size(); });
        EXPECT_EQ(aRequest, strRead);
    }
    CmResult Result() {
        m_Network.RunUntil([&] { return m_Sink.Count() > m_stBefore; });
        m_Network.RunPosted();
        EXPECT_EQ(m_stBefore + 1, m_Sink.Count());
        return m_Sink.m_Reasons.back();
    }
    std::string Failure() const {
        return Get<CCmFailure>(*cm_get_connect_options(m_pConnector.Get()), CM_OPT_CONNECT_FAILURE).ToString();
    }
    static std::string Request(const std::string& aTarget = "peer.test:443", const std::string& aField = "") {
        return "CONNECT " + aTarget + " HTTP/1.1\r\nHost: " + aTarget + "\r\nUser-Agent: talvo\r\n" + aField + "\r\n";
    }
    // A listener that has ended.
    static std::string Dead(const std::string& aScheme) { return UriOf(aScheme, CTestListener()); }

    CCmFakeClock m_Clock;
    const CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
    CTestSource m_Source;
    const CTestListener m_Server;
    CTestConnectSink m_Sink;
    CCmTimeValue m_tvTimeout{30};
    BOOL m_bTimed = TRUE;
    WORD m_wPort = 443;  // of the peer
    std::function<void(ICmConnectOptions&)> m_Prepare;
    CCmRefPtrT<ICmConnector> m_pConnector;
    size_t m_stBefore = 0;
};

}  // namespace

// Each reply is cut at each byte, and the peer's first bytes are behind it in the same piece.
TEST_F(ConnectorProxyTest, ATunnelTakesItsOwnBytesAlone) {
    const std::string strName = "\5\1\0\3\x09peer.test\1\xBB"_b;
    const std::tuple<std::string, std::string, std::string, std::string> CASES[] = {
        {"http", "", Request(), HTTP_OPEN},
        {"socks4a", "", "\4\1\1\xBB\0\0\0\1\0peer.test\0"_b, "\0\x5Axxxxxx"_b},
        {"socks5", GREETING + METHOD, strName, SOCKS_OPEN}};
    for (const auto& [strScheme, strFirst, strRequest, strReply] : CASES) {
        for (size_t stCut = 0; stCut <= strReply.size(); ++stCut) {
            Begin(UriOf(strScheme, m_Server), stCut % 2 ? +CM_TRANSPORT_TYPE_TCP : +CM_TRANSPORT_TYPE_PROXY);
            const CTestFd fd = Accept(m_Server, strFirst.empty() ? strRequest : GREETING);
            if (!strFirst.empty()) {
                fd.Write(METHOD);
                Expect(fd, strRequest);
            }
            if (stCut > 0)
                fd.Write(strReply.substr(0, stCut));
            for (int i = 0; i < 2; ++i)
                m_Network.RunPosted();
            if (stCut < strReply.size()) {
                EXPECT_EQ(m_stBefore, m_Sink.Count());
            }
            fd.Write(strReply.substr(stCut) + "hello");
            ASSERT_EQ(CM_OK, Result());
            ICmTransport& transport = *m_Sink.m_Transports.back();
            CTestSink sink(transport);
            m_Network.RunUntil([&] { return sink.m_strReceived == "hello"; });
            EXPECT_EQ(CM_OK, SendText(transport, "ours"));
            Expect(fd, "ours");
            EXPECT_EQ(UriOf(strScheme, m_Server), Get<CCmString>(transport, CM_OPT_TRANSPORT_ROUTE));
            EXPECT_EQ(m_Server.Addr(), Get<CCmInetAddr>(transport, CM_OPT_TRANSPORT_PEER_ADDR));
            EXPECT_EQ(DWORD{CM_TRANSPORT_TYPE_TCP}, Get<DWORD>(transport, CM_OPT_TRANSPORT_TRAN_TYPE));
            m_Sink.m_Transports.clear();
        }
    }
}

// What the server replies after the request is final, and so are its silence and its end.
TEST_F(ConnectorProxyTest, AServerThatWasAskedDecides) {
    const CTestListener next;
    const std::string strRoute = UriOf("http", m_Server) + "," + UriOf("http", next);
    const std::tuple<std::string, CmResult, std::string> CASES[] = {
        {"HTTP/1.1 403 Forbidden\r\n\r\n", PROXY, "403 Forbidden"},
        {"HTTP/1.1 502 Bad Gateway\r\n\r\n", PEER, "502 Bad Gateway"},
        {"HTTP/1.1 407 Log in\r\n\r\n", PROXY, "407 Log in"},
        {"SSH-2.0", PROXY, "not an HTTP reply"},
        {"", PROXY, "the proxy has closed without a reply"},
        {"?", PEER, "the time-out of the attempt has passed"}};
    for (const auto& [strReply, reason, strText] : CASES) {
        CCmTraceCapture trace;
        Begin(strRoute);
        CTestFd fd = Accept(m_Server, Request());
        if (strReply == "?")
            m_Clock.Advance(CCmTimeValue(31));
        else if (strReply.empty())
            fd.Close();
        else
            fd.Write(strReply);
        EXPECT_EQ(reason, Result()) << strReply;
        EXPECT_NE(std::string::npos, Failure().find(strText)) << Failure();
        if (strReply != "?") {
            EXPECT_NE(std::string::npos, Failure().find(UriOf("http", m_Server) + " to peer.test:443")) << Failure();
            EXPECT_TRUE(trace.Contains(("server=" + UriOf("http", m_Server)).c_str()));
        }
        EXPECT_FALSE(HasPeer(next));
    }
    m_bTimed = FALSE;
    Begin(strRoute);
    const CTestFd fd = Accept(m_Server, Request());
    m_Clock.Advance(CCmTimeValue(121));
    EXPECT_EQ(PEER, Result()) << "without a time-out the silence has an end, too";
    Begin(strRoute, CM_TRANSPORT_TYPE_TLS);
    const CTestFd tunnel = Accept(m_Server, Request());
    tunnel.Write(HTTP_OPEN);
    m_Network.RunUntil([&] { return !tunnel.Read().empty(); });
    m_Clock.Advance(CCmTimeValue(11));
    EXPECT_EQ(PEER, Result()) << "and so has that of a peer of TLS";
}

TEST_F(ConnectorProxyTest, AServerThatCannotBeReachedIsPassedOver) {
    const CTestListener silent;
    const std::string strDead = Dead("http"), strSilent = UriOf("socks5", silent), strGood = UriOf("http", m_Server);
    Begin(strDead + "," + strSilent + "," + strGood);
    const CTestFd greeted = Accept(silent, GREETING);
    m_Clock.Advance(CCmTimeValue(10));
    CTestFd fd = Accept(m_Server, Request());
    fd.Write(HTTP_OPEN);
    EXPECT_EQ(CM_OK, Result());
    Begin(strSilent + "," + strDead + "," + strGood);
    fd = Accept(m_Server, Request());
    EXPECT_FALSE(HasPeer(silent)) << "both are last for five minutes";
    m_pConnector->CancelConnect();
    for (const std::string& strAfter : {std::string(), "," + strGood}) {
        Begin(strSilent + strAfter);
        fd = Accept(silent, GREETING);  // with the second route, too: a success is forgiveness
        fd.Write(METHOD + SOCKS_OPEN);
        EXPECT_EQ(CM_OK, Result());
    }
    m_wPort = silent.Addr().GetPort();
    Begin("direct," + strGood, CM_TRANSPORT_TYPE_TLS, silent.Addr().GetIpDisplayName().c_str());
    const CTestFd direct = Accept(silent, "");
    m_Clock.Advance(CCmTimeValue(10));
    fd = Accept(m_Server, Request(cm_address_text(silent.Addr())));
    m_pConnector->CancelConnect();
    Begin(strDead);
    EXPECT_EQ(PROXY, Result());
    EXPECT_NE(std::string::npos, Failure().find("refused")) << Failure();
    talvo::CBadProxies::Instance().Clear();
    Begin(strDead + ",direct", CM_TRANSPORT_TYPE_TCP, "192.0.2.256");
    EXPECT_EQ(CM_ERROR_NETWORK_DNS_FAILURE, Result()) << "DIRECT has its own reason";
}

TEST_F(ConnectorProxyTest, AddressesThatAServerCannotGetArePassedOver) {
    const std::string strSocks4 = UriOf("socks4", m_Server), strSocks4a = UriOf("socks4a", m_Server);
    Begin(strSocks4 + "," + strSocks4a, CM_TRANSPORT_TYPE_TCP, "::1");
    EXPECT_EQ(CM_ERROR_NETWORK_DNS_FAILURE, Result());
    Begin(Dead("http") + "," + strSocks4, CM_TRANSPORT_TYPE_TCP, "::1");
    EXPECT_EQ(PROXY, Result()) << "a server was tried";
    Begin(strSocks4 + "," + UriOf("http", m_Server), CM_TRANSPORT_TYPE_TCP, "::1");
    CTestFd fd = Accept(m_Server, Request("[::1]:443"));
    m_pConnector->CancelConnect();
    Begin(strSocks4, CM_TRANSPORT_TYPE_TCP, "localhost");
    fd = Accept(m_Server, "\4\1\1\xBB\x7F\0\0\1\0"_b);
    m_pConnector->CancelConnect();
    Begin(strSocks4, CM_TRANSPORT_TYPE_TCP, "other.localhost");
    m_pConnector->CancelConnect();
    m_Network.RunPosted();
    EXPECT_FALSE(HasPeer(m_Server)) << "the look-up has ended, too";
    for (const std::string& strName : {std::string("a b"), std::string("a\nb"), std::string(254, 'a')}) {
        Begin(UriOf("http", m_Server), CM_TRANSPORT_TYPE_TCP, strName.c_str());
        EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_TIMEOUT, Result());
    }
    Begin(UriOf("http", m_Server), CM_TRANSPORT_TYPE_TCP, "/no/such/path");
    EXPECT_EQ(CM_ERROR_NETWORK_CONNECT_TIMEOUT, Result());
    EXPECT_EQ(std::string::npos, Failure().find("proxy")) << "a path is connected directly";
    Begin("socks5://u@" + cm_address_text(m_Server.Addr()));
    EXPECT_EQ(PROXY, Result()) << "SOCKS has no empty password";
    EXPECT_FALSE(HasPeer(m_Server));
}

TEST_F(ConnectorProxyTest, TheSourceIsAskedWithoutARoute) {
    CCmProxyRoute::FromUris(UriOf("http", m_Server), m_Source.m_Route);
    Begin("");
    EXPECT_TRUE(m_Source.m_Urls.empty()) << "type 1 does not ask";
    m_pConnector->CancelConnect();
    Begin("", CM_TRANSPORT_TYPE_PROXY, "::1");
    CTestFd fd = Accept(m_Server, Request("[::1]:443"));
    EXPECT_EQ("https://[::1]:443/", m_Source.m_Urls.at(0));
    m_Source.m_bNow = FALSE;
    Begin("", CM_TRANSPORT_TYPE_PROXY);
    for (int i = 0; i < 2; ++i)
        m_Source.m_pSink->OnProxySettingsChanged();
    EXPECT_EQ(3u, m_Source.m_Urls.size()) << "again once";
    m_Source.Answer();
    fd = Accept(m_Server, Request());
    Begin("", CM_TRANSPORT_TYPE_PROXY, OwnLoopback());
    m_Source.Answer(CM_ERROR_FAILURE);
    EXPECT_EQ(PEER, Result()) << "directly, where nothing listens";
    Begin("", CM_TRANSPORT_TYPE_PROXY, OwnLoopback());
    m_Source.Answer(PROXY);
    EXPECT_EQ(PROXY, Result()) << "a source may forbid the direct way";
    Begin("", CM_TRANSPORT_TYPE_PROXY);
    m_pConnector.Reset();
    EXPECT_EQ(nullptr, m_Source.m_pSink);
    ICmProxySource::Set(nullptr);
    CCmInetAddr addr(OwnLoopback(), 443);
    m_pConnector = m_Network.MakeConnector(CM_TRANSPORT_TYPE_PROXY);
    Set(*cm_get_connect_options(m_pConnector.Get()), talvo::OPT_CONNECT_NEVER_DIRECT, TRUE);
    m_stBefore = m_Sink.Count();
    m_pConnector->AsycConnect(&m_Sink, addr);
    EXPECT_EQ(PEER, Result());
    EXPECT_NE(std::string::npos, Failure().find("another attempt connects directly")) << Failure();
    DWORD dwWrong = 3;
    m_pConnector = m_Network.MakeConnector();
    EXPECT_EQ(CM_ERROR_INVALID_ARG, cm_get_connect_options(m_pConnector.Get())->SetOption(CM_OPT_CONNECT_PROXY, &dwWrong));
}

// Credentials that are stored, remembered, refused, and asked for while there is no connection.
TEST_F(ConnectorProxyTest, CredentialsGoToTheServerThatAsks) {
    const std::string strUri = UriOf("http", m_Server),
                      strLogin = "HTTP/1.1 407 Who\r\nProxy-Authenticate: Basic realm=\"r\"\r\n";
    const std::string strStays = strLogin + "Content-Length: 2\r\n\r\nno", strCloses = strLogin + "Connection: close\r\n\r\n";
    const std::string strUser = Request("peer.test:443", "Proxy-Authorization: Basic dXNlcjpwdw==\r\n");
    EXPECT_EQ(0, cm_proxy_set_credentials(strUri.c_str(), nullptr, "user", "pw"));
    Begin(strUri);
    CTestFd fd = Accept(m_Server, Request());
    fd.Write(strStays);
    Expect(fd, strUser);
    fd.Close();  // without notice: the request is repeated on another connection
    fd = Accept(m_Server, strUser);
    fd.Write(HTTP_OPEN);
    EXPECT_EQ(CM_OK, Result());
    Begin(strUri + "," + UriOf("socks5", m_Server));
    fd = Accept(m_Server, strUser);  // now at once
    fd.Write(strCloses);
    EXPECT_EQ(PROXY, Result()) << "refused, and there are no others";
    EXPECT_FALSE(HasPeer(m_Server)) << "the next server does not get them";
    EXPECT_EQ(CM_ERROR_NOT_FOUND, cm_proxy_forget_credentials(strUri.c_str()));

    std::vector<uint32_t> ids;
    const auto ask = [](void* aIds, uint32_t aId, const char*, const char*, const char*, int) {
        static_cast<std::vector<uint32_t>*>(aIds)->push_back(aId);
    };
    EXPECT_EQ(0, cm_proxy_set_asker(ask, &ids));
    for (const std::string strScheme : {"http", "socks5"}) {
        const BOOL bSocks = strScheme != "http";
        const std::string strFirst = bSocks ? "\5\2\0\2"_b : Request();
        Begin(UriOf(strScheme, m_Server));
        fd = Accept(m_Server, strFirst);
        fd.Write(bSocks ? "\5\2"_b : strStays);
        m_Network.RunUntil([&] { return !ids.empty(); });
        m_Clock.Advance(CCmTimeValue(11));  // more than a server has
        m_Network.RunPosted();
        EXPECT_EQ(m_stBefore, m_Sink.Count());
        EXPECT_EQ(0, cm_proxy_answer(ids.back(), "user", "pw"));
        fd = Accept(m_Server, bSocks ? strFirst : strUser);
        fd.Write(bSocks ? "\5\2"_b : strCloses);
        if (bSocks) {
            Expect(fd, "\1\4user\2pw"_b);
            fd.Write("\1\1"_b);
        }
        ids.clear();
        m_Network.RunUntil([&] { return !ids.empty(); });  // once more
        EXPECT_EQ(0, cm_proxy_answer(ids.back(), nullptr, nullptr));
        EXPECT_EQ(PROXY, Result());
        ids.clear();
    }
    cm_proxy_set_asker(nullptr, nullptr);
}

namespace {

// A server that takes the client's first protocol.
int TakeFirst(SSL*, const unsigned char** aOut, unsigned char* aLength, const unsigned char* aIn, unsigned, void*) {
    *aLength = aIn[0];
    *aOut = aIn + 1;
    return SSL_TLSEXT_ERR_OK;
}

// A server's side of a connection, inside TLS if it has a peer.
struct CSide {
    std::string Take() {
        if (!m_pTls)
            return m_Fd.Read();
        m_pTls->Receive(16384);
        m_pTls->Send();
        return std::exchange(m_pTls->m_strReceived, {});
    }
    void Put(const std::string& aText) {
        if (m_pTls) {
            m_pTls->Seal(aText);
            m_pTls->Send();
        } else if (!aText.empty()) {
            m_Fd.Write(aText);
        }
    }

    CTestFd m_Fd;
    std::unique_ptr<CTlsPeer> m_pTls;
};

}  // namespace

TEST_F(ConnectorProxyTest, TlsIsWithThePeerAndWithTheProxy) {
    const CCmTempDir dir;
    const std::string strBig = Pattern(300000), strRoot = CTestCertificates::Get().PathOf("root.pem");
    EXPECT_EQ(CM_OK, load_config_file(dir.Write("talvo.cfg", "[Ssl]\nCaFile=" + strRoot + "\n").c_str()));
    for (const auto& test : std::map<std::string, DWORD>{{"http", 12}, {"https", 12}, {"HTTPS", 1}}) {
        const std::string strScheme = test.first;
        const DWORD dwType = test.second;
        talvo::CDefaultContext::Instance().Clear();
        if (dwType != 1)
            m_Prepare = [](ICmConnectOptions& a) { Set(a, CM_OPT_CONNECT_ALPN, CCmString("talvo")); };
        Begin(UriOf(strScheme, m_Server), dwType, "localhost");
        CSide proxy{Accept(m_Server, ""), nullptr};
        if (strScheme != "http")
            proxy.m_pTls = std::make_unique<CTlsPeer>(std::move(proxy.m_Fd), TRUE, TLS1_3_VERSION);
        auto pair = MakeSocketPair();
        CTlsPeer peer(std::move(pair.second), TRUE, TLS1_2_VERSION);
        SSL_CTX_set_alpn_select_cb(SSL_get_SSL_CTX(peer.Get()), TakeFirst, nullptr);
        std::string strRequest, strPlain;
        const auto relay = [&] {
            const std::string strData = proxy.Take();
            if (strRequest != Request("localhost:443")) {
                strRequest += strData;
                if (strRequest == Request("localhost:443"))
                    proxy.Put(HTTP_OPEN + (dwType == 1 ? "hello" : ""));
            } else if (dwType == 1) {
                strPlain += strData;
            } else {
                pair.first.Write(strData);
                peer.Receive();
                peer.Send();
                proxy.Put(pair.first.Read());
                strPlain = peer.m_strReceived;
            }
        };
        m_Network.RunUntil([&] {
            relay();
            return m_Sink.Count() > m_stBefore;
        });
        ASSERT_EQ(CM_OK, Result()) << Failure();
        ICmTransport& transport = *m_Sink.m_Transports.back();
        EXPECT_EQ(dwType, Get<DWORD>(transport, CM_OPT_TRANSPORT_TRAN_TYPE));
        CCmSslInfo info;
        EXPECT_EQ(dwType == 1 ? CM_ERROR_INVALID_ARG : CM_OK, transport.GetOption(CM_OPT_TRANSPORT_SSL_INFO, &info));
        EXPECT_EQ(dwType == 1 ? 0u : DWORD{CM_TLS_1_2}, info.m_dwVersion) << "of the peer";
        EXPECT_EQ(dwType == 1 ? "" : "talvo", info.m_strAlpn);
        CTestSink sink(transport);
        CCmMessageBlock data = ViewOf(strBig);
        if (dwType != 1)
            peer.Seal("hello");
        m_Network.RunUntil([&] {
            if (data.GetChainedLength() > 0)
                transport.SendData(data);
            relay();
            return strPlain == strBig && sink.m_strReceived == "hello";
        });
        m_Sink.m_Transports.clear();
    }
    load_config_file("");
    talvo::CDefaultContext::Instance().Clear();
}

TEST_F(ConnectorProxyTest, TheCertificateOfAProxyIsVerified) {
    Begin(UriOf("https", m_Server) + ",direct");
    CTlsPeer proxy(Accept(m_Server, ""), TRUE, TLS1_3_VERSION);
    m_Network.RunUntil([&] {
        proxy.Receive();
        proxy.Send();
        return m_Sink.Count() > m_stBefore;
    });
    EXPECT_EQ(CM_ERROR_NETWORK_TLS_CERTIFICATE, Result()) << "the proxy's root is unknown";
    talvo::CDefaultContext::Instance().Clear();
}
