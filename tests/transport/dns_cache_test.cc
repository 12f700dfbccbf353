#include "talvo/transport/dns/dns_cache.h"

#include <arpa/inet.h>

#include "talvo/transport/dns/dns_hosts.h"
#include "tests/support/test.h"

namespace {

CCmRefPtrT<CCmDnsRecord> MakeGood(const CCmString& aName, DWORD aTtl) {
    return CCmDnsCache::MakeRecord(aName, {{htonl(0x0A000001)}, aTtl, ""});
}

}  // namespace

TEST(DnsCacheTest, AnswersLiveAsLongAsTheySayWithinBounds) {
    CCmFakeClock clock;
    const struct {
        DWORD m_dwGiven;
        int m_nLives;  // seconds
    } rows[] = {{0, 1}, {1, 1}, {30, 30}, {3600, 3600}, {3601, 3600}, {0xFFFFFFFF, 3600}};
    for (const auto& row : rows) {
        CCmDnsCache cache;
        cache.Add(MakeGood("a", row.m_dwGiven));
        clock.Advance(CCmTimeValue(row.m_nLives - 1, 999999));
        EXPECT_TRUE(cache.Find("a")) << row.m_dwGiven;
        EXPECT_EQ(1u, cache.Find("a")->GetTimeToLive());
        clock.Advance(CCmTimeValue(0, 1));
        EXPECT_FALSE(cache.Find("a")) << row.m_dwGiven;
        EXPECT_EQ(0u, cache.GetSize());
    }
    CCmDnsCache cache;
    cache.Add(CCmDnsCache::MakeRecord("a", {{}, 3600, "why"}));  // a failure, whatever it carries
    clock.Advance(CCmTimeValue(4, 999999));
    ASSERT_TRUE(cache.Find("a"));
    EXPECT_EQ("why", cache.Find("a")->GetReason());
    EXPECT_EQ(0xFFFFFFFF, cache.Find("a")->GetFirstAddress());
    clock.Advance(CCmTimeValue(0, 1));
    EXPECT_FALSE(cache.Find("a"));
}

TEST(DnsCacheTest, TheOldestUnusedNameMakesRoom) {
    CCmFakeClock clock;
    CCmDnsCache cache;
    for (size_t i = 0; i < CCmDnsCache::MAX_NAMES; ++i)
        cache.Add(MakeGood(std::to_string(i), 60));
    EXPECT_TRUE(cache.Find("0"));   // used: 1 is the oldest now
    cache.Add(MakeGood("2", 120));  // replaced: no room needed
    cache.Add(MakeGood("new", 60));
    EXPECT_EQ(CCmDnsCache::MAX_NAMES, cache.GetSize());
    EXPECT_TRUE(cache.Find("0"));
    EXPECT_FALSE(cache.Find("1"));
    EXPECT_EQ(120u, cache.Find("2")->GetTimeToLive());
    cache.Add(MakeGood("newer", 60));
    EXPECT_FALSE(cache.Find("3"));
    EXPECT_TRUE(cache.Find("new"));
    // Nor can one answer bring any number of addresses.
    const auto pRecord = CCmDnsCache::MakeRecord("a", {std::vector<DWORD>(CCmDnsCache::MAX_ADDRESSES + 1, 7), 60, ""});
    EXPECT_EQ(CCmDnsCache::MAX_ADDRESSES, pRecord->GetAddresses().size());
}

TEST(DnsHostsTest, LinesAreReadAsTheSystemReadsThem) {
    talvo::CDnsHosts hosts;
    hosts.Parse(
        "# 10.9.9.9 comment\n"
        "10.0.0.1\tOne.Example one # 10.9.9.9\n"
        "\n"
        "   10.0.0.2 one   two.\r\n"
        "10.0.0.1 one\n"
        "::1 six\n"
        "10.0.0 short\n"
        "10.0.0.1.5 long\n"
        "10.0.0.3\n"
        "10.0.0.4 last");
    const auto textOf = [&](const char* aName) {
        std::string strText;
        if (const auto* pAddresses = hosts.Find(aName)) {
            for (const DWORD dwAddr : *pAddresses)
                strText += std::to_string(ntohl(dwAddr) & 0xFF) + " ";
        }
        return strText;
    };
    EXPECT_EQ("1 ", textOf("one.example"));
    EXPECT_EQ("1 2 ", textOf("one"));
    EXPECT_EQ("2 ", textOf("two"));
    EXPECT_EQ("2 ", textOf("two."));
    EXPECT_EQ("4 ", textOf("last"));
    for (const char* szNone : {"six", "short", "long", "comment", "#", "10.9.9.9", "example", ""})
        EXPECT_EQ("", textOf(szNone)) << szNone;
    EXPECT_EQ("1 ", textOf("localhost"));
    EXPECT_EQ("1 ", textOf("any.localhost"));
    hosts.Parse("10.0.0.7 localhost\n");
    EXPECT_EQ("7 ", textOf("localhost"));
    EXPECT_EQ("", textOf("one"));
}

TEST(DnsHostsTest, AFileThatCannotBeOneIsNotRead) {
    CCmTempDir dir;
    talvo::CDnsHosts hosts;
    EXPECT_EQ(CM_OK, hosts.Load(dir.Write("hosts", "10.0.0.1 one\n")));
    EXPECT_TRUE(hosts.Find("one"));
    std::string strLong = "10.0.0.1 one\n";
    strLong.resize(talvo::CDnsHosts::MAX_FILE_LENGTH + 1, '\n');
    EXPECT_EQ(CM_ERROR_NOT_FOUND, hosts.Load(dir.Write("long", strLong)));
    EXPECT_FALSE(hosts.Find("one"));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, hosts.Load(dir.PathOf("none")));
    EXPECT_EQ(CM_ERROR_NOT_FOUND, hosts.Load(dir.PathOf("")));  // a directory
}
