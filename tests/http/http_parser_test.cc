#include "talvo/http/message/http_parser.h"

#include "tests/support/blocks.h"
#include "tests/support/test.h"

namespace {

using namespace std::string_literals;

constexpr size_t PIECES[] = {100000, 7, 3, 2, 1};

class CBodySink : public ICmTransportSink {
public:
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        m_strBody = aData.FlattenChained();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}
    std::string m_strBody = "nothing";
};

// What came of one message, fed by the piece (a call for each) or as one chain of pieces.
struct COutcome {
    CmResult m_Result = CM_ERROR_PARTIAL_DATA;
    std::string m_strHead, m_strBody, m_strLeft;
    BOOL m_bBeyondLimit = FALSE;
};

template <class Head>
COutcome Parse(const std::string& aBytes, size_t aPiece, BOOL aOneChain, const CCmHttpLimits* aLimits = nullptr) {
    Head head;
    CCmHttpParserT<Head> parser(&head);
    if (aLimits)
        parser.SetLimits(*aLimits);
    COutcome outcome;
    for (size_t stAt = 0; stAt < aBytes.size() && outcome.m_Result == CM_ERROR_PARTIAL_DATA;) {
        const std::string strCall = aOneChain ? aBytes : aBytes.substr(stAt, aPiece);
        stAt += strCall.size();
        const CCmChainPtr pChain = MakeChain(strCall, [=] { return aPiece; });
        if (!head.IsComplete())
            outcome.m_Result = parser.ParseHead(pChain.get());
        if (head.IsComplete())
            outcome.m_Result = parser.HandleContent(pChain.get());
        else if (outcome.m_Result == CM_OK)
            outcome.m_Result = CM_ERROR_PARTIAL_DATA;
        outcome.m_strLeft = (head.IsComplete() ? pChain->FlattenChained() : "") + aBytes.substr(stAt);
    }
    CBodySink sink;
    EXPECT_EQ(parser.Deliver(&sink, nullptr), CM_OK);
    EXPECT_EQ(parser.GetBody(), "");
    outcome.m_strHead = head.Flatten();
    outcome.m_strBody = sink.m_strBody;
    outcome.m_bBeyondLimit = parser.IsBeyondLimit();
    return outcome;
}

constexpr const char* KEEP = "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\n";

TEST(HttpParser, MessagesInAnyPieces) {
    const struct {
        const char* m_pName;
        std::string m_strBytes;
        CmResult m_Result;
        std::string m_strBody, m_strLeft;
    } rows[] = {
        {"RequestWithoutBody", "GET / HTTP/1.1\r\nConnection: keep-alive\r\n\r\nGET", CM_OK, "", "GET"},
        {"RequestWithBody", "POST / HTTP/1.1\nConnection: keep-alive\nContent-Length: 3\n\nabcdef", CM_OK, "abc", "def"},
        {"Length", KEEP + "Content-Length: 3\r\n\r\na\0cHTTP/1.1"s, CM_OK, "a\0c"s, "HTTP/1.1"},
        {"LengthZero", KEEP + "Content-Length: 0\r\n\r\nnext"s, CM_OK, "", "next"},
        {"NotModified", "HTTP/1.1 304 No\r\nConnection: keep-alive\r\nContent-Length: 100\r\n\r\nnext", CM_OK, "", "next"},
        {"Short", KEEP + "Content-Length: 30\r\n\r\nabc"s, CM_ERROR_PARTIAL_DATA, "abc", ""},
        {"UntilClose", KEEP + "\r\nabc"s, CM_ERROR_PARTIAL_DATA, "abc", ""},
        {"Chunked", KEEP + "Transfer-Encoding: Chunked\r\n\r\n4\r\nabcd\r\n 5;ext=1\r\nefghi\r\n0\r\nA: b\r\n\r\nnext"s, CM_OK,
         "abcdefghi", "next"},
        {"ChunkedBareLineFeeds", KEEP + "Transfer-Encoding: chunked\r\n\r\n0x1 x\na\r\n000\n\n"s, CM_OK, "a", ""},
        {"ChunkedShort", KEEP + "Transfer-Encoding: chunked\r\n\r\n4\r\nabc"s, CM_ERROR_PARTIAL_DATA, "abc", ""},
        {"TwoGigabytes", KEEP + "Content-Length: 4294967294\r\n\r\na"s, CM_ERROR_PARTIAL_DATA, "a", ""}};
    for (const auto& row : rows) {
        for (const size_t stPiece : PIECES) {
            for (const BOOL bOneChain : {FALSE, TRUE}) {
                const BOOL bResponse = row.m_strBytes[0] == 'H';
                const COutcome outcome = bResponse ? Parse<CCmHttpResponseHead>(row.m_strBytes, stPiece, bOneChain)
                                                   : Parse<CCmHttpRequestHead>(row.m_strBytes, stPiece, bOneChain);
                EXPECT_EQ(outcome.m_Result, row.m_Result) << row.m_pName << stPiece;
                EXPECT_EQ(outcome.m_strBody, row.m_strBody) << row.m_pName << stPiece;
                EXPECT_EQ(outcome.m_strLeft, row.m_strLeft) << row.m_pName << stPiece;
            }
        }
    }
}

