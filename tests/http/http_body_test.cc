#include "talvo/http/message/http_body.h"

#include "talvo/http/message/http_chunk.h"
#include "talvo/http/message/http_date.h"
#include "tests/support/blocks.h"
#include "tests/support/test.h"

namespace {

using talvo::EHttpBody;

// Collects the body and stops after so many pieces.
class CCollector : public talvo::CHttpBodySink {
public:
    BOOL OnBody(CCmMessageBlock& aView) override {
        m_strBody += aView.FlattenChained();
        m_pLast = aView.GetTopLevelReadPtr();
        return --m_nPieces != 0;
    }
    std::string m_strBody;
    const char* m_pLast = nullptr;
    int m_nPieces = -1;
};

TEST(HttpBody, LimitsStopsAndViews) {
    CCmHttpLimits limits;
    limits.m_ullMaxBody = 5;
    // The length, the bytes, and the outcome: the body, what stays, and why.
    const std::tuple<EHttpBody, uint64_t, const char*, const char*> rows[] = {
        {EHttpBody::LENGTH, 5, "abcdenext", "abcde|next|"},
        {EHttpBody::LENGTH, 6, "abcdef", "|abcdef|too much"},
        {EHttpBody::UNTIL_CLOSE, 0, "abcdef", "|abcdef|too much"},
        {EHttpBody::CHUNKED, 0, "2\r\nab\r\n4\r\ncdef\r\n", "ab|cdef\r\n|too much"},
        {EHttpBody::CHUNKED, 0, "2\r\nabx", "ab|x|broken"}};
    talvo::CHttpBodyReader reader;
    reader.SetLimits(limits);
    for (const auto& [kind, ullLength, szBytes, szOutcome] : rows) {
        CCollector sink;
        const CCmChainPtr pBlock(MakeBlock(szBytes));
        reader.Begin(kind, ullLength);
        const char* szWhy = reader.Feed(*pBlock, sink) == CM_OK ? "" : reader.IsBeyondLimit() ? "too much" : "broken";
        EXPECT_EQ(szOutcome, sink.m_strBody + "|" + pBlock->FlattenChained() + "|" + szWhy);
    }
    // No byte is copied, in either direction.
    CCollector sink;
    sink.m_nPieces = 1;
    const CCmChainPtr pBlock(MakeBlock("abcdef")), pChunk(talvo::make_chunk(*pBlock));
    EXPECT_EQ(pBlock->GetTopLevelReadPtr(), pChunk->GetNext()->GetTopLevelReadPtr());
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
        EXPECT_TRUE(cm_parse_http_date(strRow.substr(strRow.find(' ')), llParsed)) << strRow;
        EXPECT_EQ(llParsed, std::atoll(strRow.c_str())) << strRow;
    }
    EXPECT_EQ(cm_format_http_date(784111777), "Sun, 06 Nov 1994 08:49:37 GMT");
    EXPECT_EQ(cm_format_http_date(INT64_MAX), "Fri, 31 Dec 9999 23:59:59 GMT");
    int64_t llParsed = 42;
    for (const char* pText :
         {"", "Sun, 06 Nov 1994 08:49:37", "Sun, 31 Feb 1994 08:49:37 GMT", "Sun, 06 Now 1994 08:49:37 GMT",
          "Sun, 06 Nov 1994 24:00:00 GMT", "Sun, 06 Nov 1994 08:49:37 GMT x", "784111777", "Sun Nov  6 08:49:37 -994"})
        EXPECT_FALSE(cm_parse_http_date(pText, llParsed)) << pText;
    EXPECT_EQ(llParsed, 42);
}

}  // namespace
