#include "talvo/transport/dns/dns_cache.h"

#include <arpa/inet.h>

#include <map>
#include <sstream>

#include "talvo/transport/destination_order.h"
#include "talvo/transport/dns/dns_hosts.h"
#include "talvo/transport/dns/dns_look_up.h"
#include "tests/support/test.h"

namespace {

CCmRefPtrT<CCmDnsRecord> MakeGood(const CCmString& aName, DWORD aTtl) {
    return new CCmDnsRecord(aName, talvo::CDnsAnswers::Of({talvo::CIpBytes::OfIpv4(htonl(0x0A000001))}, aTtl));
}

}  // namespace

TEST(DnsCacheTest, AnswersLiveAsLongAsTheySayWithinBounds) {
    CCmFakeClock clock;
    for (const auto& [dwGiven, nLives] : {std::pair{0u, 1}, {1u, 1}, {3600u, 3600}, {3601u, 3600}, {0xFFFFFFFF, 3600}}) {
        CCmDnsCache cache;
        cache.Add(MakeGood("a", dwGiven));
        clock.Advance(CCmTimeValue(nLives - 1, 999999));
        EXPECT_TRUE(cache.Find("a")) << dwGiven;
        EXPECT_EQ(1u, cache.Find("a")->GetTimeToLive());
        clock.Advance(CCmTimeValue(0, 1));
        EXPECT_FALSE(cache.Find("a")) << dwGiven;
        EXPECT_EQ(0u, cache.GetSize());
    }
    CCmDnsCache cache;
    cache.Add(new CCmDnsRecord("a", {talvo::CDnsAnswer::Without(talvo::EDnsAnswer::NO_RECORD, "why"), {}, {}}));
    clock.Advance(CCmTimeValue(4, 999999));
    ASSERT_TRUE(cache.Find("a"));
    EXPECT_EQ("why", cache.Find("a")->GetReason());
    EXPECT_EQ(0xFFFFFFFF, cache.Find("a")->GetFirstAddress());
    clock.Advance(CCmTimeValue(0, 1));
    EXPECT_FALSE(cache.Find("a"));

    // Each family has its time, and what lives is not asked for again. A denial lives as long as the other's addresses.
    const talvo::CDnsAnswer longer = talvo::CDnsAnswer::Found({talvo::CIpBytes::OfIpv6(in6addr_loopback)}, 60);
    cache.Add(new CCmDnsRecord("a", {MakeGood("a", 30)->GetAnswers().m_Ipv4, longer, "a.test"}));
    cache.Add(new CCmDnsRecord("b", {talvo::CDnsAnswer::Without(talvo::EDnsAnswer::NO_RECORD, ""), longer, "b.test"}));
    cache.Add(new CCmDnsRecord("c", {talvo::CDnsAnswer::Without(talvo::EDnsAnswer::FAILED, ""), longer, "c.test"}));
    clock.Advance(CCmTimeValue(30));
    EXPECT_FALSE(cache.Find("a"));
    EXPECT_FALSE(cache.FindRest("a").m_Ipv4.IsFound());
    EXPECT_TRUE(cache.FindRest("a").m_Ipv6.IsFound());
    EXPECT_EQ("a.test", cache.FindRest("a").m_strFound);
    EXPECT_TRUE(cache.Find("b"));
    EXPECT_FALSE(cache.Find("c"));
    clock.Advance(CCmTimeValue(30));
    EXPECT_FALSE(cache.FindRest("a").HasAddress());
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
    const std::vector<talvo::CIpBytes> many(talvo::CDnsAnswer::MAX_ADDRESSES + 1, talvo::CIpBytes::OfIpv4(7));
    EXPECT_EQ(talvo::CDnsAnswer::MAX_ADDRESSES, talvo::CDnsAnswers::Of(many, 60).m_Ipv4.m_Addresses.size());
}

// Two full names. Events: the family and its answer, or the end of the grace. Steps: Ask, Grace, Early, Ready, Late.
TEST(DnsLookUpTest, NeitherFamilyWaitsLongForTheOther) {
    using enum talvo::EDnsAnswer;
    const std::map<char, talvo::EDnsAnswer> states = {{'d', NO_RECORD}, {'x', NO_NAME}, {'e', FAILED}};
    const struct {
        std::string m_strEvents;
        const char* m_szSteps;
        const char* m_szReason;
    } rows[] = {{"4f 6f", "GR", ""},     {"6f 4f", "ER", ""},         {"4f g. 6f", "GRL", ""},     {"6f g. 4f", "ERL", ""},
                {"4d 6f", "R", ""},      {"6d 4f", "R", ""},          {"4e 6f", "R", ""},          {"6e 4f", "R", ""},
                {"6x 4f", "R", ""},      {"4x 6f", "GR", ""},         {"4e 6d", "R", "e"},         {"6e 4x", "R", "e"},
                {"4x g. 4f", "GAG", ""}, {"4x 6x 4f 6d", "GAGR", ""}, {"4d 6d 4x 6x", "AGR", "d"}, {"4x 6d 6d 4d", "GAR", "d"}};
    for (const auto& row : rows) {
        talvo::CDnsAnswers pending;
        pending.m_Ipv4.m_State = pending.m_Ipv6.m_State = PENDING;
        talvo::CDnsLookUp lookUp("a", {"a.one", "a.two"}, pending);
        std::string strSteps;
        for (size_t i = 0; i < row.m_strEvents.size(); i += 3) {
            const char cAnswer = row.m_strEvents[i + 1];
            if (cAnswer == '.')
                lookUp.EndGrace();
            else
                lookUp.Take(lookUp.GetFullNameIndex(), static_cast<BYTE>(row.m_strEvents[i] - '0'),
                            cAnswer == 'f' ? talvo::CDnsAnswer::Found({talvo::CIpBytes::OfIpv4(1)}, 60)
                                           : talvo::CDnsAnswer::Without(states.at(cAnswer), std::string(1, cAnswer)));
            if (const auto step = lookUp.Next(); step != talvo::CDnsLookUp::EStep::WAIT)
                strSteps += "WAGERL"[static_cast<int>(step)];
        }
        EXPECT_EQ(row.m_szSteps, strSteps) << row.m_strEvents;
        const CCmRefPtrT<CCmDnsRecord> pRecord(new CCmDnsRecord("a", lookUp.GetAnswers()));
        EXPECT_EQ(row.m_szReason, pRecord->GetReason()) << row.m_strEvents;
    }
}

