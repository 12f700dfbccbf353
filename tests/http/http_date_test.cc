#include "talvo/http/message/http_date.h"

#include "tests/support/test.h"

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
