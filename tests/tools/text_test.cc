#include "tools/text.h"

#include "tests/support/test.h"
#include "tools/endpoint.h"
#include "tools/file_name.h"
#include "tools/json_line.h"
#include "tools/url.h"

namespace tool {

TEST(ToolTextTest, NamesFromAPeerStayInTheDirectory) {
    for (const std::string& strGood : {std::string("a"), std::string("..."), std::string("r\xc3\xa9sum\xc3\xa9 2.pdf"),
                                       std::string(255, 'n'), std::string(".talvo-notes")})
        EXPECT_EQ("", CheckFileName(strGood)) << strGood;
    for (const std::string& strBad :
         {std::string(), std::string("."), std::string(".."), std::string("/"), std::string("../a"), std::string("/etc/passwd"),
          std::string("a/"), std::string("a\0b", 3), std::string("a\nb"), std::string("\x7f"), std::string("a\xc2\x9b"),
          std::string(256, 'n'), std::string(".talvo-00.part"), MakeTemporaryName()})
        EXPECT_NE("", CheckFileName(strBad)) << strBad;
}

TEST(ToolTextTest, TextOfAPeerCannotSteerATerminal) {
    EXPECT_EQ("a?[31mb??c?", Printable("a\x1b[31mb\r\nc\x7f"));
    EXPECT_EQ("??31m", Printable("\xc2\x9b"
                                 "31m"));
    // The same in JSON, where bytes that are no UTF-8 are replaced.
    EXPECT_EQ("{\"event\":\"x\",\"name\":\"\\\"\\u001b\\n\xef\xbf\xbd\",\"bytes\":7}",
              JsonLine("x").Add("name", "\"\x1b\n\xff").Add("bytes", 7).GetText());
}

TEST(ToolTextTest, NumbersAreReadableAtTheEdgesOfTheirUnits) {
    EXPECT_EQ("999 bytes", FormatBytes(999));
    EXPECT_EQ("1.0 MB", FormatBytes(999990));
    EXPECT_EQ("18.4 EB", FormatBytes(~uint64_t{0}));
    EXPECT_EQ("1:00:01", FormatDuration(3601));
}

TEST(ToolTextTest, EndpointsAreTakenApart) {
    Endpoint endpoint;
    EXPECT_EQ("", ParseEndpoint("192.0.2.7:65535", endpoint));
    EXPECT_EQ("192.0.2.7:65535", endpoint.GetText());
    for (const char* pBad : {"", ":", "host", "host:", ":80", "host:0", "host:65536", "host:-1", "host:1x", "host: 1",
                             "1.2.3:80", "256.1.1.1:80", "a b:80", "::1:80", "a/b:80"})
        EXPECT_NE("", ParseEndpoint(pBad, endpoint)) << pBad;
}

TEST(ToolTextTest, UrlsThatWouldBeMisreadAreRefused) {
    for (const char* pGood :
         {"http://h", "HTTP://h:1/a@b:c?d#e", "http://192.0.2.7:65535/", "file:///a b", "file://localhost/a"})
        EXPECT_EQ("", CheckUrl(pGood)) << pGood;
    for (const char* pBad : {"",
                             "h",
                             "ftp://h/",
                             "https://h/",
                             "http://",
                             "http:///a",
                             "http://h?q=1",
                             "http://h?q=1/a",
                             "http://h#a/",
                             "http://u@h/",
                             "http://u:p@h/",
                             "http://h:98539/",
                             "http://h:notaport/",
                             "http://h:0/",
                             "http://h:/",
                             "http://[::1]/",
                             "http://1.2/",
                             "http://h\\@i/",
                             "http://a b/",
                             "http://h/a b",
                             "http://h/a\tb",
                             "http://h/a?b\x7f",
                             "file://h/a",
                             "file://a",
                             "file://"})
        EXPECT_NE("", CheckUrl(pBad)) << pBad;
}

}  // namespace tool
