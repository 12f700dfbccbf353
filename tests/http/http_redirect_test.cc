#include "talvo/http/client/http_redirect.h"

#include "talvo/http/client/http_client_request.h"
#include "talvo/http/message/http_url.h"
#include "tests/support/test.h"

// The examples of RFC 3986, section 5.4, on a base that HTTP has, and what must not be asked for.
TEST(HttpRedirectTest, ResolvesReferences) {
    CCmHttpUrl base;
    EXPECT_TRUE(base.Init("http://a:81/b/c/d;p?q"));
    const std::pair<const char*, const char*> CASES[] = {
        // clang-format off
        {"http://g", "http://g/"}, {"HTTP://h:8/x/../y", "HTTP://h:8/y"}, {"g", "http://a:81/b/c/g"},
        {"./g", "http://a:81/b/c/g"}, {"g/", "http://a:81/b/c/g/"}, {"/g", "http://a:81/g"}, {"//g", "http://g/"},
        {"//g?x", "http://g/?x"}, {"?y", "http://a:81/b/c/d;p?y"}, {"g?y", "http://a:81/b/c/g?y"},
        {"#s", "http://a:81/b/c/d;p?q"}, {"g#s", "http://a:81/b/c/g"}, {"g?y#s", "http://a:81/b/c/g?y"},
        {";x", "http://a:81/b/c/;x"}, {"", "http://a:81/b/c/d;p?q"}, {".", "http://a:81/b/c/"}, {"..", "http://a:81/b/"},
        {"../g", "http://a:81/b/g"}, {"../..", "http://a:81/"}, {"../../../g", "http://a:81/g"}, {"/./g", "http://a:81/g"},
        {"/../g", "http://a:81/g"}, {"g.", "http://a:81/b/c/g."}, {"..g", "http://a:81/b/c/..g"},
        {"./g/.", "http://a:81/b/c/g/"}, {"g/./h", "http://a:81/b/c/g/h"}, {"g/../h", "http://a:81/b/c/h"},
        {"g?y/../x", "http://a:81/b/c/g?y/../x"}, {"g h\xc3\xa4\"", "http://a:81/b/c/g%20h%C3%A4%22"},
        {"https://h/x", "https://h/x"}, {"file:///etc/passwd", ""}, {"ftp://h/x", ""}, {"http:g", ""}, {"mailto:a@b", ""},
        {"http://", ""}, {"http:///x", ""}, {"http://user@h/", ""}, {"http://user:pw@h/", ""}, {"http://[::1]:8/x", "http://[::1]:8/x"},
        {"//[fe80::1]/x", "http://[fe80::1]/x"}, {"http://[h]/", ""}, {"http://[::1]:99999/", ""}, {"http://u@[::1]/", ""},
        {"http://h:99999/", ""}, {"http://h:8o/", ""}, {"http://h\\@evil/", ""}, {"g\\h", "http://a:81/b/c/g%5Ch"},
        // clang-format on
    };
    for (const auto& [szReference, szResult] : CASES)
        EXPECT_EQ(szResult, talvo::ResolveHttpLocation(base, szReference)) << szReference;

    // The server does not know the zone of its address.
    CCmHttpUrl other;
    EXPECT_TRUE(base.Init("http://[fe80::1%25Eth0]:81/a") && other.Init("http://[fe80::1%25eth0]:81/a"));
    EXPECT_EQ("http://[fe80::1%25Eth0]:81/b", talvo::ResolveHttpLocation(base, "b"));
    EXPECT_EQ("http://[fe80::1%25Eth0]:8/b", talvo::ResolveHttpLocation(base, "//[fe80::1]:8/b"));
    EXPECT_EQ("http://[fe80::2]/b", talvo::ResolveHttpLocation(base, "http://[fe80::2]/b"));
    EXPECT_FALSE(talvo::IsSameHttpOrigin(base, other));
    EXPECT_NE(std::string::npos, talvo::CHttpClientRequest().MakeHead(base, {}).find("\r\nHost: [fe80::1]:81\r\n"));
}