TEST(HttpParser, RefusesInAnyPieces) {
    const std::string strChunked = KEEP + "Transfer-Encoding: chunked\r\n\r\n"s;
    const std::string DECODER = "CCmHttpChunkedDecoder::HandleChunkedContent,";
    const std::string strLength = KEEP + "Content-Length: "s;
    const std::pair<std::string, std::string> rows[] = {
        {"\r\n", "CCmHttpHeaderArray::ParseLine, no first line!"},
        {"HTTP/3 200\r\n", "CCmHttpResponseHead::ParseFirstLine_t, unknow HTTP version."},
        {strChunked + "zz\r\n", DECODER + " sscanf() failed! str=zz"},
        {strChunked + "\r\n", DECODER + " sscanf() failed! str="},
        {strChunked + "100000000\r\n", DECODER + " the size does not fit 32 bits. str=100000000"},
        {strChunked + "-1\r\n", DECODER + " the size does not fit 32 bits."},
        {strChunked + "fffffffffffffffffffff1\r\n", DECODER + " the size does not fit 32 bits."},
        {strChunked + "1\r\nab\n", DECODER + "*aBuf != '\\r', *aBuf="},
        {strChunked + "1\r\na\rb", DECODER + "*aBuf != '\\n', *aBuf="},
        {strLength + "4294967296\r\n\r\n", "CCmHttpParserT::HandleContent, the body is too large."},
        {strLength + "99999999999999999999999\r\n\r\n", "CCmHttpParserT::HandleContent, the body is too large."}};
    for (const auto& [strBytes, strTrace] : rows) {
        for (const size_t stPiece : PIECES) {
            CCmTraceCapture trace;
            EXPECT_EQ(Parse<CCmHttpResponseHead>(strBytes, stPiece, FALSE).m_Result, CM_ERROR_FAILURE) << strBytes;
            EXPECT_TRUE(trace.Contains(strTrace)) << strTrace;
        }
    }
}

TEST(HttpParser, Limits) {
    CCmHttpLimits limits;
    limits.m_dwMaxLine = 20;
    limits.m_dwMaxHeaders = 2;
    limits.m_ullMaxBody = 3;
    const struct {
        std::string m_strBytes;
        BOOL m_bGood;
    } rows[] = {{"HTTP/1.1 200 45678901\r\n", FALSE},
                {"HTTP/1.1 200 4567890\r\nA: 1\r\nA: 2\r\nContent-Length: 3\r\n", FALSE},
                {"HTTP/1.1 200 4567890\r\nA: 1\r\nContent-Length: 3\r\n\r\nabc", TRUE},
                {"HTTP/1.1 200\r\nContent-Length: 4\r\n\r\n", FALSE},
                {"HTTP/1.1 200\r\n\r\nabcd", FALSE},
                {"HTTP/1.1 200\r\nA: 45678901234567890\r", TRUE},
                {"HTTP/1.1 200\r\nA: 45678901234567890\rx", FALSE}};
    for (const auto& row : rows) {
        for (const size_t stPiece : PIECES) {
            const COutcome outcome = Parse<CCmHttpResponseHead>(row.m_strBytes, stPiece, FALSE, &limits);
            EXPECT_EQ(outcome.m_bBeyondLimit, !row.m_bGood) << row.m_strBytes << stPiece;
            EXPECT_EQ(outcome.m_Result == CM_ERROR_FAILURE, !row.m_bGood) << row.m_strBytes << stPiece;
        }
    }
    limits.m_dwMaxLine = 30;
    const std::string strChunked = "HTTP/1.1 200\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (const std::string strBody : {"4\r\nabcd", "3;456789012345678901234567890123", "0\r\na: 1\r\nb: 2\r\nc: 3\r\n"})
        EXPECT_EQ(Parse<CCmHttpResponseHead>(strChunked + strBody, 100, FALSE, &limits).m_Result, CM_ERROR_FAILURE) << strBody;
    EXPECT_EQ(Parse<CCmHttpRequestHead>("PUT / HTTP/1.1\r\nContent-Length: 67108865\r\n\r\n", 100, FALSE).m_Result,
              CM_ERROR_FAILURE);
}

