#include "talvo/http/client/proxy_authentication.h"

#include "talvo/http/client/proxy_offers.h"
#include "talvo/proxy/proxy_functions.h"
#include "tests/support/network_fixture.h"

using namespace talvo;

namespace {

constexpr const char* PROXY = "http://proxy.example:3128";
constexpr const char* BASIC = "Basic realm=\"r\"";

CCmCredentials Credentials(const char* aUser, const char* aPassword) {
    CCmCredentials credentials;
    EXPECT_EQ(CM_OK, credentials.Set(aUser, aPassword));
    return credentials;
}

// A request to the proxy.
struct CUser final : IProxyAuthenticationUser {
    explicit CUser(const CCmCredentials& aFromRoute = {}) : m_Authentication(*this, PROXY, aFromRoute) {
        EXPECT_EQ(CM_OK, m_Authentication.Start());
    }
    std::string Next() {
        CCmSecret value;
        EXPECT_EQ(CM_OK, m_Authentication.Authorize("CONNECT", "host:443", value));
        return std::string(value.Get());
    }
    CmResult Refuse(const std::string& aChallenges) { return m_Authentication.OnChallenges(aChallenges, TRUE); }
    void OnProxyAuthentication(CmResult aResult) override { m_Results.push_back(aResult); }

    std::vector<CmResult> m_Results;
    CProxyAuthentication m_Authentication;
};

struct ProxyAuthenticationTest : testing::Test {
    ProxyAuthenticationTest() { CProxyOffers::Clear(); }
    ~ProxyAuthenticationTest() override {
        cm_proxy_set_asker(nullptr, nullptr);
        cm_proxy_forget_credentials(PROXY);
        CProxyOffers::Clear();
    }
};

constexpr uint32_t NO_QUESTION = 0;

}  // namespace

TEST_F(ProxyAuthenticationTest, EachSetIsTriedOnceInItsOrder) {
    CMainThread main;
    uint32_t dwQuestion = NO_QUESTION;
    std::string strRefused;
    const auto ask = [&] {
        cm_proxy_set_asker([](void* aId, uint32_t aQuestion, auto...) { *static_cast<uint32_t*>(aId) = aQuestion; },
                           &dwQuestion);
    };
    EXPECT_EQ(0, cm_proxy_set_credentials(PROXY, "r", "stored", "2"));
    ask();
    CUser user(Credentials("route", "1"));
    EXPECT_EQ("", user.Next());  // nothing before the proxy asks
    EXPECT_EQ(CM_OK, user.Refuse(BASIC));
    EXPECT_EQ("Basic cm91dGU6MQ==", user.Next());
    EXPECT_EQ(CM_OK, user.Refuse(""));  // the challenge is not repeated
    EXPECT_EQ("Basic c3RvcmVkOjI=", user.Next());
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, user.Refuse(BASIC));
    main.RunOnce();
    ASSERT_NE(NO_QUESTION, dwQuestion);
    EXPECT_EQ(CM_ERROR_NOT_FOUND, cm_proxy_forget_credentials(PROXY));
    EXPECT_EQ(0, cm_proxy_answer(dwQuestion, "asker", "3"));
    main.RunOnce();
    EXPECT_EQ(std::vector<CmResult>{CM_OK}, user.m_Results);
    EXPECT_EQ("Basic YXNrZXI6Mw==", user.Next());
    dwQuestion = NO_QUESTION;
    EXPECT_EQ(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, user.Refuse(BASIC));
    main.RunOnce();
    EXPECT_EQ(NO_QUESTION, dwQuestion);
    for (const char* szOffer : {"Negotiate", ""})
        EXPECT_EQ(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, CUser(Credentials("u", "p")).Refuse(szOffer));
    EXPECT_EQ(CM_ERROR_WOULD_BLOCK, CUser(Credentials("a:b", "p")).Refuse(BASIC));  // which no scheme can carry
}

TEST_F(ProxyAuthenticationTest, LaterUsersSendAtOnceAndCountTheNonce) {
    const auto digest = [](const std::string& aNonce) { return "Digest realm=\"r\", qop=\"auth\", nonce=\"" + aNonce + "\""; };
    const auto has = [](const std::string& aValue, const char* aNonce, const char* aCount) {
        return aValue.find(std::string("nonce=\"") + aNonce + "\", uri=\"host:443\"") != std::string::npos &&
               aValue.find(std::string("nc=0000000") + aCount) != std::string::npos;
    };
    const CCmCredentials route = Credentials("u", "p");
    CUser first(route);
    EXPECT_EQ(CM_OK, first.Refuse(std::string(BASIC) + "\n" + digest("n")));
    EXPECT_TRUE(has(first.Next(), "n", "1"));
    EXPECT_EQ("", CUser(route).Next());  // not proved yet
    first.m_Authentication.OnAccepted();
    EXPECT_EQ("", CUser().Next());  // without credentials
    CUser second(route), third(route);
    EXPECT_TRUE(has(second.Next(), "n", "2"));
    EXPECT_TRUE(has(third.Next(), "n", "3"));
    EXPECT_TRUE(has(first.Next(), "n", "4"));
    // A nonce of its own is not shared before the proxy has taken it, and a forgotten one refuses no credentials.
    EXPECT_EQ(CM_OK, second.Refuse(digest("m")));
    EXPECT_TRUE(has(second.Next(), "m", "1"));
    EXPECT_TRUE(has(CUser(route).Next(), "n", "5"));
    second.m_Authentication.OnAccepted();
    EXPECT_TRUE(has(CUser(route).Next(), "m", "2"));
    EXPECT_EQ(CM_OK, third.Refuse(digest("x")));
    third.Next();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(CM_OK, third.Refuse(digest("x") + ", stale=true"));
        EXPECT_TRUE(has(third.Next(), "x", "1"));
    }
    EXPECT_EQ(CM_ERROR_NETWORK_PROXY_SERVER_UNAVAILABLE, third.Refuse(digest("x") + ", stale=true"));
}
