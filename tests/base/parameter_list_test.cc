#include "talvo/base/parameter_list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

TEST(ParameterList, SetReplacesAndAppendKeeps) {
    CCmParameterList list;
    list.Append("a", "1");
    list.Append("b", "2");
    list.Append("a", "3");
    EXPECT_EQ(list.Print(), "a=1;b=2;a=3");
    CCmString strValue;
    EXPECT_EQ(list.Get("a", strValue), CM_OK);
    EXPECT_EQ(strValue, "1");
    list.Set("a", "4");
    list.Set("c", "");
    EXPECT_EQ(list.Print(), "a=4;b=2;c=");
    EXPECT_EQ(list.Remove(list.begin()->first), CM_OK);
    EXPECT_EQ(list.Remove("a"), CM_ERROR_NOT_FOUND);
    EXPECT_EQ(list.Get("a", strValue), CM_ERROR_NOT_FOUND);
    EXPECT_EQ(list.Print(), "b=2;c=");
}

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

TEST(ParameterList, MalformedTextLeavesTheList) {
    CCmParameterList list;
    list.Set("kept", "1");
    for (const char* pText : {"a", ";", "a=1;", ";a=1", "a=1;b", "a=1\\", "a\\x=1", "a=\\n"}) {
        EXPECT_EQ(list.Parse(pText), CM_ERROR_INVALID_ARG) << pText;
        EXPECT_EQ(list.Print(), "kept=1");
    }
    EXPECT_EQ(list.Parse("a=b=c"), CM_OK);
    EXPECT_EQ(list.Print(), "a=b\\=c");
    EXPECT_EQ(list.Parse(""), CM_OK);
    EXPECT_EQ(list.GetCount(), 0u);
}

TEST(ParameterList, StaysWithinItsBounds) {
    CCmParameterList list;
    const CCmString strBig(CCmParameterList::MAX_BYTES - 1, '=');
    EXPECT_EQ(list.Append("ab", strBig), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(list.Append("a", strBig), CM_OK);
    EXPECT_EQ(list.Append("b", ""), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(list.Set("a", strBig), CM_OK);
    EXPECT_EQ(list.Set("a", strBig + "="), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(list.Parse(list.Print()), CM_OK);
    EXPECT_EQ(list.Parse("b=" + strBig + "="), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(list.Parse(CCmString(1 << 20, ';')), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(list.GetCount(), 1u);
    EXPECT_EQ(list.Set("a", ""), CM_OK);
    EXPECT_EQ(list.Append("b", strBig.substr(2)), CM_OK);
    EXPECT_EQ(list.Append("", "c"), CM_OK);
    EXPECT_EQ(list.Append("", "d"), CM_ERROR_NOT_AVAILABLE);
    list.Clear();
    CCmString strText = "=";
    for (size_t n = 1; n < CCmParameterList::MAX_PAIRS; ++n)
        strText += ";=";
    EXPECT_EQ(list.Parse(strText), CM_OK);
    EXPECT_EQ(list.GetCount(), CCmParameterList::MAX_PAIRS);
    EXPECT_EQ(list.Append("", ""), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(list.Parse(strText + ";="), CM_ERROR_NOT_AVAILABLE);
}

}  // namespace
