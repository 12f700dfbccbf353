// HTTP clients and servers of coroutines, over the simulated network.
#include "tests/co/co_fixture.h"

namespace {

namespace http = talvo::http;

class CoHttpTest : public CCoTest {
protected:
    static std::string Url(const std::string& aPath) { return "http://10.0.0.1" + aPath; }

    void Serve(http::router aRoutes) { ASSERT_TRUE(m_Server.listen("10.0.0.1:80", std::move(aRoutes))); }

    std::exception_ptr m_Failed;
    http::server m_Server{[this](std::exception_ptr a) { m_Failed = a; }};
};

std::string Pairs(const http::fields& aFields) {
    std::string strAll;
    for (const auto& [name, value] : aFields)
        strAll += name + "=" + value + ";";
    return strAll;
}

// Method, target, status of the look-up, and the parameters.
TEST(HttpRouterTest, FindsHandlersAndDecodes) {
    http::router routes;
    const auto handler = [](http::incoming) -> talvo::task<> { co_return; };
    routes.get("/", handler).get("/a/{id}", handler).put("/a/{id}", handler).get("/files/{path...}", handler);
    const struct {
        const char *m_szMethod, *m_szTarget;
        int m_nStatus;
        const char *m_szParams, *m_szQuery;
    } rows[] = {
        {"GET", "/", 200, "", ""},
        {"GET", "/?x=1+2&y&&=z&x=%26", 200, "", "x=1 2;y=;=z;x=&;"},
        {"GET", "/a/b%2Fc%20+", 200, "id=b/c +;", ""},
        {"HEAD", "http://host:80/a/7?q", 200, "id=7;", "q=;"},
        {"GET", "http://host", 200, "", ""},
        {"PUT", "/a/7", 200, "id=7;", ""},
        {"POST", "/a/7", 405, "GET, HEAD, PUT", ""},
        {"GET", "/a/", 404, "", ""},
        {"GET", "/a/7/", 404, "", ""},
        {"GET", "/files/x/y.txt", 200, "path=x/y.txt;", ""},
        {"GET", "/files/", 200, "path=;", ""},
        {"GET", "/files", 200, "path=;", ""},
        {"get", "/", 200, "", ""},
        {"OPTIONS", "*", 204, "GET, HEAD, PUT, OPTIONS", ""},
        {"GET", "", 404, "", ""},
        {"GET", "/a/%4", 400, "", ""},
        {"GET", "/a/%00", 400, "", ""},
        {"GET", "/files/x/../../y", 400, "", ""},
        {"GET", "/files/%2e%2E", 400, "", ""},
        {"GET", "/files/x%2F..%2Fy", 400, "", ""},
        {"GET", "/files/./x", 400, "", ""},
        {"GET", "/files//etc/x", 400, "", ""},
        {"GET", "/files/%2Fetc/x", 400, "", ""},
        {"GET", "/files/x//y", 200, "path=x//y;", ""},
        {"GET", "/a/%2F", 400, "", ""},
        {"GET", "/files/..x/.y/z..", 200, "path=..x/.y/z..;", ""},
        {"GET", "/?%zz", 400, "", ""},
    };
    for (const auto& row : rows) {
        const auto found = routes.find(row.m_szMethod, row.m_szTarget);
        EXPECT_EQ(row.m_nStatus, found.serve ? 200 : found.status) << row.m_szTarget;
        EXPECT_EQ(row.m_szParams, found.serve ? Pairs(found.params) : found.allow) << row.m_szTarget;
        EXPECT_EQ(row.m_szQuery, Pairs(found.query)) << row.m_szTarget;
    }
    EXPECT_FALSE(routes.error());
    for (const char* szWrong : {"", "a", "*", "/{", "/a{b}", "/{a}b", "/{}", "/{...}", "/{a...}/b", "/{a}/{a}", "/{{a}}"}) {
        http::router wrong;
        EXPECT_EQ(std::errc::invalid_argument, wrong.get(szWrong, handler).error()) << szWrong;
        EXPECT_EQ(404, wrong.find("GET", "/").status) << szWrong;
        EXPECT_EQ(std::errc::invalid_argument, http::server().listen("10.0.0.1:80", wrong).error());
    }
    EXPECT_TRUE(http::router().on("A B", "/", handler).error() && http::router().get("/", nullptr).error());
    std::string strMany;
    for (size_t i = 0; i < http::fields::MOST; ++i)
        strMany += "a=b&";
    EXPECT_EQ(http::fields::MOST, http::fields::parse(strMany).value().size());
    EXPECT_EQ(std::errc::message_size, http::fields::parse(strMany + "a").error());
}

TEST_F(CoHttpTest, HandlersAnswerAndFaultsHaveTheirStatus) {
    http::router routes;
    routes.get("/hello/{name}", [](http::incoming aCall) -> talvo::task<> {
        co_await talvo::sleep(1s);
        aCall.set_header("X-Query", aCall.query().get("q"));
        aCall.respond(201, "text/plain", "hello " + std::string(aCall.param("name")));
    });
    routes.post("/form", [](http::incoming aCall) -> talvo::task<> {
        const auto form = co_await aCall.form(20);
        if (form)
            aCall.respond(200, "text/plain", Pairs(*form) + aCall.header("X-Any"));
    });
    routes.get("/throw", [](http::incoming) -> talvo::task<> {
        co_await talvo::sleep(1s);
        throw std::runtime_error("handler");
    });
    routes.post("/{any}", [](http::incoming aCall) -> talvo::task<> {
        EXPECT_EQ(std::errc::invalid_argument, aCall.respond(1000).error());
        const http::incoming moved = std::move(aCall);
        EXPECT_TRUE(aCall.method().empty() && aCall.target().empty() && aCall.param("any").empty() && !aCall.query().size());
        EXPECT_TRUE(aCall.header("Host").empty() && !aCall.native() && aCall.peer_address() == talvo::address());
        EXPECT_EQ(std::errc::not_connected, (co_await aCall.form()).error());
        EXPECT_EQ(std::errc::not_connected, (co_await aCall.send("x")).error());
        for (const auto& done : {aCall.respond(200), aCall.set_header("X", "y"), aCall.begin(200), aCall.finish()})
            EXPECT_EQ(std::errc::not_connected, done.error());
    });
    Serve(std::move(routes));
    Run([]() -> talvo::task<> {
        const auto hello = (co_await http::get(Url("/hello/you?q=a%20b"))).value();
        EXPECT_TRUE(hello.status() == 201 && hello.ok() && hello.body() == "hello you") << hello.body();
        EXPECT_EQ("a b", hello.header("x-query"));
        const http::header header{"X-Any", "any"};
        const auto post = [&](std::string_view aBody) {
            return http::fetch({.url = "http://10.0.0.1/form", .method = "POST", .headers = {&header, 1}, .body = aBody});
        };
        EXPECT_EQ("a=1;b= ;any", (co_await post("a=1&b=+")).value().body());
        EXPECT_EQ(413, (co_await post("a=1&b=123456789012345")).value().status());
        EXPECT_EQ(400, (co_await post("a=%")).value().status());
        EXPECT_EQ(500, (co_await http::fetch({.url = "http://10.0.0.1/refused", .method = "POST"})).value().status());
        EXPECT_EQ(404, (co_await http::get(Url("/no/where"))).value().status());
        const auto wrong = (co_await http::get(Url("/form"))).value();
        EXPECT_TRUE(wrong.status() == 405 && wrong.header("Allow") == "POST");
        const auto put = (co_await http::fetch({.url = "http://10.0.0.1/throw", .method = "PUT"})).value();
        EXPECT_TRUE(put.status() == 405 && put.header("Allow") == "GET, HEAD, POST");
        EXPECT_EQ(500, (co_await http::get(Url("/throw"))).value().status());
        for (const char* szUrl :
             {"nonsense", "http://10.0.0.1:65616/", "http://10.0.0.1:80x/", "http://a:b@10.0.0.1/", "http://[::1]:0"})
            EXPECT_EQ(std::errc::invalid_argument, (co_await http::get(szUrl)).error()) << szUrl;
        EXPECT_EQ(404, (co_await http::get("http://10.0.0.1:/no/where")).value().status());
        EXPECT_EQ(std::errc::connection_refused, (co_await http::get("http://10.0.0.9/")).error());
    }());
    EXPECT_THROW(std::rethrow_exception(m_Failed), std::runtime_error);
}

// Whatever spelling of a text a peer has used before, as a header's name for example.
TEST_F(CoHttpTest, MethodsMatchInAnyCase) {
    const auto handler = [](http::incoming aCall) -> talvo::task<> {
        aCall.respond(200, "", aCall.header("patch"));
        co_return;
    };
    Serve(http::router().get("/", handler).patch("/", handler));
    Run([]() -> talvo::task<> {
        const http::header header{"patch", "ed"};
        for (const char* szMethod : {"patch", "PATCH", "GET", "get"}) {
            const auto answer = co_await http::fetch({.url = "http://10.0.0.1/", .method = szMethod, .headers = {&header, 1}});
            EXPECT_EQ("ed", answer.value().body()) << szMethod;
        }
        auto raw = (co_await talvo::connect("10.0.0.1:80", talvo::tcp)).value();
        co_await raw.send("OPTIONS * HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n");
        std::string strAnswer;
        while (const auto piece = co_await raw.receive())
            strAnswer += piece->view();
        EXPECT_TRUE(strAnswer.starts_with("HTTP/1.1 204 ")) << strAnswer;
        EXPECT_NE(std::string::npos, strAnswer.find("Allow: GET, HEAD, PATCH, OPTIONS\r\n")) << strAnswer;
    }());
}

// Exchanges end after any step of both sides, and leave nothing behind.
TEST(CoHttpLifeTest, EveryStepMayBeTheLast) {
    const auto serve = [](http::incoming aCall) -> talvo::task<> {
        const CTracked tracked;
        aCall.begin(200, "text/plain");
        while (auto piece = co_await aCall.receive())
            co_await aCall.send(*piece);
        co_await talvo::sleep(5ms);
        aCall.finish();
    };
    const auto ask = []() -> talvo::task<> {
        const CTracked tracked;
        auto call = http::start({.url = "http://10.0.0.1/", .method = "PUT", .streamed = true});
        const auto feed = [](http::exchange& aCall) -> talvo::task<> {
            for (int i = 0; i < 3; ++i)
                co_await aCall.send(std::string(1000, 'x'));
            aCall.end_sending();
        };
        co_await talvo::when_all(call->head(), feed(*call));
        while (auto piece = co_await call->receive())
            co_await talvo::sleep(1ms);
        co_await http::get("http://10.0.0.1/");
    };
    bool bDone = false;
    for (int nLast = 1; !bDone; ++nLast) {
        const auto scenario = [&](CCmSimNetwork& aNetwork) {
            aNetwork.SetPath({.m_PartialSend = 0.2, .m_Cut = nLast % 3 == 0 ? 0.05 : 0, .m_dwBuffer = 1000});
            http::server server;
            talvo::task_group tasks;
            server.listen("10.0.0.1:80", http::router().put("/", serve).get("/", serve));
            tasks.spawn(ask());
            int nSteps = 0;
            aNetwork.RunUntil([&] { return ++nSteps >= nLast || (bDone = tasks.size() == 0 && nLast % 3 != 0); },
                              CCmTimeValue(200));
        };
        const CCmSimRun run = cm_sim_run(scenario, 1 + static_cast<uint64_t>(nLast % 7));
        ASSERT_TRUE(run.m_Failures.empty()) << run.m_Failures.front() << " at step " << nLast;
        ASSERT_EQ(0, CTracked::s_nAlive) << "at step " << nLast;
    }
}

// The server sends each piece of a request's body back as a piece of its answer, at the pace of the slower side.
TEST_F(CoHttpTest, BodiesAreStreamedBothWays) {
    m_Network.SetPath({.m_PartialSend = 0.2, .m_dwBuffer = 20000});
    http::router routes;
    routes.put("/echo", [](http::incoming aCall) -> talvo::task<> {
        EXPECT_TRUE(aCall.begin(200, "text/plain"));
        while (auto piece = co_await aCall.receive())
            co_await aCall.send(*piece);
        EXPECT_TRUE(aCall.finish());
    });
    Serve(std::move(routes));
    Run([]() -> talvo::task<> {
        auto call = http::start({.url = "http://10.0.0.1/echo", .method = "PUT", .streamed = true});
        std::string strSent, strReceived;
        talvo::task_group sender;
        sender.spawn([](http::exchange& aCall, std::string& aSent) -> talvo::task<> {
            for (int i = 0; i < 500; ++i) {
                const std::string strPiece = std::to_string(i) + std::string(400, '.');
                EXPECT_TRUE(co_await aCall.send(strPiece));
                aSent += strPiece;
            }
            EXPECT_TRUE(aCall.end_sending());
        }(call.value(), strSent));
        EXPECT_EQ(200, (co_await call->head()).value());
        while (const auto piece = co_await call->receive())
            strReceived += piece->view();
        EXPECT_TRUE(strSent.size() > 200000 && strSent == strReceived) << strReceived.size();
        http::request big;
        big.url = "http://10.0.0.1/echo";
        big.method = "PUT";
        big.body = strSent;
        big.most = 100000;
        EXPECT_EQ(std::errc::message_size, (co_await http::fetch(big)).error());
    }());
}

}  // namespace
