#include "talvo/http/message/http_url.h"

#include "tests/support/test.h"

TEST(HttpUrl, ParsesAndPrints) {
    CCmHttpUrl url;
    // clang-format off
    for (const std::string strRow :
         {" HTTP://Example.com>Example.com 80 / http://Example.com/", "https://h:8443/a?b>h 8443 /a?b https://h:8443/a?b",
          "https://h:443/>h 443 / https://h/", "http://h:/x>h 80 /x http://h/x", "http://h:abc>h 80 / http://h/",
          "http://h:65537/>h 1 / http://h:1/", "http://h/a://b>h 80 /a://b http://h/a://b",
          "file:///C:/dir/f.pac> 0 C:\\dir\\f.pac file:///C:\\dir\\f.pac", "File://C:/x> 0 C:\\x file:///C:\\x",
          "file:///etc/hosts> 0 etc\\hosts file:///etc\\hosts", "file://host/a/b> 0 a\\b file:///a\\b",
          "file://name> 0 name file:///name", "ftp://h/>", "http:///x>", "http://>", "://h>", "  >",
          // Brackets.
          "http://[::1]>::1 80 / http://[::1]/", "https://[2001:DB8:0::0:01]:81/a>2001:db8::1 81 /a https://[2001:db8::1]:81/a",
          "https://[::1]:443/>::1 443 / https://[::1]/", "http://[::]:x/>:: 80 / http://[::]/", "http://h/[x]>h 80 /[x] http://h/[x]",
          "http://[::ffff:192.0.2.1]:8/>192.0.2.1 8 / http://192.0.2.1:8/",
          "http://[fe80::1%25Eth0]:8/>fe80::1%Eth0 8 / http://[fe80::1%25Eth0]:8/", "http://[fe80::1%eth0]/>",
          "http://[::1%25lo]/>", "http://[fe80::1%25]/>", "http://[fe80::1%25a%20b]/>", "http://[h]/>", "http://[]/>",
          "http://[127.0.0.1]/>", "http://[::1>", "http://[::1]x:80/>", "http://[::1]:[/>", "http://[[::1]]/>",
          "http://u@[::1]/>", "http://h[::1]/>", "http://[:::1]/>", "http://[v1.a]/>", "http://::1]/>", "http://h:[/>"}) {
        // clang-format on
        const size_t stEnd = strRow.find('>');
        const BOOL bGood = url.Init(strRow.substr(0, stEnd));
        const std::string strParts = url.GetHostName() + " " + std::to_string(url.GetPort()) + " " + url.GetPath() + " ";
        EXPECT_EQ(bGood ? strParts + CCmHttpUrl(url).GetAsciiSpec() : "", strRow.substr(stEnd + 1)) << strRow;
    }
}
