// A server's answers to requests in pieces of each size.
#include "tests/http/server_fixture.h"

namespace {

using namespace std::string_literals;

constexpr const char* HOST = "Host: h\r\n";

std::string Get(const std::string& aURI, const std::string& aHeaders = HOST) {
    return "GET " + aURI + " HTTP/1.1\r\n" + aHeaders + "\r\n";
}
std::string Post(const std::string& aHeaders, const std::string& aBody) {
    return "POST / HTTP/1.1\r\n"s + HOST + aHeaders + "\r\n" + aBody;
}

std::string Chunks(const std::string& aBody) { return Post("Transfer-Encoding: chunked\r\n", aBody); }
std::string Line(const std::string& aHeader) { return Get("/a", "Host: h\r\n" + aHeader + "\r\n"); }

const std::string LONGEST = "/" + std::string(66, 'a');  // its request line has 80 bytes

const std::pair<std::string, std::string> ANSWERED[] = {
    {Get("/a"), "200:/a "},
    {Get("/a") + Post("Content-Length: 3\r\n", "xyz") + Get("/b"), "200:/a 200:xyz 200:/b "},
    {"\r\n\n" + Get("/a") + "\r\n" + Get("/b"), "200:/a 200:/b "},
    {"GET /a HTTP/1.1\nHost: h\n\n", "200:/a "},
    {Line("X:\tany text\x80 and 20 bytes\t\xFF") + Get("/b"), "200:/a 200:/b "},
    {Line("Connection: x, Close") + Get("/b"), "200:/a end"},
    {"GET /a HTTP/1.0\r\n\r\n" + Get("/b"), "200:/a end"},
    {"GET /a HTTP/1.0\r\nConnection: keep-alive\r\n\r\n" + Get("/b"), "200:/a 200:/b "},
    {"GET /a HTTP/1.2\r\nHost: h\r\n\r\n" + Get("/b"), "200:/a 200:/b "},
    {Chunks("3;x=y\r\nabc\r\n2\r\nde\r\n0\r\nT: v\r\n\r\n") + Get("/b"), "200:abcde 200:/b "},
    {Chunks("001 \t;x\r\nx\r\n0\r\n\r\n"), "200:x "},
    {Post("", "") + Post("Content-Length: 0\r\n", "") + Get("/b"), "200: 200: 200:/b "},
    {"PUT /p HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\n\r\n12345" + Get("/b"), "200:/p 200:/b "},
    {Post("Expect: 100-Continue\r\nContent-Length: 2\r\n", "ok") + Get("/b"), "100: 200:ok 200:/b "},
    {"PUT /p HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n" + Get("/b"), "200:/p end"},
    {Get("/a", "Host:\r\n") + Get("/b", "Host: [::1]\r\n"), "200:/a 200:/b "},
    {Get("/a", "Host: [::1]:80\r\n") + Get("/b", "Host: h:\r\n") + Get("/c", "Host: a:65535\r\n"), "200:/a 200:/b 200:/c "},
    {"OPTIONS * HTTP/1.1\r\nHost: h\r\n\r\nCONNECT h:443 HTTP/1.1\r\nHost: h\r\n\r\n", "200:* 200:h:443 "},
    {Get("HTTP://h:80/a?b") + Get(LONGEST), "200:HTTP://h:80/a?b 200:" + LONGEST + " "},
};

TEST_F(HttpServerTest, AnswersInWhateverPieces) {
    Set(CM_OPT_CHANNEL_SERVER_MAX_LINE, DWORD{80});
    Set(CM_OPT_CHANNEL_SERVER_MAX_LINES, DWORD{4});
    Set(CM_OPT_CHANNEL_SERVER_MAX_HEAD, DWORD{140});
    Set(CM_OPT_CHANNEL_SERVER_MAX_BODY, uint64_t{10});
    const auto check = [this](const std::string& aBytes, const std::string& aAnswers) {
        for (const size_t stPiece : {size_t{100000}, size_t{7}, size_t{1}}) {
            const auto pClient = Connect();
            pClient->Receive(aBytes, stPiece);
            EXPECT_EQ(aAnswers, pClient->TakeAnswers()) << aBytes << " in pieces of " << stPiece;
            pClient->Vanish();
            m_Requests.clear();
        }
    };
    for (const auto& [strBytes, strAnswers] : ANSWERED)
        check(strBytes, strAnswers);
    EXPECT_EQ(1u, Connect(Get("/a") + Get("/b") + Get("/c"))->m_Sends.size());  // answers in a row leave together
    // Nothing behind a refusal is answered.
    const auto refuse = [&](const std::string& aStatus, const std::vector<std::string>& aParts, const auto& aMake) {
        for (const std::string& strPart : aParts)
            check(Get("/1") + aMake(strPart) + Get("/3"), "200:/1 " + aStatus.substr(0, 3) + ":" + aStatus + "\n end");
        EXPECT_EQ(aStatus.substr(0, 4), m_Refusals.back().substr(0, 4));
        EXPECT_TRUE(m_Refusals.back().ends_with(" " + std::to_string(aStatus.size() + 1)));
    };
    const auto get = [](const std::string& a) { return Get(a); };
    const auto whole = [](const std::string& a) { return a; };
    const auto post = [](const std::string& a) { return Post(a + "\r\n", "x"); };
    const auto host = [](const std::string& a) { return Get("/a", a + "\r\n"); };
    const std::string strBad = "400 Bad Request", strTooLarge = "413 Content Too Large";
    const std::string strLong = "431 Request Header Fields Too Large";
    refuse(strBad, {"x\r\n", "GET /a\r\n", "GET / HTTP/1.9\r\n", "CONNECT /a HTTP/1.1\r\nHost: h\r\n"},
           [](auto a) { return a + "\r\n"; });
    refuse(strBad, {"*", "h:443", "a/b", "http:///a", "http://u@h/a", "/a#b", "/a\1", " /a"}, get);
    refuse(strBad, {"A: b", "Host: h\r\nHost: h", "Host: a:b", "Host: a:065536", "Host: a:1:2", "Host: [::1"}, host);
    refuse(strBad, {"Host: [:::1]", "Host: [fe80::1%25eth0]"}, host);
    refuse(strBad, {"X: a\r\n b", "X : a", "X=a", "X: a\rb", "X: a\0b"s}, Line);
    for (const size_t stAt : {0, 3, 7, 8, 15, 19})
        refuse(strBad, {"X:" + std::string(stAt, 'a') + "\x1F" + std::string(19 - stAt, 'a')}, Line);
    refuse(strBad, {"Content-Length: 1\r\nContent-Length: 1", "Content-Length: 1, 1", "Content-Length:", "Content-Length: +1"},
           post);
    refuse(strBad, {"Content-Length: 1\r\nTransfer-Encoding: chunked", "Transfer-Encoding: \t"}, post);
    refuse(strBad, {"zz\r\n", "+1\r\n", "0x1\r\n", "1 x\r\n", " 1\r\n", "1;a\n"},
           [](auto a) { return Chunks(a + "x\r\n0\r\n\r\n"); });
    refuse(strBad, {"0\r\nno trailer\r\n\r\n", "0\r\nT: v\r\n w\r\n\r\n"}, Chunks);
    refuse(strBad, {"POST / HTTP/1.0\r\nConnection: keep-alive\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"}, whole);
    refuse(strTooLarge, {"Content-Length: 11", "Content-Length: 9999999999999999999"}, post);
    refuse(strTooLarge, {"6\r\nabcdef\r\n5\r\n"}, Chunks);
    refuse("414 URI Too Long", {LONGEST + "a"}, get);
    refuse("417 Expectation Failed", {"Expect: wonders"}, post);
    refuse(strLong, {"X: " + std::string(100, 'a'), "A: 1\r\nB: 2\r\nC: 3\r\nD: 4"}, Line);
    refuse(strLong, {Get("/" + std::string(60, 'a'), "Host: h\r\nX: " + std::string(60, 'a') + "\r\nY: b\r\n")}, whole);
    refuse("501 Not Implemented",
           {"Transfer-Encoding: gzip, chunked", "Transfer-Encoding: identity\r\nTransfer-Encoding: chunked"}, post);
    refuse("505 HTTP Version Not Supported", {"GET /a HTTP/2.0\r\nHost: h\r\n\r\n"}, whole);
}

// The date is that of the answer, also between two looks at the clock: an application sends times of change that are not later.
TEST_F(HttpServerTest, WhatIsPrinted) {
    m_Request = [](ICmChannelHttpServer& a) {
        EXPECT_EQ(CM_OK, a.SetStatus(404, "Not here"));
        EXPECT_EQ(CM_OK, a.SetHeader(CCmHttpAtomList::Set_Cookie, "a=1", TRUE));
        EXPECT_EQ(CM_OK, a.SetHeader(CCmHttpAtomList::Set_Cookie, "b=2", TRUE));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, a.SetHeader(CCmHttpAtomList::Location, "/\r\nX: y"));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, a.SetHeader(CCmHttpAtomList::Set_Cookie, "c\nd", TRUE));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, a.SetHeader("X: y\r\nZ", "v"));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, a.SetHeader(CCmHttpAtomList::Content_Length, "7"));
        EXPECT_EQ(CM_ERROR_INVALID_ARG, a.SetStatus(200, "O\rK"));
        EXPECT_EQ(CM_OK, a.SetHeader(CCmHttpAtomList::Connection, "close"));
        EXPECT_EQ(CM_OK, a.AnswerText(404, "text/plain", "no"));
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, a.SetStatus(200));
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, a.Answer(nullptr));
    };
    for (const char* pSecond : {"37", "38"}) {
        m_Clock.SetWallUsec((784111740 + std::atoi(pSecond)) * int64_t{1000000});
        const auto pClient = Connect(Get("/a"));
        EXPECT_EQ(
            "HTTP/1.1 404 Not Found\r\nSet-Cookie: a=1\r\nSet-Cookie: b=2\r\nContent-Type: text/plain\r\nContent-Length: 2\r\n"
            "Date: Sun, 06 Nov 1994 08:49:"s +
                pSecond + " GMT\r\nConnection: close\r\n\r\nno",
            pClient->TakeSent());
        EXPECT_TRUE(pClient->m_bEnded);
    }
}

}  // namespace
