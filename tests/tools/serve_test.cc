// What `serve` makes of what a client asks for.
#include "tests/support/test.h"
#include "tools/byte_range.h"
#include "tools/file_version.h"
#include "tools/request_path.h"

namespace tool {

TEST(ToolServeTest, PathsStayBelowTheDirectory) {
    const std::pair<const char*, const char*> GOOD[] = {
        {"/", ""},
        {"/a/b%20c.txt?x=/../y", "a/b c.txt"},
        {"//a///b/", "a/b"},
        {"http://host/a", "a"},
        {"http://host", ""},
        {"HTTP://host/a", "a"},
        {"http://host?a/b", ""},
        {"/...", "..."},
        {"/%C3%BC#f", "\xc3\xbc"},
    };
    RequestPath path;
    for (const auto& [pTarget, pPath] : GOOD) {
        EXPECT_TRUE(ParseRequestPath(pTarget, path)) << pTarget;
        EXPECT_EQ(pPath, path.m_strPath);
    }
    for (const char* pTarget :
         {"", "a", "*", "host:80", "/..", "/a/../b", "/%2e%2E/b", "/.%2e", "/.", "/a%2fb", "/a%00b", "/a%", "/a%4", "/a%4g"})
        EXPECT_FALSE(ParseRequestPath(pTarget, path)) << pTarget;
    EXPECT_EQ("a%20%22%3Cb%3E%25/~", EncodePath("a \"<b>%/~"));
    EXPECT_EQ("&lt;a href=&quot;x&#39;&amp;&quot;&gt;", EscapeHtml("<a href=\"x'&\">"));
}

TEST(ToolServeTest, OneRangeOrTheWhole) {
    const auto parse = [](const char* aRange, uint64_t aSize = 10) {
        const ByteRange range = ParseByteRange(aRange, aSize);
        return range.m_Kind == ByteRange::UNSATISFIABLE
                   ? "none"
                   : std::to_string(range.m_ullFirst) + "+" + std::to_string(range.m_ullLength);
    };
    const std::pair<const char*, const char*> CASES[] = {
        {"bytes=0-0", "0+1"},  {"bytes=3-5", "3+3"},
        {"bytes=3-", "3+7"},   {"bytes=-4", "6+4"},
        {"bytes=-40", "0+10"}, {"bytes=9-99999999999999999999999", "9+1"},
        {"bytes=10-", "none"}, {"bytes=99999999999999999999999-", "none"},
        {"bytes=-0", "none"},  {"bytes=0-1,3-4", "0+10"},
        {"bytes=5-3", "0+10"}, {"bytes=a-", "0+10"},
        {"bytes=-", "0+10"},   {"lines=0-1", "0+10"},
        {"", "0+10"},
    };
    for (const auto& [pRange, pResult] : CASES)
        EXPECT_EQ(pResult, parse(pRange)) << pRange;
    EXPECT_EQ("none", parse("bytes=0-", 0));

    ContentRange range;
    EXPECT_TRUE(ParseContentRange("bytes 5-8/9", range));
    EXPECT_EQ("5 8 9",
              std::to_string(range.m_ullFirst) + " " + std::to_string(range.m_ullLast) + " " + std::to_string(range.m_ullSize));
    EXPECT_TRUE(ParseContentRange("bytes 5-5/*", range));
    EXPECT_EQ(ContentRange::NO_SIZE, range.m_ullSize);
    for (const char* pBad : {"", "bytes */9", "bytes 5-8", "bytes 5/9-8", "bytes 5-9/9", "bytes 6-5/9", "bytes -5-8/9",
                             "bytes 0-99999999999999999999/*", "lines 5-8/9", "bytes 5-8/9x"})
        EXPECT_FALSE(ParseContentRange(pBad, range)) << pBad;
}

// Each condition alone and where two meet, for a file of the given second.
TEST(ToolServeTest, ConditionsAreJudgedInTheirOrder) {
    struct stat status {};
    status.st_mtim.tv_sec = 784111777;
    status.st_size = 5;
    const FileVersion version(status);
    const std::string& strTag = version.GetTag();
    const char* NOW = "Sun, 06 Nov 1994 08:49:37 GMT";
    const char* BEFORE = "Sun, 06 Nov 1994 08:49:36 GMT";
    const std::pair<std::vector<std::pair<const char*, std::string>>, long> CASES[] = {
        {{}, 200},
        {{{"If-Match", "\"a\", " + strTag}}, 200},
        {{{"If-Match", "*"}}, 200},
        {{{"If-Match", "\"a\", W/" + strTag}}, 412},
        {{{"If-Unmodified-Since", NOW}}, 200},
        {{{"If-Unmodified-Since", BEFORE}}, 412},
        {{{"If-Unmodified-Since", "yesterday"}}, 200},
        {{{"If-Match", strTag}, {"If-Unmodified-Since", BEFORE}}, 200},
        {{{"If-Match", "\"a\""}, {"If-None-Match", strTag}}, 412},
        {{{"If-Match", strTag}, {"If-None-Match", strTag}}, 304},
        {{{"If-None-Match", "\"a\" , W/" + strTag}}, 304},
        {{{"If-None-Match", "\"a\""}, {"If-Modified-Since", NOW}}, 200},
        {{{"If-Modified-Since", NOW}}, 304},
        {{{"If-Modified-Since", BEFORE}}, 200},
    };
    for (const auto& [conditions, lStatus] : CASES) {
        CCmHttpRequestHead request;
        std::string strAll;
        for (const auto& [pName, strValue] : conditions) {
            strAll += pName + (": " + strValue + "\n");
            request.SetHeader(request.ResolveName(pName), strValue, FALSE);
        }
        EXPECT_EQ(lStatus, version.JudgeConditions(request)) << strAll;
    }
}

}  // namespace tool
