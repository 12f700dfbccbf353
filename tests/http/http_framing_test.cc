#include "talvo/http/message/http_framing.h"

#include "talvo/http/message/http_atom_list.h"
#include "talvo/http/message/http_chunk.h"
#include "talvo/http/message/http_date.h"
#include "talvo/http/message/http_text.h"
#include "tests/support/blocks.h"
#include "tests/support/test.h"

namespace {

using talvo::EHttpBody;
using Atoms = CCmHttpAtomList;

template <class Head>
Head MakeHead(const std::string& aLines) {
    Head head;
    for (size_t stAt = 0, stEnd; stAt < aLines.size(); stAt = stEnd + 1) {
        stEnd = std::min(aLines.find('\n', stAt), aLines.size());
        head.ParseLine(aLines.substr(stAt, stEnd - stAt));
    }
    return head;
}

std::string Describe(const talvo::CHttpFraming& aFraming) {
    static const char* const KINDS[] = {"none", "length", "chunked", "until close"};
    std::string strText = aFraming.m_nError ? std::to_string(aFraming.m_nError) : KINDS[static_cast<int>(aFraming.m_Body)];
    if (!aFraming.m_nError && aFraming.m_Body == EHttpBody::LENGTH)
        strText += " " + std::to_string(aFraming.m_ullLength);
    return strText + (aFraming.m_bMustClose ? ", close" : "");
}

TEST(HttpFraming, Requests) {
    for (const char* pRow : {"none: Host: a",
                             "length 0: Content-Length: 0",
                             "length 5: Content-Length: 5, 5",
                             "400, close: Content-Length: 5, 6",
                             "length 18446744073709551615: Content-Length: 18446744073709551615",
                             "400, close: Content-Length: 18446744073709551616",
                             "length 5: Content-Length: 5\nContent-Length: 5",
                             "400, close: Content-Length: 5\nContent-Length: 6",
                             "400, close: Content-Length:\nContent-Length: 6",
                             "400, close: Content-Length: +5",
                             "400, close: Content-Length: 5 5",
                             "400, close: Content-Length: 0x5",
                             "chunked: Transfer-Encoding: \tCHUNKED",
                             "400, close: Transfer-Encoding:",
                             "400, close: Transfer-Encoding: chunked\nContent-Length: 5",
                             "501, close: Transfer-Encoding: gzip, chunked",
                             "501, close: Transfer-Encoding: identity, chunked",
                             "400, close: Transfer-Encoding: chunked\nTransfer-Encoding: chunked",
                             "400, close: Transfer-Encoding: chunked, gzip",
                             "501, close: Transfer-Encoding: xchunked",
                             "400, close: Transfer-Encoding: ,"}) {
        const std::string strRow = pRow;
        const auto request = MakeHead<CCmHttpRequestHead>("GET / HTTP/1.1\n" + strRow.substr(strRow.find(": ") + 2));
        EXPECT_EQ(Describe(talvo::get_request_framing(request)), strRow.substr(0, strRow.find(": "))) << strRow;
    }
    const auto head = MakeHead<CCmHttpRequestHead>("GET / HTTP/1.0\nTransfer-Encoding: chunked");
    EXPECT_EQ(Describe(talvo::get_request_framing(head)), "400, close");
}

TEST(HttpFraming, Responses) {
    for (const char* pRow :
         {"GET until close, close: HTTP/1.1 200", "GET length 5: HTTP/1.1 200\nContent-Length: 5",
          "HEAD none: HTTP/1.1 200\nContent-Length: 5", "GET none: HTTP/1.1 100\nContent-Length: 5",
          "GET none: HTTP/1.1 204\nTransfer-Encoding: chunked", "GET none: HTTP/1.1 304\nContent-Length: 5",
          "GET none: HTTP/1.1 205", "CONNECT none: HTTP/1.1 200\nContent-Length: 5",
          "CONNECT length 5: HTTP/1.1 407\nContent-Length: 5", "GET chunked: HTTP/1.1 200\nTransfer-Encoding: chunked",
          "GET chunked, close: HTTP/1.1 200\nTransfer-Encoding: chunked\nContent-Length: 5",
          "GET chunked, close: HTTP/1.0 200\nTransfer-Encoding: chunked",
          "GET length 5: HTTP/1.1 200\nTransfer-Encoding: identity\nContent-Length: 5",
          "GET 501, close: HTTP/1.1 200\nTransfer-Encoding: gzip",
          "GET 502, close: HTTP/1.1 200\nTransfer-Encoding: chunked, chunked",
          "GET 502, close: HTTP/1.1 200\nContent-Length: 5\nContent-Length: 4"}) {
        const std::string strRow = pRow;
        const size_t stMethod = strRow.find(' '), stFraming = strRow.find(": ");
        const CCmHttpAtom method = Atoms::Instance()->ResolveAtom(strRow.substr(0, stMethod), 0);
        const auto head = MakeHead<CCmHttpResponseHead>(strRow.substr(stFraming + 2));
        EXPECT_EQ(Describe(talvo::get_response_framing(head, method)), strRow.substr(stMethod + 1, stFraming - stMethod - 1))
            << strRow;
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

// Collects the body and stops after so many pieces; what it sees must lie in the storage that arrived.
class CCollector : public talvo::CHttpBodySink {
public:
    BOOL OnBody(CCmMessageBlock& aView) override {
        EXPECT_GT(aView.GetTopLevelLength(), 0u);
        m_strBody += aView.FlattenChained();
        m_pLast = aView.GetTopLevelReadPtr();
        return --m_nPieces != 0;
    }
    std::string m_strBody;
    const char* m_pLast = nullptr;
    int m_nPieces = -1;
};

// A chunked body as make_chunk writes it, cut at random, is read back whole, and what follows it stays.
TEST(HttpBody, WrittenCutAndReadAgain) {
    std::mt19937 random(1);
    for (int nRun = 0; nRun < 200; ++nRun) {
        std::string strBody, strWire;
        for (DWORD i = random() % 5; i > 0; --i) {
            const std::string strPiece(1 + random() % 300, static_cast<char>('a' + i));
            const CCmChainPtr pPayload(MakeBlock(strPiece.substr(0, strPiece.size() / 2)));
            pPayload->Append(MakeBlock(strPiece.substr(strPiece.size() / 2)));
            const CCmChainPtr pChunk(talvo::make_chunk(*pPayload));
            strBody += strPiece;
            strWire += pChunk->FlattenChained();
            EXPECT_EQ(pChunk->GetNext()->GetTopLevelReadPtr(), pPayload->GetTopLevelReadPtr());
        }
        strWire.append(talvo::HTTP_LAST_CHUNK).append("next");
        talvo::CHttpBodyReader reader;
        CCollector sink;
        reader.Begin(EHttpBody::CHUNKED);
        std::string strLeft;
        for (size_t stAt = 0, stLength; stAt < strWire.size(); stAt += stLength) {
            stLength = random() % 40;
            const CCmChainPtr pBlock(MakeBlock(strWire.substr(stAt, stLength)));
            EXPECT_NE(reader.Feed(*pBlock, sink), CM_ERROR_FAILURE);
            strLeft += pBlock->FlattenChained();
        }
        EXPECT_TRUE(reader.IsComplete() && strLeft == "next" && sink.m_strBody == strBody);
        EXPECT_EQ(reader.GetReceived(), strBody.size());
    }
    EXPECT_EQ(talvo::make_chunk(CCmMessageBlock(DWORD{0})), nullptr);
}

TEST(HttpBody, EndsStopsAndLimits) {
    CCmHttpLimits limits;
    limits.m_ullMaxBody = 5;
    const struct {
        EHttpBody m_Kind;
        uint64_t m_ullLength;
        const char* m_pBytes;
        CmResult m_Fed, m_Ended;
        const char* m_pBody;
        const char* m_pLeft;
    } rows[] = {
        {EHttpBody::NONE, 0, "next", CM_OK, CM_OK, "", "next"},
        {EHttpBody::LENGTH, 0, "next", CM_OK, CM_OK, "", "next"},
        {EHttpBody::LENGTH, 3, "abcnext", CM_OK, CM_OK, "abc", "next"},
        {EHttpBody::LENGTH, 5, "abc", CM_ERROR_PARTIAL_DATA, CM_ERROR_NETWORK_HTTP_FAILURE, "abc", ""},
        {EHttpBody::LENGTH, 6, "abcdef", CM_ERROR_FAILURE, CM_ERROR_NETWORK_HTTP_FAILURE, "", "abcdef"},
        {EHttpBody::UNTIL_CLOSE, 0, "abc", CM_ERROR_PARTIAL_DATA, CM_OK, "abc", ""},
        {EHttpBody::UNTIL_CLOSE, 0, "abcdef", CM_ERROR_FAILURE, CM_ERROR_NETWORK_HTTP_FAILURE, "", "abcdef"},
        {EHttpBody::CHUNKED, 0, "2\r\nab\r\n", CM_ERROR_PARTIAL_DATA, CM_ERROR_NETWORK_HTTP_FAILURE, "ab", ""},
        {EHttpBody::CHUNKED, 0, "2\r\nab\r\n4\r\ncdef\r\n", CM_ERROR_FAILURE, CM_ERROR_NETWORK_HTTP_FAILURE, "ab", "cdef\r\n"},
        {EHttpBody::CHUNKED, 0, "2\r\nab\r\nx", CM_ERROR_PARTIAL_DATA, CM_ERROR_NETWORK_HTTP_FAILURE, "ab", ""},
        {EHttpBody::CHUNKED, 0, "2\r\nabx", CM_ERROR_FAILURE, CM_ERROR_NETWORK_HTTP_FAILURE, "ab", "x"}};
    talvo::CHttpBodyReader reader;
    reader.SetLimits(limits);
    for (const auto& row : rows) {
        CCollector sink;
        const CCmChainPtr pBlock(MakeBlock(row.m_pBytes));
        reader.Begin(row.m_Kind, row.m_ullLength);
        EXPECT_EQ(reader.Feed(*pBlock, sink), row.m_Fed) << row.m_pBytes;
        EXPECT_EQ(sink.m_strBody, row.m_pBody);
        EXPECT_EQ(pBlock->FlattenChained(), row.m_pLeft);
        EXPECT_EQ(reader.IsBeyondLimit(), row.m_pBytes[std::strlen(row.m_pBytes) - 1] != 'x' && row.m_Fed == CM_ERROR_FAILURE);
        EXPECT_EQ(reader.EndOfStream(), row.m_Ended) << row.m_pBytes;
    }
    CCollector sink;
    sink.m_nPieces = 1;
    const CCmChainPtr pBlock(MakeBlock("abcdef"));
    reader.Begin(EHttpBody::LENGTH, 4);
    EXPECT_EQ(reader.Feed(*pBlock, sink), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(sink.m_pLast + 4, pBlock->GetTopLevelReadPtr());
}

TEST(HttpDate, FormsAndFaults) {
    CCmFakeClock clock;
    for (const std::string strRow :
         {"784111777 Sun, 06 Nov 1994 08:49:37 GMT", "784111777 Sunday, 06-Nov-94 08:49:37 GMT",
          "784111777 Sun Nov  6 08:49:37 1994", "1709251200 Thu, 29 Feb 2024 23:59:60 GMT",
          "-62135596800 Mon, 01 Jan 0001 00:00:00 GMT", "253402300799 Fri, 31 Dec 9999 23:59:59 GMT"}) {
        int64_t llParsed = 1;
        EXPECT_TRUE(talvo::parse_http_date(strRow.substr(strRow.find(' ')), llParsed)) << strRow;
        EXPECT_EQ(llParsed, std::atoll(strRow.c_str())) << strRow;
    }
    EXPECT_EQ(talvo::format_http_date(784111777), "Sun, 06 Nov 1994 08:49:37 GMT");
    EXPECT_EQ(talvo::format_http_date(INT64_MAX), "Fri, 31 Dec 9999 23:59:59 GMT");
    int64_t llParsed = 42;
    for (const char* pText :
         {"", "Sun, 06 Nov 1994 08:49:37", "Sun, 31 Feb 1994 08:49:37 GMT", "Sun, 06 Now 1994 08:49:37 GMT",
          "Sun, 06 Nov 1994 24:00:00 GMT", "Sun, 06 Nov 1994 08:49:37 GMT x", "784111777", "Sun Nov  6 08:49:37 -994"})
        EXPECT_FALSE(talvo::parse_http_date(pText, llParsed)) << pText;
    EXPECT_EQ(llParsed, 42);
}

}  // namespace
