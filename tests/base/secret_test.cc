#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "talvo/base/credentials.h"
#include "tests/support/test.h"

namespace {

// The line VmFlags of the mapping that contains the address.
std::string FlagsOf(const void* aAddress) {
    std::ifstream maps("/proc/self/smaps");
    bool bInside = false;
    for (std::string strLine; std::getline(maps, strLine);) {
        uintptr_t begin = 0, end = 0;
        if (std::sscanf(strLine.c_str(), "%" SCNxPTR "-%" SCNxPTR " ", &begin, &end) == 2)
            bInside = begin <= reinterpret_cast<uintptr_t>(aAddress) && reinterpret_cast<uintptr_t>(aAddress) < end;
        else if (bInside && strLine.starts_with("VmFlags:"))
            return strLine;
    }
    return {};
}

}  // namespace

TEST(SecretTest, StaysOutOfDumpsAndIsOverwrittenAfterItsLastCopy) {
    for (const size_t stLength : {5, 100, 4096, 65536}) {
        SCOPED_TRACE(stLength);
        const std::string strText(stLength, 'x');
        CCmSecret secret;
        ASSERT_EQ(CM_OK, secret.Set({strText.substr(0, 2), "", strText.substr(2)}));
        const char* pBytes = secret.Get().data();
        EXPECT_NE(std::string::npos, FlagsOf(pBytes).find(" dd"));
        CCmSecret copy = secret;
        secret.Clear();
        EXPECT_TRUE(secret.IsEmpty());
        EXPECT_EQ(strText, copy.Get());
        if (stLength > 4000)
            continue;  // its memory goes back to the system
        copy = CCmSecret();
        EXPECT_EQ(nullptr, std::memchr(pBytes, 'x', stLength));
        ASSERT_EQ(CM_OK, secret.Set(strText));
        EXPECT_EQ(pBytes, secret.Get().data());  // used again
    }
}

TEST(SecretTest, ARefusedTextChangesNothing) {
    CCmSecret secret;
    ASSERT_EQ(CM_OK, secret.Set("before"));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, secret.Set(std::string(CCmSecret::MAX_LENGTH + 1, 'x')));
    EXPECT_EQ(CM_OK, secret.Set({secret.Get().substr(2), "!"}));
    EXPECT_EQ("fore!", secret.Get());
    CCmCredentials credentials;
    ASSERT_EQ(CM_OK, credentials.Set("user", "password"));
    EXPECT_EQ(CM_ERROR_INVALID_ARG, credentials.Set("other", std::string(CCmSecret::MAX_LENGTH + 1, 'x')));
    EXPECT_EQ("user", credentials.m_User.Get());
    CCmString strText = "a password that is on the heap";
    const char* pBytes = strText.data();
    talvo::WipeText(strText);
    EXPECT_EQ(pBytes, strText.data());
    EXPECT_EQ('\0', pBytes[3]);
}
