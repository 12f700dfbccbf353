#include "talvo/base/error_category.h"

#include <cerrno>

#include "tests/support/test.h"

TEST(ErrorCategory, EachResultHasATextAndMostHaveACondition) {
    std::set<std::string> texts;
#define TEXT_OF(aName, aValue) texts.insert(talvo::make_error_code(aName).message());
    CM_FOR_EACH_RESULT(TEXT_OF)
#undef TEXT_OF
    const auto isUnknown = [](const std::string& a) { return a.find("unknown result") != std::string::npos; };
    EXPECT_TRUE(std::none_of(texts.begin(), texts.end(), isUnknown));
    EXPECT_EQ(30u, texts.size());  // none twice
    EXPECT_EQ("unknown result 10099", talvo::make_error_code(10099).message());

    EXPECT_FALSE(talvo::make_error_code(CM_OK));
    const std::error_code code = talvo::errc::timeout;
    EXPECT_TRUE(code == std::errc::timed_out && code == talvo::errc::timeout && &code.category() == &talvo::category());
    EXPECT_TRUE(talvo::make_error_code(CM_ERROR_FOUND) != std::errc::file_exists);
}

TEST(ErrorCategory, ACauseOfTheSystemIsTheCode) {
    const CCmInetAddr addr("127.0.0.1", 80);
    const auto codeOf = [](const CCmFailure& aFailure) {
        return talvo::make_error_code(CM_ERROR_NETWORK_CONNECT_ERROR, aFailure);
    };
    const CCmFailure refused(ECONNREFUSED, "connect to", addr);
    EXPECT_TRUE(codeOf(refused) == std::errc::connection_refused);
    EXPECT_EQ("Connection refused", codeOf(refused).message());
    EXPECT_TRUE(codeOf(CCmFailure(CM_FAILURE_TIMEOUT, "Timed out", refused)) == talvo::errc::timeout);
    EXPECT_TRUE(codeOf(CCmFailure()) == talvo::errc::connect_failed);
    EXPECT_FALSE(talvo::make_error_code(CM_OK, refused));
}
