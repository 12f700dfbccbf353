#include "tools/text.h"

#include "tests/support/test.h"
#include "tools/failure.h"
#include "tools/json_line.h"
#include "tools/line_splitter.h"
#include "tools/progress_meter.h"
#include "tools/rate_limit.h"
#include "tools/url.h"

namespace tool {

TEST(ToolTextTest, TextOfAPeerCannotSteerATerminal) {
    EXPECT_EQ("a?[31mb??c?", Printable("a\x1b[31mb\r\nc\x7f"));
    EXPECT_EQ("?31m\u00e9??? b?? ??", Printable("\xc2\x9b"
                                                "31m\u00e9\u202e\u2066\u061c b\xe9\xff \xed\xa0"));
    // The same in JSON, where bytes that are no UTF-8 are replaced.
    EXPECT_EQ("{\"event\":\"x\",\"name\":\"\\\"\\u001b\\n\xef\xbf\xbd\\u202e\\u009b\",\"bytes\":7}",
              JsonLine("x").Add("name", "\"\x1b\n\xff\u202e\xc2\x9b").Add("bytes", 7).GetText());
}

TEST(ToolTextTest, NumbersAreReadableAtTheEdgesOfTheirUnits) {
    EXPECT_EQ("1 byte, 999 bytes", FormatBytes(1) + ", " + FormatBytes(999));
    EXPECT_EQ("1.0 MB", FormatBytes(999990));
    EXPECT_EQ("18.4 EB", FormatBytes(~uint64_t{0}));
    EXPECT_EQ("1:00:01", FormatDuration(3601));
}

TEST(ToolTextTest, UrlsThatCanBeReadInOneWayAreGood) {
    for (const char* pGood : {"http://h", "HTTP://h:1/a@b:c?d#e", "http://192.0.2.7:65535/", "http://[::1]/a",
                              "http://[::ffff:1.2.3.4]:80/", "file:///a b", "file://localhost/a"})
        EXPECT_EQ("", CheckUrl(pGood)) << pGood;
}

TEST(ToolTextTest, OnlyALineBeyondTheLimitLosesItsText) {
    LineSplitter splitter(4);
    Line line;
    std::string strSeen;
    for (const char* pPiece : {"abcd", "\nefg", "hi", "jk\n\nl", "mnopqrs"}) {
        splitter.Feed(pPiece);
        while (splitter.Next(line))
            strSeen += std::to_string(line.m_ullNumber) + ":" + std::to_string(line.m_ullLength) + line.m_strText + " ";
    }
    EXPECT_TRUE(splitter.TakeRest(line) && !line.IsWhole());
    EXPECT_EQ("1:4abcd 2:7 3:0 8", strSeen + std::to_string(line.m_ullLength));
}

TEST(ToolFailureTest, AViolationOfTheProtocolIsNoLocalCause) {
    const CCmFailure tooLong(CM_FAILURE_PROTOCOL, "too long", "receive from", CCmInetAddr());
    EXPECT_EQ(CAUSE_PROTOCOL, GetCause(CM_ERROR_NOT_AVAILABLE, tooLong));
}

TEST(ToolProgressMeterTest, RateIsThatOfTheLastSeconds) {
    CCmFakeClock clock;
    ProgressMeter meter;
    meter.Begin();
    meter.Expect(100000000);
    meter.Expect(~uint64_t{0} - 200000000);
    meter.Advance(3000);
    meter.Waive(~uint64_t{0} - 200003000);  // broke: what has come stays counted
    for (int i = 0; i < 20; ++i) {          // a slow beginning is forgotten
        clock.Advance(CCmTimeValue(1));
        meter.Advance(i < 10 ? 1000 : 1000000);
        meter.Sample();
    }
    EXPECT_EQ("10.0 MB of 100.0 MB (10%), 1.0 MB/s, 1:30 left", FormatProgress(meter.Sample()));
    meter.BeginSearch();
    EXPECT_EQ("10.0 MB, 1.0 MB/s", FormatProgress(meter.Sample()));
}

TEST(ToolRateLimitTest, PausesAreThoseOfTheRate) {
    CCmFakeClock clock;
    RateLimit limit(1000);
    EXPECT_EQ(500000, limit.Count(500));
    EXPECT_EQ(600000, limit.Count(100));
    clock.Advance(CCmTimeValue(0, 630000));  // 30 ms late, which the next wait makes up
    EXPECT_EQ(70000, limit.Count(100));
    clock.Advance(CCmTimeValue(3));  // idle time is not saved up
    EXPECT_EQ(50000, limit.Count(100));
    uint64_t ullRate = 0;
    for (const auto& [text, rate] : std::initializer_list<std::pair<const char*, int>>{
             {"1", 1}, {"500k", 500000}, {"1.5M", 1500000}, {"", 0}, {"k", 0}, {"0", 0}, {"1x", 0}})
        EXPECT_EQ(rate, ParseRate(text, ullRate) ? static_cast<int>(ullRate) : 0) << text;
}

}  // namespace tool
