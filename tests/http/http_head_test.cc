#include "talvo/base/clean_up.h"
#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_framing.h"
#include "talvo/http/message/http_text.h"
#include "tests/support/test.h"

namespace {

using talvo::EHttpBody;
using Atoms = CCmHttpAtomList;
using namespace std::string_view_literals;

// Of lines that end at line feeds; the result of the last one.
template <class Head>
BOOL Read(Head& aHead, const std::string& aLines) {
    BOOL bGood = TRUE;
    for (size_t stAt = 0, stEnd = 0; stEnd != std::string::npos; stAt = stEnd + 1) {
        stEnd = aLines.find('\n', stAt);
        bGood = aHead.ParseLine(aLines.substr(stAt, stEnd == std::string::npos ? stEnd : stEnd - stAt));
    }
    return bGood;
}

template <class Head>
Head MakeHead(const std::string& aLines) {
    Head head;
    EXPECT_TRUE(Read(head, aLines)) << aLines;
    return head;
}

TEST(HttpAtom, NamesAreResolvedWhateverTheirCase) {
    Atoms& list = *Atoms::Instance();
    size_t stLetters = 0;
    const auto check = [&](const CCmHttpAtom& aAtom, std::string aText) {
        EXPECT_STREQ(aAtom, aText.c_str());
        for (char& c : aText)
            c = static_cast<char>(++stLetters % 2 ? std::toupper(c) : std::tolower(c));
        EXPECT_EQ(list.ResolveAtom("  " + aText + " ", 0), aAtom);
        for (size_t i = 0; i < aText.size(); ++i) {  // one other byte gives another name
            for (const char cBit : {'\1', '\x20', '\x80'}) {
                std::string strOther = aText;
                strOther[i] = static_cast<char>(strOther[i] ^ cBit);
                EXPECT_EQ(list.ResolveAtom(strOther, 0) == aAtom, cBit == '\x20' && std::isalpha(aText[i])) << strOther;
            }
        }
    };
#define CM_CHECK_ATOM(aMember, aText) check(Atoms::aMember, aText);
    CM_FOR_EACH_HTTP_ATOM(CM_CHECK_ATOM)
    for (const char* pNone : {"", "   ", "X-Atom-Unheard-Of", "\tHost"})
        EXPECT_EQ(list.ResolveAtom(pNone, 0), nullptr) << pNone;
    EXPECT_NE(list.ResolveAtom("X-[", 1), list.ResolveAtom("X-{", 1));  // no letters, although they differ in the same bit
    EXPECT_NE(list.ResolveAtom("X-@", 1), list.ResolveAtom("X-`", 1));
    const CCmHttpAtom atom = list.ResolveAtom(" X-First-Seen ", 1);
    EXPECT_STREQ(atom, "X-First-Seen");
    list.CleanupMutex();
    EXPECT_EQ(list.ResolveAtom("x-FIRST-seen", 1), atom);

    const Atoms copy(list);
    EXPECT_STREQ(Atoms(copy).ResolveAtom("x-first-seen", 0), "X-First-Seen");
    EXPECT_TRUE(CCmHttpAtom("a_") < CCmHttpAtom("AB") && CCmHttpAtom("Z") < CCmHttpAtom("\x80") && !(atom < atom));
    EXPECT_TRUE(CCmAtomTablesFind("hOST")(Atoms::Host) && !CCmAtomTablesFind("Hos")(Atoms::Host));
}

TEST(HttpAtom, BeyondTheLimitAMessageKeepsItsNames) {
    static int s_nRuns = 0;  // the process stores a name for good
    const std::string strRun = std::to_string(++s_nRuns), strName = "X-Beyond" + strRun;
    Atoms::Instance()->SetLimits(0, 0);
    EXPECT_EQ(Atoms::Instance()->ResolveAtom(strName, 1), nullptr);
    CCmHttpRequestHead copy;
    {
        CCmHttpRequestHead head;
        const std::string lines[] = {"BREW /pot HTTP/1.1", strName + ": a", "X-Other: b", "x-beyond" + strRun + ": c",
                                     "Host: h"};
        for (const std::string& strLine : lines)
            EXPECT_TRUE(head.ParseLine(strLine));
        copy = head;
        EXPECT_EQ(copy.ResolveName("X-BEYOND" + strRun), head.ResolveName("x-beyond" + strRun));
        head.Clear();
        EXPECT_EQ(head.GetMethod(), nullptr);
        EXPECT_TRUE(head.ParseLine("BREW /pot HTTP/1.1") && !head.PeekHeader(head.ResolveName(strName)));
    }
    EXPECT_EQ(copy.Flatten(), "BREW /pot HTTP/1.1\r\n" + strName + ": a, c\r\nX-Other: b\r\nHost: h\r\n");
    Atoms::Instance()->SetLimits(Atoms::DEFAULT_MAX_NAMES, Atoms::DEFAULT_MAX_BYTES);
    EXPECT_NE(Atoms::Instance()->ResolveAtom(strName, 1), copy.ResolveName(strName));
    EXPECT_EQ(copy.GetName(0), copy.ResolveName(strName));
}

// An atom of a name that was not a token, or that went with its message, must not come back.
TEST(HttpAtom, ANameIsGuessedOnlyFromTheFieldsOfTheMessageBefore) {
    CCmHttpRequestHead head;
    const auto next = [&](const char* aOwn) {
        head.Clear();
        EXPECT_TRUE(head.AddField_i({}, "X-Guess-A", "1") && head.AddField_i({}, aOwn, "2"));
        head.Clear();
        return head.GuessName_i("X-Guess-A");
    };
    const CCmHttpAtom atom = Atoms::Instance()->ResolveAtom("X-Guess-A", 1);
    EXPECT_EQ(atom, next("X-Guess-B"));
    for (const auto strOther : {"x-guess-a"sv, "X-Guess-"sv, "X-Guess-AB"sv, "X-Guess-B"sv, "X-Guess-A\0\0"sv})
        EXPECT_FALSE(head.GuessName_i(strOther)) << strOther;
    EXPECT_TRUE(head.AddField_i(atom, "X-Guess-A", "3"));
    EXPECT_STREQ("X-Guess-B", head.GuessName_i("X-Guess-B"));
    EXPECT_TRUE(head.SetHeader("bad name", "4", 0));
    EXPECT_FALSE(head.GuessName_i("X-Guess-B"));
    head.Clear();
    EXPECT_FALSE(head.GuessName_i("X-Guess-A"));
    Atoms::Instance()->SetLimits(0, 0);
    EXPECT_FALSE(next("X-Own-Guess"));
    Atoms::Instance()->SetLimits(Atoms::DEFAULT_MAX_NAMES, Atoms::DEFAULT_MAX_BYTES);
}

// The lines of a head, and how they are printed or the trace of their refusal.
TEST(HttpHead, LinesAreReadAndPrinted) {
    const std::string REQUEST = "CCmHttpRequestHead::ParseFirstLine_t, ", RESPONSE = "CCmHttpResponseHead::ParseFirstLine_t, ";
    const std::pair<std::string, std::string> rows[] = {
        {"GET /a HTTP/1.1", "GET /a HTTP/1.1\r\n"},
        {"get /a?b#c http/1.0", "GET /a?b#c HTTP/1.0\r\n"},
        {"M-Other * HTTP/1.1", "M-Other * HTTP/1.1\r\n"},
        {"GET /a", REQUEST + "unknow method. aLine=GET /a"},
        {" /a HTTP/1.1", REQUEST + "unknow method. aLine= /a HTTP/1.1"},
        {"GET  /a HTTP/1.1", REQUEST + "unknow method."},
        {"GET /a HTTP/1.1 ", REQUEST + "unknow HTTP version. aLine=GET /a HTTP/1.1 "},
        {"HTTP/1.1 200", "HTTP/1.1 200 OK\r\n"},
        {"http/1.0 404 Not Found", "HTTP/1.0 404 Not Found\r\n"},
        {"HTTP 200 Fine", "HTTP/1.0 200 Fine\r\n"},
        {"HTTP/1.1", "HTTP/1.1 0 OK\r\n"},
        {"HTTP", "HTTP/1.0 0 OK\r\n"},
        {"HTTP/1.1_99999999999 ", "HTTP/1.1 2147483647 \r\n"},
        {"HTTP/2.0 200 OK", RESPONSE + "unknow HTTP version. aLine=HTTP/2.0 200 OK"},
        {"HTT", RESPONSE + "no HTTP ahead. aLine=HTT"},
        {"", "CCmHttpHeaderArray::ParseLine, no first line! this="},
        {"HTTP\nX-Foo-Merge: a\nx-foo-merge:   b  ", "HTTP/1.0 0 OK\r\nX-Foo-Merge: a, b\r\n"},
        {"HTTP\nSet-Cookie: a=1\nset-cookie: b=2", "HTTP/1.0 0 OK\r\nSet-Cookie: a=1\nb=2\r\n"},
        {"HTTP\nWWW-Authenticate: A\nWWW-Authenticate: B", "HTTP/1.0 0 OK\r\nWWW-Authenticate: A\nB\r\n"},
        {"HTTP\nProxy-Authenticate: C\nProxy-Authenticate: D", "HTTP/1.0 0 OK\r\nProxy-Authenticate: C\nD\r\n"},
        {"HTTP\nHost: a\nAccept: x\nHost: b\nAccept: y", "HTTP/1.0 0 OK\r\nHost: b\r\nAccept: x, y\r\n"},
        {"HTTP\nAccept-Charset: a\nAccept-Charset: b\nFrom: c\nFrom: d", "HTTP/1.0 0 OK\r\nAccept-Charset: b\r\nFrom: d\r\n"},
        {"HTTP\nAge:\t1\t\nFoo bar\nFoo2\tbar\nFoo3=bar",
         "HTTP/1.0 0 OK\r\nAge: \t1\t\r\nFoo: bar\r\nFoo2: bar\r\nFoo3: bar\r\n"},
        {"HTTP\n:no name\nnothing\nAge:\nAge:  \nX-Colon:b:c\n\nHost: ignored", "HTTP/1.0 0 OK\r\nX-Colon: b:c\r\n"}};
    for (const auto& [strLines, strPrinted] : rows) {
        const CCmTraceCapture trace;
        const BOOL bResponse = strLines[0] == 'H' || strLines[0] == 'h';
        CCmHttpRequestHead request;
        CCmHttpResponseHead response;
        if (bResponse ? Read(response, strLines) : Read(request, strLines)) {
            EXPECT_EQ(bResponse ? response.Flatten() : request.Flatten(), strPrinted);
            EXPECT_TRUE(trace.Lines().empty()) << strLines;
        } else {
            EXPECT_TRUE(trace.Contains(strPrinted)) << strPrinted;
        }
    }
    CCmHttpRequestHead head;
    EXPECT_FALSE(head.SetMethod(Atoms::Host) || head.GetMethod() || head.SetAnyMethod("A B"));
    EXPECT_TRUE(head.SetMethod(Atoms::M_Post) && head.SetAnyMethod("PATCH"));
    const std::string strLong = "PATCH /" + std::string(5000, 'x') + " HTTP/1.1";
    EXPECT_TRUE(CCmString(head.GetMethod()) == "PATCH" && head.ParseLine(strLong) && head.Flatten() == strLong + "\r\n");
}

TEST(HttpHeaderArray, SettingRemovingAndAsking) {
    auto head =
        MakeHead<CCmHttpResponseHead>("HTTP/1.1 401 No\nDate: 1\nConnection: close\nSet-Cookie: a\nSet-Cookie: b\nAge: 2");
    EXPECT_TRUE(head.SetHeader(Atoms::Connection, "  ", 1) && head.PeekHeader(Atoms::Connection));
    EXPECT_TRUE(head.SetHeader(Atoms::Connection, "", 0) && head.SetHeader(Atoms::Server, "s", 0));
    head.SetHeader(Atoms::Date, *head.FindHeader(Atoms::Date), 1);  // its own value
    CCmString strValue = "untouched", strSent;
    EXPECT_FALSE(head.GetHeader(Atoms::Connection, strValue));
    EXPECT_EQ(strValue, "untouched");
    head.FlattenToSend(strSent);
    EXPECT_EQ(strSent, "HTTP/1.1 401 No\r\nDate: 1, 1\r\nSet-Cookie: a\r\nSet-Cookie: b\r\nAge: 2\r\nServer: s\r\n\r\n");

    CCmHttpHeaderArray any;
    CCmHttpAtom atom;
    EXPECT_TRUE(any.ParseHeaderLine("Host:  a ", &atom, &strValue) && atom == Atoms::Host && strValue == "  a ");
    EXPECT_FALSE(any.ParseHeaderLine(nullptr, &atom, &strValue) || any.ParseLine("GET / HTTP/1.1"));  // it knows no first line
}

TEST(HttpHead, PersistenceAndLength) {
    for (const std::string strHeader : {"Connection: Keep-Alive", "Proxy-Connection: keep-alive", "Connection: close", "Age: 1",
                                        "Connection: keep-alive, TE", "Connection: CLOSE\t", "Proxy-Connection: x"}) {
        const BOOL bKeepAlive = strHeader.ends_with("Keep-Alive") || strHeader.ends_with("keep-alive");
        const BOOL bKept = strHeader != "Age: 1" && strHeader != "Connection: close";
        EXPECT_EQ(MakeHead<CCmHttpRequestHead>("GET / HTTP/1.1\n" + strHeader).IsPersistent(), bKeepAlive) << strHeader;
        EXPECT_FALSE(MakeHead<CCmHttpRequestHead>("GET / HTTP/1.0\n" + strHeader).IsPersistent()) << strHeader;
        EXPECT_EQ(MakeHead<CCmHttpResponseHead>("HTTP/1.0 200\n" + strHeader).IsPersistent(), bKeepAlive) << strHeader;
        EXPECT_EQ(MakeHead<CCmHttpResponseHead>("HTTP/1.1 200\n" + strHeader).IsPersistent(), bKept) << strHeader;
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

std::string Describe(const talvo::CHttpFraming& aFraming) {
    static const char* const KINDS[] = {"none", "length", "chunked", "until close"};
    std::string strText = aFraming.m_nError ? std::to_string(aFraming.m_nError) : KINDS[static_cast<int>(aFraming.m_Body)];
    if (!aFraming.m_nError && aFraming.m_Body == EHttpBody::LENGTH)
        strText += " " + std::to_string(aFraming.m_ullLength);
    return strText + (aFraming.m_bMustClose ? ", close" : "");
}

// "METHOD FRAMING: HEAD", where the head is that of a response, or a request's lines behind the first.
TEST(HttpFraming, FollowsFromTheHead) {
    for (const std::string strRow :
         {"POST none: Host: a", "POST length 5: Content-Length: 5, 5", "POST 400, close: Content-Length: 5, 6",
          "POST length 18446744073709551615: Content-Length: 18446744073709551615",
          "POST 400, close: Content-Length: 18446744073709551616", "POST length 5: Content-Length: 5\nContent-Length: 5",
          "POST 400, close: Content-Length: 5 5", "POST chunked: Transfer-Encoding: \tCHUNKED",
          "POST 400, close: Transfer-Encoding: chunked, gzip", "POST 501, close: Transfer-Encoding: xchunked",
          "POST 400, close: Transfer-Encoding: ,", "GET none: HTTP/1.1 205", "CONNECT none: HTTP/1.1 200\nContent-Length: 5",
          "CONNECT length 5: HTTP/1.1 300\nContent-Length: 5", "GET chunked, close: HTTP/1.0 200\nTransfer-Encoding: chunked",
          "GET length 5: HTTP/1.1 200\nTransfer-Encoding: identity\nContent-Length: 5",
          "GET 501, close: HTTP/1.1 200\nTransfer-Encoding: gzip",
          "GET 502, close: HTTP/1.1 200\nTransfer-Encoding: chunked, chunked"}) {
        const size_t stMethod = strRow.find(' '), stFraming = strRow.find(": ");
        const std::string strMethod = strRow.substr(0, stMethod), strHead = strRow.substr(stFraming + 2);
        const auto framing =
            strHead.starts_with("HTTP")
                ? talvo::get_response_framing(MakeHead<CCmHttpResponseHead>(strHead),
                                              Atoms::Instance()->ResolveAtom(strMethod, 0))
                : talvo::get_request_framing(MakeHead<CCmHttpRequestHead>(strMethod + " / HTTP/1.1\n" + strHead));
        EXPECT_EQ(Describe(framing), strRow.substr(stMethod + 1, stFraming - stMethod - 1)) << strRow;
    }
}

TEST(HttpFraming, Persistence) {
    for (const char* pHead :
         {"HTTP/1.1 200", "HTTP/1.1 200\nConnection: closed", "HTTP/1.0 200\nConnection: a\nConnection: Keep-Alive"}) {
        auto head = MakeHead<CCmHttpResponseHead>(pHead);
        EXPECT_TRUE(talvo::is_persistent(head.GetVerion(), head)) << pHead;
        head.SetHeader(Atoms::Connection, "upgrade, \tClose", 1);
        EXPECT_FALSE(talvo::is_persistent(head.GetVerion(), head)) << pHead;
    }
    EXPECT_FALSE(talvo::is_persistent(CM_HTTP_VERSION_10, CCmHttpResponseHead()));
    EXPECT_TRUE(talvo::has_token("a=\"x, b, \\\", b\" ,, b ", "B") && !talvo::has_token("a=\"x, b, \\\", b\"", "b"));
    EXPECT_TRUE(talvo::is_sendable("a\tb") && !talvo::is_sendable("a\nb") && !talvo::is_sendable("a\rb"));
}

// They look at several bytes at a time, some of them twice.
TEST(HttpHead, AControlCharacterIsFoundAnywhereInATextOfAnyLength) {
    for (size_t stSize = 1; stSize <= 40; ++stSize) {
        for (size_t stAt = 0; stAt < stSize; ++stAt) {
            for (const char c : std::string_view("\0\t\n\r\x1F ~\x7F\x80\xFF", 10)) {
                std::string strText(stSize, 'a');
                strText[stAt] = c;
                EXPECT_EQ(c == '\t' || !talvo::is_control(c), talvo::is_field_value(strText)) << stSize << ' ' << stAt;
                EXPECT_EQ(c != '\0' && c != '\n' && c != '\r', talvo::is_sendable(strText)) << stSize << ' ' << stAt;
            }
        }
    }
}

}  // namespace
