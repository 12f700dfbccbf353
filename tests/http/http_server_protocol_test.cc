// What a server answers to which bytes, in whatever pieces they come.
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

struct CCase {
    const char* m_pName;
    std::string m_strRequest;
    const char* m_pAnswers;
};

const std::string LONGEST = "/" + std::string(66, 'a');  // its request line has 80 bytes
const std::string TO_LONGEST = "200:" + LONGEST + " ";

const CCase CASES[] = {
    {"KeptAlive", Get("/a"), "200:/a "},
    {"Pipelined", Get("/a") + Post("Content-Length: 3\r\n", "xyz") + Get("/b"), "200:/a 200:xyz 200:/b "},
    {"EmptyLinesBefore", "\r\n\n" + Get("/a") + "\r\n" + Get("/b"), "200:/a 200:/b "},
    {"BareLineFeeds", "GET /a HTTP/1.1\nHost: h\n\n", "200:/a "},
    {"CloseAsked", Get("/a", "Host: h\r\nConnection: x, Close\r\n") + Get("/b"), "200:/a end"},
    {"OldVersion", "GET /a HTTP/1.0\r\n\r\n" + Get("/b"), "200:/a end"},
    {"OldVersionKept", "GET /a HTTP/1.0\r\nConnection: keep-alive\r\n\r\n" + Get("/b"), "200:/a 200:/b "},
    {"Chunked", Post("Transfer-Encoding: chunked\r\n", "3;x=y\r\nabc\r\n2\r\nde\r\n0\r\nT: v\r\n\r\n") + Get("/b"),
     "200:abcde 200:/b "},
    {"EmptyBody", Post("", "") + Post("Content-Length: 0\r\n", "") + Get("/b"), "200: 200: 200:/b "},
    {"BodyNobodyWants", "PUT /p HTTP/1.1\r\nHost: h\r\nContent-Length: 5\r\n\r\n12345" + Get("/b"), "200:/p 200:/b "},
    {"Continue", Post("Expect: 100-Continue\r\nContent-Length: 2\r\n", "ok") + Get("/b"), "100: 200:ok 200:/b "},
    {"ContinueNotWanted", "PUT /p HTTP/1.1\r\nHost: h\r\nExpect: 100-continue\r\nContent-Length: 2\r\n\r\n" + Get("/b"),
     "200:/p end"},
    {"OtherExpectation", Post("Expect: wonders\r\n", ""), "417:417 Expectation Failed\n end"},
    {"NothingBehindARefusal", "nonsense\r\n\r\n" + Get("/b"), "400:400 Bad Request\n end"},
    {"NoHost", Get("/a", ""), "400:400 Bad Request\n end"},
    {"TwoHosts", Get("/a", "Host: h\r\nHost: h\r\n"), "400:400 Bad Request\n end"},
    {"PortThatIsNoNumber", Get("/a", "Host: a:b\r\n"), "400:400 Bad Request\n end"},
    {"PortTooHigh", Get("/a", "Host: a:65535\r\n") + Get("/b", "Host: a:065536\r\n"), "200:/a 400:400 Bad Request\n end"},
    {"TwoPorts", Get("/a", "Host: a:1:2\r\n"), "400:400 Bad Request\n end"},
    {"OpenBracket", Get("/a", "Host: [::1\r\n"), "400:400 Bad Request\n end"},
    {"NoAddressInBrackets", Get("/a", "Host: [:::1]\r\n"), "400:400 Bad Request\n end"},
    {"ZoneOfTheClient", Get("/a", "Host: [fe80::1%25eth0]\r\n"), "400:400 Bad Request\n end"},
    {"Hosts",
     Get("/a", "Host:\r\n") + Get("/b", "Host: [::1]\r\n") + Get("/c", "Host: [::1]:80\r\n") + Get("/d", "Host: h:\r\n"),
     "200:/a 200:/b 200:/c 200:/d "},
    {"OtherTargets", "OPTIONS * HTTP/1.1\r\nHost: h\r\n\r\nCONNECT h:443 HTTP/1.1\r\nHost: h\r\n\r\n" + Get("HTTP://h:80/a?b"),
     "200:* 200:h:443 200:HTTP://h:80/a?b "},
    {"AsteriskOfGet", Get("*"), "400:400 Bad Request\n end"},
    {"AuthorityOfGet", Get("example.com:443"), "400:400 Bad Request\n end"},
    {"RelativeTarget", Get("foo/bar"), "400:400 Bad Request\n end"},
    {"TargetWithoutHost", Get("http:///a"), "400:400 Bad Request\n end"},
    {"TargetWithUser", Get("http://u@h/a"), "400:400 Bad Request\n end"},
    {"Fragment", Get("/a#b"), "400:400 Bad Request\n end"},
    {"PathOfConnect", "CONNECT /a HTTP/1.1\r\nHost: h\r\n\r\n", "400:400 Bad Request\n end"},
    {"TwoLengths", Post("Content-Length: 1\r\nContent-Length: 1\r\n", "x"), "400:400 Bad Request\n end"},
    {"ListOfLengths", Post("Content-Length: 1, 1\r\n", "x"), "400:400 Bad Request\n end"},
    {"EmptyLength", Post("Content-Length:\r\n", "x"), "400:400 Bad Request\n end"},
    {"SignedLength", Post("Content-Length: +1\r\n", "x"), "400:400 Bad Request\n end"},
    {"CodingAndLength", Post("Content-Length: 1\r\nTransfer-Encoding: chunked\r\n", "x"), "400:400 Bad Request\n end"},
    {"EmptyCoding", Post("Transfer-Encoding: \t\r\n", "x"), "400:400 Bad Request\n end"},
    {"CodingOfOldVersion", "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", "400:400 Bad Request\n end"},
    {"UnknownCoding", Post("Transfer-Encoding: gzip, chunked\r\n", "x"), "501:501 Not Implemented\n end"},
    {"Identity", Post("Transfer-Encoding: identity\r\nTransfer-Encoding: chunked\r\n", "0\r\n\r\n"),
     "501:501 Not Implemented\n end"},
    {"BadChunk", Post("Transfer-Encoding: chunked\r\n", "zz\r\n"), "400:400 Bad Request\n end"},
    {"SignedChunk", Post("Transfer-Encoding: chunked\r\n", "+1\r\nx\r\n0\r\n\r\n"), "400:400 Bad Request\n end"},
    {"PrefixedChunk", Post("Transfer-Encoding: chunked\r\n", "0x1\r\nx\r\n0\r\n\r\n"), "400:400 Bad Request\n end"},
    {"ChunkAndMore", Post("Transfer-Encoding: chunked\r\n", "1 x\r\nx\r\n0\r\n\r\n"), "400:400 Bad Request\n end"},
    {"ChunkBehindSpace", Post("Transfer-Encoding: chunked\r\n", " 1\r\nx\r\n0\r\n\r\n"), "400:400 Bad Request\n end"},
    {"ChunkWithoutCr", Post("Transfer-Encoding: chunked\r\n", "1;a\nx\r\n0\r\n\r\n"), "400:400 Bad Request\n end"},
    {"BadTrailer", Post("Transfer-Encoding: chunked\r\n", "0\r\nno trailer\r\n\r\n"), "400:400 Bad Request\n end"},
    {"ChunkBeforeBlanks", Post("Transfer-Encoding: chunked\r\n", "001 \t;x\r\nx\r\n0\r\n\r\n"), "200:x "},
    {"FoldedTrailer", Post("Transfer-Encoding: chunked\r\n", "0\r\nT: v\r\n w\r\n\r\n"), "400:400 Bad Request\n end"},
    {"FoldedLine", Get("/a", "Host: h\r\nX: a\r\n b\r\n"), "400:400 Bad Request\n end"},
    {"SpaceBeforeColon", Get("/a", "Host: h\r\nX : a\r\n"), "400:400 Bad Request\n end"},
    {"NoColon", Get("/a", "Host: h\r\nX=a\r\n"), "400:400 Bad Request\n end"},
    {"CrInValue", Get("/a", "Host: h\r\nX: a\rb\r\n"), "400:400 Bad Request\n end"},
    {"NulInValue", Get("/a", "Host: h\r\nX: a\0b\r\n"s), "400:400 Bad Request\n end"},
    {"ControlInTarget", Get("/a\1"), "400:400 Bad Request\n end"},
    {"TwoSpaces", Get(" /a"), "400:400 Bad Request\n end"},
    {"NoVersion", "GET /a\r\n\r\n", "400:400 Bad Request\n end"},
    {"LaterMinorVersion", "GET /a HTTP/1.2\r\nHost: h\r\n\r\n" + Get("/b") + "GET /c HTTP/1.9\r\n\r\n",
     "200:/a 200:/b 400:400 Bad Request\n end"},
    {"OtherVersion", "GET /a HTTP/2.0\r\nHost: h\r\n\r\n", "505:505 HTTP Version Not Supported\n end"},
    {"LongestTarget", Get(LONGEST), TO_LONGEST.c_str()},
    {"LongTarget", Get(LONGEST + "a"), "414:414 URI Too Long\n end"},
    {"LongLine", Get("/a", "Host: h\r\nX: " + std::string(100, 'a') + "\r\n"), "431:431 Request Header Fields Too Large\n end"},
    {"ManyLines", Get("/a", "Host: h\r\nA: 1\r\nB: 2\r\nC: 3\r\nD: 4\r\n"), "431:431 Request Header Fields Too Large\n end"},
    {"LongHead", Get("/" + std::string(60, 'a'), "Host: h\r\nX: " + std::string(60, 'a') + "\r\nY: b\r\n"),
     "431:431 Request Header Fields Too Large\n end"},
    {"LongBody", Post("Content-Length: 11\r\n", ""), "413:413 Content Too Large\n end"},
    {"HugeLength", Post("Content-Length: 9999999999999999999\r\n", ""), "413:413 Content Too Large\n end"},
    {"LongChunks", Post("Transfer-Encoding: chunked\r\n", "6\r\nabcdef\r\n5\r\n"), "413:413 Content Too Large\n end"},
};

