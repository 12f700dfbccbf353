#include "talvo/http/message/http_parser.h"

#include <random>

#include "tests/support/blocks.h"
#include "tests/support/test.h"

namespace {

using namespace std::string_literals;

class CBodySink : public ICmTransportSink {
public:
    void OnReceive(CCmMessageBlock& aData, ICmTransport*, CCmTransportParameter*) override {
        m_strBody = aData.FlattenChained();
    }
    void OnSend(ICmTransport*, CCmTransportParameter*) override {}
    void OnDisconnect(CmResult, ICmTransport*) override {}
    std::string m_strBody = "nothing";
};

// The outcome of one message, fed by the piece (a call for each) or as one chain of pieces: "BODY|LEFT", with "..." behind it
// if more must follow; "broken: " or "beyond: ", a limit, if it is refused.
template <class Head>
std::string Parse(const std::string& aBytes, size_t aPiece, BOOL aOneChain, const CCmHttpLimits* aLimits) {
    Head head;
    CCmHttpParserT<Head> parser(&head);
    if (aLimits)
        parser.SetLimits(*aLimits);
    CmResult rv = CM_ERROR_PARTIAL_DATA;
    std::string strLeft;
    for (size_t stAt = 0; stAt < aBytes.size() && rv == CM_ERROR_PARTIAL_DATA;) {
        const std::string strCall = aOneChain ? aBytes : aBytes.substr(stAt, aPiece);
        stAt += strCall.size();
        const CCmChainPtr pChain = MakeChain(strCall, [=] { return aPiece; });
        if (!head.IsComplete())
            rv = parser.ParseHead(pChain.get());
        if (head.IsComplete())
            rv = parser.HandleContent(pChain.get());
        else if (rv == CM_OK)
            rv = CM_ERROR_PARTIAL_DATA;
        strLeft = (head.IsComplete() ? pChain->FlattenChained() : "") + aBytes.substr(stAt);
    }
    CBodySink sink;
    EXPECT_EQ(parser.Deliver(&sink, nullptr), CM_OK);
    EXPECT_EQ(parser.GetBody(), "");
    if (rv == CM_ERROR_FAILURE)
        return parser.IsBeyondLimit() ? "beyond: " : "broken: ";
    return sink.m_strBody + "|" + strLeft + (rv == CM_OK ? "" : "...");
}

// aOutcome has a part of the trace of a refusal, too.
void Check(const std::string& aBytes, const std::string& aOutcome, const CCmHttpLimits* aLimits = nullptr) {
    const BOOL bResponse = aBytes[0] != 'G' && aBytes[0] != 'P';
    for (const size_t stPiece : {size_t{100000}, size_t{7}, size_t{3}, size_t{2}, size_t{1}}) {
        for (const BOOL bOneChain : {FALSE, TRUE}) {
            SCOPED_TRACE(aBytes + " in pieces of " + std::to_string(stPiece));
            const CCmTraceCapture trace;
            const std::string strOutcome = bResponse ? Parse<CCmHttpResponseHead>(aBytes, stPiece, bOneChain, aLimits)
                                                     : Parse<CCmHttpRequestHead>(aBytes, stPiece, bOneChain, aLimits);
            if (strOutcome.ends_with(": "))
                EXPECT_TRUE(aOutcome.starts_with(strOutcome) && trace.Contains(aOutcome.substr(8))) << aOutcome;
            else
                EXPECT_EQ(aOutcome, strOutcome);
        }
    }
}

TEST(HttpParser, MessagesInAnyPieces) {
    const std::string strKeep = "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\n";
    const std::string strChunked = strKeep + "Transfer-Encoding: chunked\r\n\r\n", strLength = strKeep + "Content-Length: ";
    const std::string strDecoder = "broken: CCmHttpChunkedDecoder::HandleChunkedContent,";
    const std::pair<std::string, std::string> rows[] = {
        {"GET / HTTP/1.1\r\nConnection: keep-alive\r\n\r\nGET", "|GET"},
        {"POST / HTTP/1.1\nConnection: keep-alive\nContent-Length: 3\n\nabcdef", "abc|def"},
        {strLength + "3\r\n\r\na\0cHTTP/1.1"s, "a\0c|HTTP/1.1"s},
        {strLength + "0\r\n\r\nnext", "|next"},
        {"HTTP/1.1 304 No\r\nConnection: keep-alive\r\nContent-Length: 100\r\n\r\nnext", "|next"},
        {strLength + "30\r\n\r\nabc", "abc|..."},
        {strLength + "4294967294\r\n\r\na", "a|..."},
        {strKeep + "\r\nabc", "abc|..."},
        {strChunked + "4\r\nabcd\r\n 5;ext=1\r\nefghi\r\n0\r\nA: b\r\n\r\nnext", "abcdefghi|next"},
        {strChunked + "0x1 x\na\r\n000\n\n", "a|"},
        {strChunked + "0aB\r\n" + std::string(171, 'c') + "\r\n0000000000\r\n\r\n", std::string(171, 'c') + "|"},
        {strChunked + "4\r\nabc", "abc|..."},
        {"\r\n", "broken: CCmHttpHeaderArray::ParseLine, no first line!"},
        {"HTTP/3 200\r\n", "broken: CCmHttpResponseHead::ParseFirstLine_t, unknow HTTP version."},
        {strChunked + "zz\r\n", strDecoder + " sscanf() failed! str=zz"},
        {strChunked + "\r\n", strDecoder + " sscanf() failed! str="},
        {strChunked + "100000000\r\n", strDecoder + " the size does not fit 32 bits. str=100000000"},
        {strChunked + "-1\r\n", strDecoder + " the size does not fit 32 bits."},
        {strChunked + "fffffffffffffffffffff1\r\n", strDecoder + " the size does not fit 32 bits."},
        {strChunked + "1\r\nab\n", strDecoder + "*aBuf != '\\r', *aBuf="},
        {strChunked + "1\r\na\rb", strDecoder + "*aBuf != '\\n', *aBuf="},
        {strLength + "4294967296\r\n\r\n", "beyond: CCmHttpParserT::HandleContent, the body is too large."},
        {strLength + "99999999999999999999999\r\n\r\n", "beyond: CCmHttpParserT::HandleContent, the body is too large."},
        {"PUT / HTTP/1.1\r\nContent-Length: 67108865\r\n\r\n",
         "beyond: CCmHttpParserT::HandleContent, the body is too large."}};
    for (const auto& [strBytes, strOutcome] : rows)
        Check(strBytes, strOutcome);
}

// Lines of any length in any blocks, and values in the storage of earlier ones: as if each line was parsed alone.
TEST(HttpParser, LinesOfAnyLength) {
    std::mt19937 random(1);
    CCmHttpResponseHead head;
    CCmHttpParserT<CCmHttpResponseHead> parser(&head);
    for (int i = 0; i < 300; ++i) {
        CCmHttpResponseHead alone;
        std::string strBytes;
        const auto add = [&](const std::string& aLine) {
            EXPECT_TRUE(alone.ParseLine(aLine));
            strBytes += aLine + "\r\n";
        };
        add("HTTP/1.1 200 " + std::string(random() % 150, 'x'));
        for (auto n = random() % 8; n > 0; --n)
            add("X-" + std::string(random() % 70, 'n') + ":" + std::string(random() % 150, "av:"[random() % 3]));
        add("");
        head.Clear();
        parser.Reset();
        const CCmChainPtr pChain = MakeChain(strBytes, [&] { return random() % 200 + 1; });
        EXPECT_EQ(parser.ParseHead(pChain.get()), CM_OK);
        EXPECT_TRUE(head.IsComplete() && head.Flatten() == alone.Flatten() && pChain->GetChainedLength() == 0) << strBytes;
    }
}

TEST(HttpParser, Limits) {
    CCmHttpLimits limits;
    limits.m_dwMaxLine = 30;
    limits.m_dwMaxHeaders = 2;
    limits.m_ullMaxBody = 3;
    const std::string strChunked = "HTTP/1.1 200\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string strLine = "HTTP/1.1 200 45678901234567890";
    const std::pair<std::string, std::string> rows[] = {
        {strLine + "1\r\n", "beyond: ParseHead, a line is too long."},
        {strLine + "\r\nA: 1\r\nA: 2\r\nContent-Length: 3\r\n", "beyond: ParseHead, there are too many headers."},
        {strLine + "\r\nA: 1\r\nContent-Length: 3\r\n\r\nabc", "abc|"},
        {"HTTP/1.1 200\r\nContent-Length: 4\r\n\r\n", "beyond: HandleContent, the body is too large."},
        {"HTTP/1.1 200\r\n\r\nabcd", "beyond: HandleContent, the body is too large."},
        {"HTTP/1.1 200\r\nA: 456789012345678901234567890\r", "|..."},
        {"HTTP/1.1 200\r\nA: 456789012345678901234567890\rx", "beyond: ParseHead, a line is too long."},
        {strChunked + "4\r\nabcd", "beyond: HandleContent, the body is too large."},
        {strChunked + "3;456789012345678901234567890123", "broken: "},
        {strChunked + "0\r\na: 1\r\nb: 2\r\nc: 3\r\n", "broken: "}};
    for (const auto& [strBytes, strOutcome] : rows)
        Check(strBytes, strOutcome, &limits);
}

TEST(HttpParser, OverrunAndEndOfStream) {
    // Not persistent: the rest of the block becomes part of the body.
    EXPECT_EQ("abcde|", Parse<CCmHttpResponseHead>("HTTP/1.1 200\r\nContent-Length: 3\r\n\r\nabcde", 1000, FALSE, nullptr));

    // Header and body, the results for null and for a block behind the end, and whether that completes the body.
    const std::tuple<const char*, const char*, CmResult, CmResult, BOOL> rows[] = {
        {"Age: 1", "abc", CM_ERROR_PARTIAL_DATA, CM_OK, TRUE},
        {"Content-Length: 9", "abc", CM_ERROR_PARTIAL_DATA, CM_OK, TRUE},
        {"Transfer-Encoding: chunked", "9\r\nabc", CM_OK, CM_OK, FALSE},
        {"Transfer-Encoding: chunked", "9\r\n", CM_ERROR_PARTIAL_DATA, CM_ERROR_PARTIAL_DATA, FALSE}};
    for (const auto& [pHeader, pBody, withNull, withBlock, bComplete] : rows) {
        CCmHttpResponseHead head;
        CCmHttpParserT<CCmHttpResponseHead> parser(&head);
        head.ParseLine("HTTP/1.1 200");
        head.ParseLine(pHeader);
        const CCmChainPtr pChain = MakeChain(pBody, [] { return 2; });
        CCmMessageBlock empty(DWORD{0});
        EXPECT_EQ(parser.HandleContent(pChain.get()), CM_ERROR_PARTIAL_DATA);
        EXPECT_EQ(pChain->GetChainedLength(), 0u);
        parser.SetEndOfStream(TRUE);
        EXPECT_EQ(parser.HandleContent(nullptr), withNull);
        EXPECT_EQ(parser.HandleContent(&empty), withBlock);
        EXPECT_EQ(parser.IsComplete(), bComplete);
        parser.Reset();
        EXPECT_TRUE(parser.GetBody().empty() && !parser.IsComplete() && !parser.GetTrailers());
    }
    EXPECT_EQ(CCmHttpParserT<CCmHttpRequestHead>(nullptr).ParseHead(nullptr), CM_ERROR_INVALID_ARG);
}

}  // namespace
