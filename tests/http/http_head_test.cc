#include "talvo/base/clean_up.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_request_head.h"
#include "talvo/http/message/http_response_head.h"
#include "tests/support/test.h"

namespace {

using Atoms = CCmHttpAtomList;

// Everything up to the first header.
constexpr const char* FIRST_LINE = "GET / HTTP/1.1";

std::string Headers(const std::vector<std::string>& aLines) {
    CCmHttpRequestHead head;
    head.ParseLine(FIRST_LINE);
    for (const std::string& strLine : aLines)
        EXPECT_TRUE(head.ParseLine(strLine));
    return head.Flatten().substr(std::strlen(FIRST_LINE) + 2);
}

TEST(HttpAtom, NamesAreResolvedWhateverTheirCase) {
    Atoms& list = *Atoms::Instance();
    size_t stLetters = 0;
    const auto check = [&](const CCmHttpAtom& aAtom, std::string aText) {
        EXPECT_STREQ(aAtom, aText.c_str());
        for (char& c : aText)
            c = static_cast<char>(++stLetters % 2 ? std::toupper(c) : std::tolower(c));
        EXPECT_EQ(list.ResolveAtom("  " + aText + " ", 0), aAtom);
    };
#define CM_CHECK_ATOM(aMember, aText) check(Atoms::aMember, aText);
    CM_FOR_EACH_HTTP_ATOM(CM_CHECK_ATOM)
    for (const char* pNone : {"", "   ", "X-Atom-Unheard-Of", "\tHost"})
        EXPECT_EQ(list.ResolveAtom(pNone, 0), nullptr) << pNone;
    const CCmHttpAtom atom = list.ResolveAtom(" X-First-Seen ", 1);
    EXPECT_STREQ(atom, "X-First-Seen");
    list.CleanupMutex();
    EXPECT_EQ(list.ResolveAtom("x-FIRST-seen", 1), atom);

    const Atoms copy(list);
    EXPECT_STREQ(Atoms(copy).ResolveAtom("x-first-seen", 0), "X-First-Seen");
    EXPECT_TRUE(CCmHttpAtom("a_") < CCmHttpAtom("AB") && CCmHttpAtom("Z") < CCmHttpAtom("\x80") && !(atom < atom));
    EXPECT_TRUE(CCmAtomTablesFind("hOST")(Atoms::Host) && !CCmAtomTablesFind("Hos")(Atoms::Host));
}

TEST(HttpAtom, ManyThreadsLearnOneSpelling) {
    std::vector<std::vector<const char*>> atoms(4);
    std::vector<std::thread> threads;
    for (auto& mine : atoms) {
        threads.emplace_back([&mine] {
            for (int i = 0; i < 2000; ++i)
                mine.push_back(Atoms::Instance()->ResolveAtom("X-Race-" + std::to_string(i), 1));
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (const auto& mine : atoms)
        EXPECT_EQ(mine, atoms[0]);
}

TEST(HttpAtom, BeyondTheLimitAMessageKeepsItsNames) {
    Atoms::Instance()->SetLimits(0, 0);
    EXPECT_EQ(Atoms::Instance()->ResolveAtom("X-Beyond", 1), nullptr);
    CCmHttpRequestHead copy;
    {
        CCmHttpRequestHead head;
        for (const char* pLine : {"BREW /pot HTTP/1.1", "X-Beyond: a", "X-Other: b", "x-beyond: c", "Host: h"})
            EXPECT_TRUE(head.ParseLine(pLine));
        copy = head;
        EXPECT_EQ(copy.ResolveName("X-BEYOND"), head.ResolveName("x-beyond"));
        head.Clear();
        EXPECT_EQ(head.GetMethod(), nullptr);
        EXPECT_TRUE(head.ParseLine("BREW /pot HTTP/1.1") && !head.PeekHeader(head.ResolveName("X-Beyond")));
    }
    EXPECT_EQ(copy.Flatten(), "BREW /pot HTTP/1.1\r\nX-Beyond: a, c\r\nX-Other: b\r\nHost: h\r\n");
    Atoms::Instance()->SetLimits(Atoms::DEFAULT_MAX_NAMES, Atoms::DEFAULT_MAX_BYTES);
    EXPECT_NE(Atoms::Instance()->ResolveAtom("X-Beyond", 1), copy.ResolveName("X-Beyond"));
    EXPECT_EQ(copy.GetName(0), copy.ResolveName("X-Beyond"));
}

TEST(HttpHeaderArray, LinesAreMergedAndPrinted) {
    const struct {
        std::vector<std::string> m_Lines;
        std::string m_strPrinted;
    } rows[] = {{{"content-length: 42"}, "Content-Length: 42\r\n"},
                {{"X-Foo-Merge: a", "x-foo-merge:   b  "}, "X-Foo-Merge: a, b\r\n"},
                {{"Set-Cookie: a=1", "set-cookie: b=2"}, "Set-Cookie: a=1\nb=2\r\n"},
                {{"WWW-Authenticate: A", "WWW-Authenticate: B", "Proxy-Authenticate: C", "Proxy-Authenticate: D"},
                 "WWW-Authenticate: A\nB\r\nProxy-Authenticate: C\nD\r\n"},
                {{"Host: a", "Accept: x", "Host: b", "Accept: y"}, "Host: b\r\nAccept: x, y\r\n"},
                {{"Accept-Charset: a", "Accept-Charset: b", "From: c", "From: d"}, "Accept-Charset: b\r\nFrom: d\r\n"},
                {{"Age:\t1\t", "Foo bar", "Foo2\tbar", "Foo3=bar"}, "Age: \t1\t\r\nFoo: bar\r\nFoo2: bar\r\nFoo3: bar\r\n"},
                {{":no name", "nothing", "Age:", "Age:  ", "X-Colon:b:c", "", "Host: ignored"}, "X-Colon: b:c\r\n"}};
    for (const auto& row : rows)
        EXPECT_EQ(Headers(row.m_Lines), row.m_strPrinted);
}

TEST(HttpHeaderArray, SettingRemovingAndAsking) {
    CCmHttpResponseHead head;
    for (const char* pLine : {"HTTP/1.1 401 No", "Date: 1", "Connection: close", "Set-Cookie: a", "Set-Cookie: b", "Age: 2"})
        head.ParseLine(pLine);
    EXPECT_TRUE(head.SetHeader(Atoms::Connection, "  ", 1));
    EXPECT_TRUE(head.PeekHeader(Atoms::Connection));
    EXPECT_TRUE(head.SetHeader(Atoms::Connection, "", 0));
    head.SetHeader(Atoms::Server, "s", 0);
    head.SetHeader(Atoms::Date, *head.FindHeader(Atoms::Date), 1);  // its own value
    CCmString strValue = "untouched";
    EXPECT_FALSE(head.GetHeader(Atoms::Connection, strValue));
    EXPECT_EQ(strValue, "untouched");
    EXPECT_EQ(head.Flatten(), "HTTP/1.1 401 No\r\nDate: 1, 1\r\nSet-Cookie: a\nb\r\nAge: 2\r\nServer: s\r\n");
    CCmString strSent;
    head.FlattenToSend(strSent);
    EXPECT_EQ(strSent, "HTTP/1.1 401 No\r\nDate: 1, 1\r\nSet-Cookie: a\r\nSet-Cookie: b\r\nAge: 2\r\nServer: s\r\n\r\n");

    CCmHttpHeaderArray any;
    CCmHttpAtom atom;
    EXPECT_TRUE(any.ParseHeaderLine("Host:  a ", &atom, &strValue));
    EXPECT_TRUE(atom == Atoms::Host && strValue == "  a ");
    EXPECT_FALSE(any.ParseHeaderLine(nullptr, &atom, &strValue));
    EXPECT_FALSE(any.ParseLine(FIRST_LINE));  // it knows no first line
}

TEST(HttpHead, FirstLines) {
    const struct {
        const char* m_pLine;
        const char* m_pPrinted;  // empty: refused
        const char* m_pTrace;
    } rows[] = {{"GET /a HTTP/1.1", "GET /a HTTP/1.1\r\n", ""},
                {"get /a?b#c http/1.0", "GET /a?b#c HTTP/1.0\r\n", ""},
                {"M-Other * HTTP/1.1", "M-Other * HTTP/1.1\r\n", ""},
                {"GET /a", "", "CCmHttpRequestHead::ParseFirstLine_t, unknow method. aLine=GET /a"},
                {" /a HTTP/1.1", "", "CCmHttpRequestHead::ParseFirstLine_t, unknow method. aLine= /a HTTP/1.1"},
                {"GET  /a HTTP/1.1", "", "CCmHttpRequestHead::ParseFirstLine_t, unknow method."},
                {"GET /a HTTP/1.1 ", "", "CCmHttpRequestHead::ParseFirstLine_t, unknow HTTP version. aLine=GET /a HTTP/1.1 "},
                {"HTTP/1.1 200", "HTTP/1.1 200 OK\r\n", ""},
                {"http/1.0 404 Not Found", "HTTP/1.0 404 Not Found\r\n", ""},
                {"HTTP 200 Fine", "HTTP/1.0 200 Fine\r\n", ""},
                {"HTTP/1.1", "HTTP/1.1 0 OK\r\n", ""},
                {"HTTP", "HTTP/1.0 0 OK\r\n", ""},
                {"HTTP/1.1_99999999999 ", "HTTP/1.1 2147483647 \r\n", ""},
                {"HTTP/2.0 200 OK", "", "CCmHttpResponseHead::ParseFirstLine_t, unknow HTTP version. aLine=HTTP/2.0 200 OK"},
                {"HTT", "", "CCmHttpResponseHead::ParseFirstLine_t, no HTTP ahead. aLine=HTT"},
                {"", "", "CCmHttpHeaderArray::ParseLine, no first line! this="}};
    for (const auto& row : rows) {
        CCmTraceCapture trace;
        const BOOL bResponse = row.m_pLine[0] == 'H' || row.m_pLine[0] == 'h';
        CCmHttpRequestHead request;
        CCmHttpResponseHead response;
        const BOOL bGood = bResponse ? response.ParseLine(row.m_pLine) : request.ParseLine(row.m_pLine);
        EXPECT_EQ(bGood, row.m_pPrinted[0] != '\0') << row.m_pLine;
        EXPECT_EQ(!bGood ? "" : bResponse ? response.Flatten() : request.Flatten(), row.m_pPrinted);
        EXPECT_EQ(trace.Lines().empty(), bGood);
        EXPECT_TRUE(bGood || trace.Contains(row.m_pTrace)) << row.m_pTrace;
    }
    CCmHttpRequestHead head;
    EXPECT_FALSE(head.SetMethod(Atoms::Host) || head.GetMethod() || head.SetAnyMethod("A B"));
    EXPECT_TRUE(head.SetMethod(Atoms::M_Post) && head.SetAnyMethod("PATCH"));
    const std::string strLong = "PATCH /" + std::string(5000, 'x') + " HTTP/1.1";
    EXPECT_TRUE(CCmString(head.GetMethod()) == "PATCH" && head.ParseLine(strLong) && head.Flatten() == strLong + "\r\n");
}

template <class Head>
BOOL IsPersistent(const std::string& aFirst, const std::string& aHeader) {
    Head head;
    EXPECT_TRUE(head.ParseLine(aFirst) && head.ParseLine(aHeader));
    return head.IsPersistent();
}

TEST(HttpHead, PersistenceAndLength) {
    for (const char* pHeader : {"Connection: Keep-Alive", "Proxy-Connection: keep-alive", "Connection: close", "Age: 1",
                                "Connection: keep-alive, TE", "Connection: CLOSE\t", "Proxy-Connection: x"}) {
        const std::string strHeader = pHeader;
        const BOOL bKeepAlive = strHeader.ends_with("Keep-Alive") || strHeader.ends_with("keep-alive");
        EXPECT_EQ(IsPersistent<CCmHttpRequestHead>("GET / HTTP/1.1", strHeader), bKeepAlive) << pHeader;
        EXPECT_FALSE(IsPersistent<CCmHttpRequestHead>("GET / HTTP/1.0", strHeader)) << pHeader;
        EXPECT_EQ(IsPersistent<CCmHttpResponseHead>("HTTP/1.0 200", strHeader), bKeepAlive) << pHeader;
        EXPECT_EQ(IsPersistent<CCmHttpResponseHead>("HTTP/1.1 200", strHeader),
                  strHeader != "Age: 1" && strHeader != "Connection: close")
            << pHeader;
    }
    CCmHttpResponseHead head;
    EXPECT_EQ(head.GetContentLength(), -1);
    for (const std::string_view strLength :
         {"0 abc", "12 12abc", "0 -5", "4294967296 4294967296", "12 +12", "9223372036854775807 9223372036854775807",
          "9223372036854775807 99999999999999999999"}) {
        head.SetHeader(Atoms::Content_Length, strLength.substr(strLength.find(' ')), 0);
        EXPECT_EQ(head.GetContentLength(), std::atol(strLength.data())) << strLength;
    }
    for (const long lStatus : {204, 205, 304, 100}) {
        head.SetStatus(lStatus);
        EXPECT_EQ(head.GetContentLength(), lStatus == 100 ? LONG_MAX : 0);
    }
}

}  // namespace