TEST_F(HttpServerTest, AnswersInWhateverPieces) {
    Set(CM_OPT_CHANNEL_SERVER_MAX_LINE, DWORD{80});
    Set(CM_OPT_CHANNEL_SERVER_MAX_LINES, DWORD{4});
    Set(CM_OPT_CHANNEL_SERVER_MAX_HEAD, DWORD{140});
    Set(CM_OPT_CHANNEL_SERVER_MAX_BODY, uint64_t{10});
    for (const CCase& test : CASES) {
        for (const size_t stPiece : {size_t{100000}, size_t{7}, size_t{1}}) {
            const auto pClient = Connect();
            pClient->Receive(test.m_strRequest, stPiece);
            EXPECT_EQ(test.m_pAnswers, pClient->TakeAnswers()) << test.m_pName << " in pieces of " << stPiece;
            pClient->Vanish();
            m_Requests.clear();
        }
    }
}

TEST_F(HttpServerTest, AnswersThatFollowEachOtherLeaveTogether) {
    const auto pClient = Connect();
    pClient->Receive(Get("/a") + Get("/b") + Get("/c"));
    EXPECT_EQ(1u, pClient->m_Sends.size());
    EXPECT_EQ("200:/a 200:/b 200:/c ", pClient->TakeAnswers());
}

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
    const auto pClient = Connect();
    pClient->Receive(Get("/a"));
    std::string strSent = pClient->TakeSent();
    const size_t stDate = strSent.find("Date: ");
    ASSERT_NE(std::string::npos, stDate);
    strSent.erase(stDate, strSent.find("\r\n", stDate) + 2 - stDate);
    EXPECT_EQ(
        "HTTP/1.1 404 Not Found\r\nSet-Cookie: a=1\r\nSet-Cookie: b=2\r\nContent-Type: text/plain\r\n"
        "Content-Length: 2\r\nConnection: close\r\n\r\nno",
        strSent);
    EXPECT_TRUE(pClient->m_bEnded);
}

TEST_F(HttpServerTest, AnswersWithoutABody) {
    long lStatus = 200;
    m_Request = [&](ICmChannelHttpServer& a) { a.AnswerText(lStatus, "text/plain", "body"); };
    const auto pClient = Connect();
    pClient->Receive("HEAD / HTTP/1.1\r\nHost: h\r\n\r\n");
    const std::string strHead = pClient->TakeSent();
    EXPECT_NE(std::string::npos, strHead.find("Content-Length: 4\r\n"));
    EXPECT_TRUE(strHead.ends_with("\r\n\r\n"));
    for (const long lEmpty : {204L, 304L}) {
        lStatus = lEmpty;
        pClient->Receive(Get("/a"));
        const std::string strSent = pClient->TakeSent();
        EXPECT_EQ(std::string::npos, strSent.find("Content-Length"));
        EXPECT_TRUE(strSent.ends_with("\r\n\r\n"));
    }
    lStatus = 205;
    pClient->Receive(Get("/a"));
    EXPECT_EQ("205: ", pClient->TakeAnswers());
}

}  // namespace
