#include "talvo/http/message/http_auth.h"

#include "talvo/http/message/http_challenge.h"
#include "tests/support/test.h"

using namespace talvo;

namespace {

std::string Authorize(CHttpAuthenticator& aAuthenticator) {
    CCmSecret value;
    EXPECT_EQ(CM_OK, aAuthenticator.Authorize("GET", "/", value));
    return std::string(value.Get());
}

}  // namespace

// The examples of RFC 7616, section 3.9.1, and of RFC 2069, section 2.4 (with the response of its errata).
TEST(HttpAuthTest, DigestsAreThePublishedOnes) {
    CHttpDigest digest;
    digest.m_strRealm = "http-auth@example.org";
    digest.m_strNonce = "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v";
    digest.m_strOpaque = "FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS";
    digest.m_bOpaque = digest.m_bQopAuth = TRUE;
    digest.m_dwCount = 1;
    digest.m_strClientNonce = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";
    digest.m_strAlgorithm = "MD5";
    const auto answer = [&] { return digest.Answer("Mufasa", "Circle of Life", "GET", "/dir/index.html"); };
    EXPECT_EQ(
        "Digest username=\"Mufasa\", realm=\"http-auth@example.org\", nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\", "
        "uri=\"/dir/index.html\", response=\"8ca523f5e9506fed4657c9700eebdbec\", algorithm=MD5, "
        "opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\", qop=auth, nc=00000001, "
        "cnonce=\"f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ\"",
        answer());
    digest.m_Hash = EHttpHash::SHA256;
    EXPECT_NE(CCmString::npos, answer().find("\"753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1\""));

    digest = CHttpDigest();
    digest.m_strRealm = "testrealm@host.com";
    digest.m_strNonce = "dcd98b7102dd2f0e8b11d0f600bfb0c093";
    EXPECT_NE(CCmString::npos,
              digest.Answer("Mufasa", "CircleOfLife", "GET", "/dir/index.html").find("1949323746fe6a43ef61f9606e7febea"));
}

TEST(HttpAuthTest, TakesTheStrongestAndCountsTheNonce) {
    const std::string DIGEST = "Digest realm=\"r\", nonce=\"n\", qop=\"auth\", algorithm=";
    const std::pair<std::string, const char*> CASES[] = {
        {"Basic realm=\"r\"", "Basic dTpw"},
        {"Basic realm=\"r\", " + DIGEST + "MD5, " + DIGEST + "SHA-256", "algorithm=SHA-256"},
        {DIGEST + "MD5, Basic", "algorithm=MD5"},
        {DIGEST + "SHA-512-256, Basic", "Basic"},
        {DIGEST + "MD5-sess", ""},
        {"Digest realm=\"r\", nonce=\"n\", qop=\"auth-int\"", ""},
        {"Digest nonce=\"n\"", ""},
        {"Digest realm=\"a\rb\", nonce=\"n\"", ""},
        {"Bearer", ""}};
    for (const auto& [strOffer, szTaken] : CASES) {
        SCOPED_TRACE(strOffer);
        CHttpAuthenticator authenticator;
        EXPECT_FALSE(authenticator.OnChallenges(strOffer));
        EXPECT_EQ(CM_OK, authenticator.SetCredentials("u", "p"));
        EXPECT_EQ(*szTaken != '\0', authenticator.OnChallenges(strOffer));
        EXPECT_NE(CCmString::npos, Authorize(authenticator).find(szTaken));
        const std::string strSecond = Authorize(authenticator);
        EXPECT_EQ(strSecond.starts_with("Digest"), strSecond.find("nc=00000002") != CCmString::npos);
        EXPECT_FALSE(authenticator.OnChallenges(strOffer));
    }
    CHttpAuthenticator authenticator;
    EXPECT_EQ(CM_OK, authenticator.SetCredentials("u", "p"));
    int nTries = 0;
    while (nTries < 9 && authenticator.OnChallenges("Digest realm=\"r\", nonce=\"n\", stale=true"))
        nTries += !Authorize(authenticator).empty();
    EXPECT_EQ(4, nTries);
}
