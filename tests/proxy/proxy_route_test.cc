#include "talvo/transport/proxy_route.h"

#include "talvo/transport/bad_proxies.h"
#include "tests/support/test.h"

namespace {

using Read = CmResult (*)(std::string_view aText, CCmProxyRoute& aRoute);

// The servers with their credentials, or the result.
std::string TextOf(Read aRead, const std::string& aText) {
    CCmProxyRoute route;
    const CmResult rv = aRead(aText, route);
    if (rv != CM_OK)
        return std::to_string(rv) + route.GetText();
    std::string strText = route.GetText();
    for (const CCmProxyServer& server : route.GetServers()) {
        const CCmCredentials& credentials = server.GetCredentials();
        if (credentials)
            strText.append(" ").append(credentials.m_User.Get()).append("/").append(credentials.m_Password.Get());
    }
    return strText;
}

const std::string LONG(253, 'a');

}  // namespace

TEST(ProxyRouteTest, TextsAreReadAndWrongEntriesAreSkipped) {
    const std::tuple<Read, std::string, std::string> CASES[] = {
        {CCmProxyRoute::FromScript, "PROXY a:80; SOCKS5 b; DIRECT", "http://a:80,socks5://b:1080,direct://"},
        {CCmProxyRoute::FromScript, "\tproxy\t[::1]:3128 ;;https B.c;SOCKS d;socks4a e:1;HTTP 1.2.3.4",
         "http://[::1]:3128,https://b.c:443,socks4://d:1080,socks4a://e:1,http://1.2.3.4:80"},
        {CCmProxyRoute::FromScript, "DIRECT x; PROXY; PROXY a b; PROXY a:0; PROXY a:65536; PROXY a:+1; PROXY ::1; FTP a",
         "10008"},
        {CCmProxyRoute::FromScript, "PROXY u@a; PROXY [a]:1; PROXY [::1; PROXY []; PROXY a:1:2; PROXY a/; PROXY [::1]x:1",
         "10008"},
        {CCmProxyRoute::FromScript, "PROXY " + LONG + "; PROXY " + LONG + "a; PROXY a\x01; PROXY " + std::string("a\0", 2),
         "http://" + LONG + ":80"},
        {CCmProxyRoute::FromScript, "", "10008"},
        {CCmProxyRoute::FromUris, "http://us%65r:p%40:@A:3128/,socks5h://b,direct://",
         "http://a:3128,socks5://b:1080,direct:// user/p@:"},
        {CCmProxyRoute::FromUris, "a , x@b:1,HTTPS://c,socks://d,socks4://u@e,socks4a://[::ffff:1.2.3.4]:5,direct",
         "http://a:80,http://b:1,https://c:443,socks5://d:1080,socks4://e:1080,socks4a://1.2.3.4:5,direct:// x/ u/"},
        {CCmProxyRoute::FromUris,
         "ftp://a,http://,http://%61,http://u%:p@a,http://u:%zz@a,http://u:%0a@a,direct://a,http://a/b", "10008"},
        {CCmProxyRoute::FromUris, "http://a:,http://[::1%nowhere]:1,http://a:1 2,b", "http://b:80"}};
    for (const auto& [read, strText, strExpected] : CASES)
        EXPECT_EQ(strExpected, TextOf(read, strText)) << strText;
    std::string strMany;
    for (int i = 0; i < 20; ++i)
        strMany += "h" + std::to_string(i) + ",";
    CCmProxyRoute route;
    EXPECT_EQ(CM_OK, CCmProxyRoute::FromUris(strMany, route));
    EXPECT_EQ(CCmProxyRoute::MOST_SERVERS, route.GetServers().size());
    EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, route.Add(CCmProxyServer()));
}

TEST(ProxyRouteTest, UnreachableServersAreLastForFiveMinutes) {
    CCmFakeClock clock;
    auto& bad = talvo::CBadProxies::Instance();
    CCmProxyRoute route;
    CCmProxyRoute::FromUris("http://u:p@a,http://b,direct://", route);
    const auto order = [&] {
        std::string strOrder;
        for (const CCmProxyServer& server : bad.Order(route))
            strOrder += server.IsDirect() ? "-" : server.GetHost();
        return strOrder;
    };
    EXPECT_EQ("ab-", order());
    bad.Note(route.GetServers()[0]);
    bad.Note(route.GetServers()[2]);
    EXPECT_EQ("b-a", order());
    clock.Advance(CCmTimeValue(200));
    bad.Note(route.GetServers()[1]);
    EXPECT_EQ("-ab", order()) << "all are tried";
    bad.Forgive(route.GetServers()[1]);
    EXPECT_EQ("b-a", order());
    clock.Advance(CCmTimeValue(100));
    EXPECT_EQ("ab-", order());
    bad.Note(route.GetServers()[0]);
    for (size_t i = 0; i < talvo::CBadProxies::MOST; ++i) {
        CCmProxyServer server;
        CCmProxyServer::Make(CM_PROXY_HTTP, "h" + std::to_string(i), 0, server);
        bad.Note(server);
    }
    EXPECT_EQ("ab-", order()) << "the oldest is forgotten";
    bad.Clear();
}
