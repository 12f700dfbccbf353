#include "talvo/base/base64.h"

#include <gtest/gtest.h>

namespace {

TEST(Base64, KnownTextsBothWays) {
    const std::pair<CCmString, CCmString> cases[] = {
        {"", ""},        {"f", "Zg=="},          {"fo", "Zm8="},
        {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {CCmString("\0\xff\xfe\x7f", 4), "AP/+fw=="},
    };
    for (const auto& [strData, strText] : cases) {
        CCmString strOut = "before";
        EXPECT_EQ(cm_base64_encode(strData.data(), strData.size(), strOut), CM_OK);
        EXPECT_EQ(strOut, strText);
        EXPECT_EQ(cm_base64_decode(strText, strOut), CM_OK);
        EXPECT_EQ(strOut, strData);
    }
}

TEST(Base64, EveryByteSurvives) {
    CCmString strData;
    for (int n = 0; n < 1000; ++n) {
        CCmString strText;
        CCmString strBack;
        ASSERT_EQ(cm_base64_encode(strData.data(), strData.size(), strText), CM_OK);
        ASSERT_EQ(cm_base64_decode(strText, strBack), CM_OK);
        ASSERT_EQ(strBack, strData);
        strData += static_cast<char>(n * 7);
    }
}

TEST(Base64, BadInputIsRefusedAndChangesNothing) {
    for (const char* pText : {"Zg=", "Zg", "Z", "Z===", "====", "Zg==Zg==", "Z=g=", "=Zg=", "Zh==", "Zm9=", "Zm 9", "Zm9\n",
                              "Zm9-", "Zm9_", "Zm9\xff", "Zg==\n"}) {
        CCmString strOut = "before";
        EXPECT_EQ(cm_base64_decode(pText, strOut), CM_ERROR_INVALID_ARG) << pText;
        EXPECT_EQ(strOut, "before");
    }
    CCmString strOut = "before";
    EXPECT_EQ(cm_base64_encode("", SIZE_MAX, strOut), CM_ERROR_INVALID_ARG);
    EXPECT_EQ(cm_base64_encode(nullptr, 1, strOut), CM_ERROR_INVALID_ARG);
    EXPECT_EQ(strOut, "before");
}

}  // namespace
