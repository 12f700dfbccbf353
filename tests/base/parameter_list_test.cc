#include "talvo/base/parameter_list.h"

#include "tests/support/test.h"

TEST(ParameterList, EveryListRoundTrips) {
    std::mt19937 random(7);
    for (int nRound = 0; nRound < 2000; ++nRound) {
        CCmParameterList list;
        for (DWORD nPairs = random() % 5; nPairs > 0; --nPairs) {
            CCmString strParts[2];
            for (CCmString& strPart : strParts)
                for (DWORD n = random() % 6; n > 0; --n)
                    strPart += std::string_view(";=\\a\n\0", 6)[random() % 6];
            list.Append(strParts[0], strParts[1]);
        }
        CCmParameterList back;
        ASSERT_EQ(back.Parse(list.Print()), CM_OK) << list.Print();
        ASSERT_TRUE(std::equal(list.begin(), list.end(), back.begin(), back.end())) << list.Print();
    }
}

TEST(ParameterList, MalformedTextLeavesTheListAndSetReplacesAll) {
    CCmParameterList list;
    for (const char* pName : {"a", "b", "a"})
        list.Append(pName, "1");
    list.Set("a", "2");
    EXPECT_EQ(list.Remove(list.begin()->first), CM_OK);  // the name dies with its pair
    for (const char* pText : {"a", ";", "a=1;", ";a=1", "a=1\\", "a\\x=1", "a=\\n"})
        EXPECT_EQ(list.Parse(pText), CM_ERROR_INVALID_ARG) << pText;
    EXPECT_EQ(list.Print(), "b=1");
}

TEST(ParameterList, StaysWithinItsBounds) {
    CCmParameterList list;
    const CCmString strBig(CCmParameterList::MAX_BYTES - 1, '=');
    EXPECT_EQ(list.Append("ab", strBig), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(list.Append("a", strBig), CM_OK);
    EXPECT_EQ(list.Append("b", ""), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(list.Set("a", strBig + "="), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(list.Parse("b=" + strBig + "="), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(list.Set("a", ""), CM_OK);
    EXPECT_EQ(list.Append("b", strBig.substr(1)), CM_OK);  // what was replaced counts no more
    CCmString strText = "=";
    for (size_t n = 1; n < CCmParameterList::MAX_PAIRS; ++n)
        strText += ";=";
    EXPECT_EQ(list.Parse(strText), CM_OK);
    EXPECT_EQ(list.Append("", ""), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(list.Parse(strText + ";="), CM_ERROR_NOT_AVAILABLE);
}
