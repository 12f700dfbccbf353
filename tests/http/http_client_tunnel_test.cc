#include "tests/http/client_fixture.h"

namespace {

std::string operator""_b(const char* aText, size_t aSize) { return {aText, aSize}; }

// Channels through a proxy on a plain socket.
class HttpClientTunnelTest : public testing::Test {
protected:
    std::string Uri(const std::string& aScheme, const std::string& aCredentials = "") const {
        return aScheme + "://" + aCredentials + cm_address_text(m_Proxy.Addr());
    }
    void Expect(const std::string& aRequest) const {
        std::string strRead;
        m_Network.RunUntil([&] { return (strRead += m_Fd.Read()).size() >= aRequest.size(); });
        EXPECT_EQ(aRequest, strRead);
    }
    // The proxy has a new connection with this request.
    void Accept(const std::string& aRequest) {
        m_Network.RunPosted();
        m_Fd = m_Proxy.Accept();
        Expect(aRequest);
    }
    std::string End(const CTestHttpClient& aClient, const std::string& aAnswer) const {
        m_Fd.Write(aAnswer);
        m_Network.RunUntil([&] { return aClient.IsOver(); });
        CCmString strText;
        return aClient.Result() + " " + std::to_string(aClient.m_pChannel->GetFailure(strText));
    }

    const CTestNetwork m_Network{CCmThreadManager::NETWORK_THREAD_MAIN};
    const CTestListener m_Proxy;
    CTestFd m_Fd;
};

const std::string REFUSAL = Answer("407 Who", "Proxy-Authenticate: Basic realm=\"r\"\r\n", "out").m_strBytes;

}  // namespace

TEST_F(HttpClientTunnelTest, ServesItsHostRouteAndUser) {
    CTestHttpClient first("http://peer.test/a", Uri("socks5"));
    first.Header("Proxy-Authorization", "x");
    first.Open();
    Accept("\5\1\0"_b);
    m_Fd.Write("\5\0"_b);
    Expect("\5\1\0\3\x09peer.test\0P"_b);
    m_Fd.Write("\5\0\0\1xxxxpp"_b);
    Expect("GET /a HTTP/1.1\r\nHost: peer.test\r\nUser-Agent: talvo\r\n\r\n");
    EXPECT_EQ("407 out 0", End(first, REFUSAL)) << "a server is no proxy";

    CTestHttpClient second("http://peer.test/b", Uri("socks5"));
    CCmString strRoute;
    second.m_Sink.m_Connect = [&] { strRoute = Get<CCmString>(*second.m_pChannel, CM_OPT_TRANSPORT_ROUTE); };
    second.Open();
    Expect("GET /b HTTP/1.1\r\nHost: peer.test\r\nUser-Agent: talvo\r\n\r\n");
    EXPECT_EQ("200 in 0", End(second, Answer("200 OK", "", "in").m_strBytes));
    EXPECT_EQ(Uri("socks5"), strRoute);

    CTestHttpClient other("http://peer.test/c", Uri("socks5", "u:p@"));
    other.Open();
    Accept("\5\2\0\2"_b);
    EXPECT_EQ("0  !20008 20009", End(other, "\5\xff"_b));
}

// The body of the proxy's refusal is not the server's.
TEST_F(HttpClientTunnelTest, ARefusalOfTheProxyIsAFailure) {
    CTestHttpClient client("https://peer.test/", Uri("http"));
    client.Open();
    Accept("CONNECT peer.test:443 HTTP/1.1\r\nHost: peer.test:443\r\nUser-Agent: talvo\r\n\r\n");
    EXPECT_EQ("0  !20008 20009", End(client, REFUSAL));
}