TEST(HttpParser, OverrunAndEndOfStream) {
    // Not persistent: whatever stands in the block becomes part of the body.
    const COutcome outcome = Parse<CCmHttpResponseHead>("HTTP/1.1 200\r\nContent-Length: 3\r\n\r\nabcde", 1000, FALSE);
    EXPECT_EQ(outcome.m_Result, CM_OK);
    EXPECT_EQ(outcome.m_strBody, "abcde");

    const struct {
        const char* m_pHeader;
        const char* m_pBody;
        CmResult m_WithNull, m_WithBlock;
        BOOL m_bComplete;
    } rows[] = {{"Age: 1", "abc", CM_ERROR_PARTIAL_DATA, CM_OK, TRUE},
                {"Content-Length: 9", "abc", CM_ERROR_PARTIAL_DATA, CM_OK, TRUE},
                {"Transfer-Encoding: chunked", "9\r\nabc", CM_OK, CM_OK, FALSE},
                {"Transfer-Encoding: chunked", "9\r\n", CM_ERROR_PARTIAL_DATA, CM_ERROR_PARTIAL_DATA, FALSE}};
    for (const auto& row : rows) {
        CCmHttpResponseHead head;
        CCmHttpParserT<CCmHttpResponseHead> parser(&head);
        head.ParseLine("HTTP/1.1 200");
        head.ParseLine(row.m_pHeader);
        const CCmChainPtr pChain = MakeChain(row.m_pBody, [] { return 2; });
        CCmMessageBlock empty(DWORD{0});
        EXPECT_EQ(parser.HandleContent(pChain.get()), CM_ERROR_PARTIAL_DATA);
        EXPECT_EQ(pChain->GetChainedLength(), 0u);
        parser.SetEndOfStream(TRUE);
        EXPECT_EQ(parser.HandleContent(nullptr), row.m_WithNull);
        EXPECT_EQ(parser.HandleContent(&empty), row.m_WithBlock);
        EXPECT_EQ(parser.IsComplete(), row.m_bComplete);
        parser.Reset();
        EXPECT_TRUE(parser.GetBody().empty() && !parser.IsComplete() && !parser.GetTrailers());
    }
    EXPECT_EQ(CCmHttpParserT<CCmHttpRequestHead>(nullptr).ParseHead(nullptr), CM_ERROR_INVALID_ARG);
}

// The chain is left behind the last line feed, and nothing of the head is used up when it is refused.
TEST(HttpParser, WhereTheChainStands) {
    const std::pair<std::string, std::string> rows[] = {{"HTTP/1.1 200\r\nAge: 1\r\nPart", "Part"},
                                                        {"HTTP/1.1 200\r\n\r\nbody", "body"},
                                                        {"HTTP/1.1 200\r\nAge: 1\r\n", ""},
                                                        {"nonsense\r\nmore", "nonsense\r\nmore"},
                                                        {"no line", "no line"}};
    for (const auto& [strBytes, strLeft] : rows) {
        CCmHttpResponseHead head;
        CCmHttpParserT<CCmHttpResponseHead> parser(&head);
        const CCmChainPtr pChain = MakeChain(strBytes, [] { return 5; });
        parser.ParseHead(pChain.get());
        EXPECT_EQ(pChain->FlattenChained(), strLeft);
    }
}

}  // namespace