TEST(DestinationOrderTest, RoutesDecideAndTheFamiliesAlternate) {
    const auto source = [](const talvo::CIpBytes& aIp) {  // 10.*, 2001:db8:* and fd00:* have routes; 2001:db8:1::1 by 6to4
        const std::string strIp = aIp.GetText();
        talvo::CIpBytes found;
        const char* szSource = strIp == "2001:db8:1::1"         ? "2002::1"
                               : strIp.starts_with("2001:db8:") ? "2001:db8::9"
                               : strIp.starts_with("fd00:")     ? "fd00::9"
                                                                : "10.0.0.9";
        if (strIp.starts_with("10.") || aIp.m_byFamily == 6)
            talvo::CIpBytes::Parse(strIp.starts_with("2001:db9:") ? "" : szSource, found);
        return found;
    };
    for (const auto& [strGiven, strOrder] : std::vector<std::pair<std::string, std::string>>{
             {"11.0.0.1 10.0.0.2 10.0.0.1", "11.0.0.1 10.0.0.2 10.0.0.1"},  // not even looked at
             {"2001:db8::2 2001:db8::1 10.0.0.2 10.0.0.1", "2001:db8::2 10.0.0.2 2001:db8::1 10.0.0.1"},
             {"2001:db9::1 10.0.0.1", "10.0.0.1"},
             {"2001:db9::1 11.0.0.1", "2001:db9::1 11.0.0.1"},
             {"2001:db8:1::1 2001:db8::1 10.0.0.1", "2001:db8::1 10.0.0.1 2001:db8:1::1"},
             {"fd00::1 10.0.0.1", "10.0.0.1 fd00::1"}}) {
        std::vector<talvo::CIpBytes> addresses;
        std::istringstream words(strGiven);
        for (std::string strWord; words >> strWord;)
            EXPECT_TRUE(talvo::CIpBytes::Parse(strWord, addresses.emplace_back()));
        std::string strFound;
        for (const talvo::CIpBytes& ip : talvo::OrderDestinations(addresses, source))
            strFound += (strFound.empty() ? "" : " ") + ip.GetText();
        EXPECT_EQ(strOrder, strFound) << strGiven;
    }
}

TEST(DnsHostsTest, LinesAreReadAsTheSystemReadsThem) {
    talvo::CDnsHosts hosts;
    hosts.Parse(
        "# 10.9.9.9 comment\n"
        "10.0.0.1\tOne.Example one # 10.9.9.9\n"
        "\n"
        "   10.0.0.2 one   two.\r\n"
        "10.0.0.1 one\n"
        "2001:db8::1 six one # 10.9.9.9\n"
        "2001:db8::/64 bad\n"
        "10.0.0 short\n"
        "10.0.0.1.5 long\n"
        "10.0.0.3\n"
        "10.0.0.4 last");
    const auto textOf = [&](const char* aName) {
        std::string strText;
        if (const auto* pAddresses = hosts.Find(aName)) {
            for (const talvo::CIpBytes& ip : *pAddresses)
                strText += ip.m_byFamily == 4 ? std::to_string(ip.m_Bytes[3]) + " " : ip.GetText() + " ";
        }
        return strText;
    };
    EXPECT_EQ("1 ", textOf("one.example"));
    EXPECT_EQ("1 2 2001:db8::1 ", textOf("one"));
    EXPECT_EQ("2001:db8::1 ", textOf("six"));
    EXPECT_EQ("2 ", textOf("two"));
    EXPECT_EQ("2 ", textOf("two."));
    EXPECT_EQ("4 ", textOf("last"));
    for (const char* szNone : {"bad", "short", "long", "comment", "#", "10.9.9.9", "example", ""})
        EXPECT_EQ("", textOf(szNone)) << szNone;
    EXPECT_EQ("::1 1 ", textOf("localhost"));
    EXPECT_EQ("::1 1 ", textOf("any.localhost"));
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
