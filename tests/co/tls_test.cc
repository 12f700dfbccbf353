// Connections and HTTP of coroutines over TLS.
#include "tests/co/co_fixture.h"
#include "tests/support/tls_certificates.h"

namespace {

namespace http = talvo::http;

constexpr talvo::kind KINDS[] = {talvo::tls, talvo::length.over(talvo::tls), talvo::package.over(talvo::tls),
                                 talvo::reliable.over(talvo::tls)};

talvo::task<> EchoOverTls(std::string aAddress, talvo::kind aKind, const talvo::tls_context& aClient) {
    talvo::connect_options options{.timeout = 60s, .tls = &aClient};
    auto peer = (co_await talvo::connect(aAddress, aKind, options)).value();
    EXPECT_TRUE(peer.get(talvo::options::tls_session).value().m_bVerified);
    const std::string strLong(50000, 'x');
    talvo::task_group sender;
    sender.spawn([](talvo::connection& aPeer, const std::string& aText) -> talvo::task<> {
        EXPECT_TRUE(co_await aPeer.send(aText));
    }(peer, strLong));
    std::string strReceived;
    while (strReceived.size() < strLong.size())
        strReceived += (co_await peer.receive()).value().str();
    EXPECT_EQ(strLong, strReceived);
    options.server_name = "other.test";
    EXPECT_EQ(talvo::errc::tls_certificate, (co_await talvo::connect(aAddress, aKind, options)).error());
    EXPECT_EQ(talvo::errc::tls_certificate, (co_await talvo::connect(aAddress, aKind)).error());
}

talvo::task<> FetchOverTls(uint16_t aPort, const talvo::tls_context& aClient) {
    const std::string strUrl = "https://localhost:" + std::to_string(aPort) + "/", strLong(50000, 'x');
    http::request what;
    what.url = strUrl;
    what.method = "PUT";
    what.body = strLong;
    what.tls = &aClient;
    const auto answer = (co_await http::fetch(what)).value();
    EXPECT_TRUE(answer.ok() && answer.body() == strLong) << answer.status();
    EXPECT_EQ(talvo::errc::tls_certificate, (co_await http::get(strUrl)).error());
}

TEST(CoTlsTest, ConnectionsAndHttpAreVerified) {
    const auto& certificates = CTestCertificates::Get();
    talvo::tls_context server, client;
    ASSERT_TRUE(server.certificate(certificates.PathOf("server.pem"), certificates.PathOf("server.key")));
    ASSERT_TRUE(client.trust(certificates.PathOf("root.pem")));
    EXPECT_FALSE(talvo::tls_context().trust("/nowhere"));
    talvo::application app;
    EXPECT_FALSE(app.listen("127.0.0.1:0", talvo::tls, Echo));
    for (const talvo::kind kind : KINDS) {
        const auto bound = app.listen("127.0.0.1:0", kind, Echo, {.tls = &server});
        EXPECT_EQ(0, app.run(EchoOverTls(bound.value().to_string(), kind, client))) << kind.type();
    }
    http::router routes;
    routes.put("/", [](http::incoming aCall) -> talvo::task<> {
        EXPECT_TRUE(aCall.begin(200, "text/plain"));
        while (auto piece = co_await aCall.receive())
            co_await aCall.send(*piece);
        EXPECT_TRUE(aCall.finish());
    });
    const auto bound = app.listen("127.0.0.1:0", std::move(routes), {.tls = &server});
    EXPECT_EQ(0, app.run(FetchOverTls(bound.value().port(), client)));
}

}  // namespace
