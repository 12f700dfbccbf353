#include "talvo/base/inet_addr.h"

#include "talvo/base/address_functions.h"
#include "talvo/base/name_resolver.h"
#include "tests/support/test.h"

namespace {

using namespace std::string_literals;

class CResolver : public ICmNameResolver {
public:
    CResolver() { Set(this); }
    ~CResolver() override { Set(nullptr); }
    CmResult ResolveFromCache(const CCmString&, talvo::CIpBytes& aIp) override {
        aIp = talvo::CIpBytes::OfIpv4(htonl(0x0A000001));
        return CM_OK;
    }
};

TEST(InetAddr, ARefusedTextChangesNothing) {
    CCmInetAddr addr("10.1.2.3:5");
    EXPECT_EQ(addr.Set(nullptr), CM_ERROR_INVALID_ARG);
    EXPECT_EQ(addr.Set((std::string(256, 'a') + ":1").c_str()), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(addr.SetIpAddrByString("example"), CM_ERROR_FAILURE);
    EXPECT_TRUE(addr == CCmInetAddr("10.1.2.3", 5));
    EXPECT_EQ(addr.Set((std::string(255, 'a') + ":70000").c_str()), CM_ERROR_WOULD_BLOCK);
    EXPECT_EQ(addr.GetPort(), 70000 - 65536);
}

TEST(InetAddr, ParseTakesOnlyWhatCannotBeMisread) {
    CCmInetAddr addr("10.1.2.3:5");
    CCmString strReason;
    const std::string strLabel(63, 'a');
    const std::string strLong = strLabel + "." + strLabel + "." + strLabel + ".";
    std::vector<std::string> bad = {strLabel + "a:1", "1.2.3.4\0:1"s, "unix:/a\0"s, "unix:/" + std::string(107, 'a'),
                                    "[fe80::1%99999]:1"};
    for (const char* pBad :
         {"",       "host",  "host:",     "host:notaport", "host:65536",  "host:000080",  "host:+1",          "host: 1",
          ":1",     "1.2:1", "0x7f.1:1",  "a.0x1f:1",      "256.1.1.1:1", "1.2.3.04:1",   "a..b:1",           ".:1",
          "a b:1",  "u@h:1", "::1:1",     "[::1]",         "[::1]:",      "[::1%none]:1", "[fe80::1%none]:1", "[1.2.3.4]:1",
          "unix:@", "h:1/",  "unix:/a\nb"})
        bad.emplace_back(pBad);
    bad.push_back(strLong + strLabel.substr(1) + ":1");
    for (const std::string& strBad : bad) {
        strReason.clear();
        EXPECT_EQ(CCmInetAddr::Parse(strBad, addr, &strReason), CM_ERROR_INVALID_ARG) << strBad;
        EXPECT_FALSE(strReason.empty()) << strBad;
        EXPECT_TRUE(strBad != "[::1]" || strReason.starts_with("there is no port")) << strReason;
        EXPECT_TRUE(addr == CCmInetAddr("10.1.2.3", 5)) << strBad;
    }
    EXPECT_EQ(CCmInetAddr::Parse("10.1.2.4:00080", addr), CM_OK);
    EXPECT_TRUE(addr.IsResolved() && addr == CCmInetAddr("10.1.2.4", 80));
    const CResolver resolver;  // is not asked
    for (const std::string& strName : {"a-1.b_2."s, "1.2.c"s, "0xyz"s, strLong + strLabel.substr(2)}) {
        EXPECT_EQ(CCmInetAddr::Parse(strName + ":65535", addr, &strReason), CM_OK) << strName;
        EXPECT_EQ(addr.GetHostName(), strName);
        EXPECT_EQ(addr.GetPort(), 65535);
    }
}

TEST(InetAddr, EveryFormHasOneText) {
    const struct {
        const char* m_pTyped;  // for Parse
        const char* m_pText;
        DWORD m_dwType;
        DWORD m_dwSize;
    } CASES[] = {
        {"10.1.2.3:5", "10.1.2.3:5", AF_INET, 16},
        {"[::ffff:10.1.2.3]:5", "10.1.2.3:5", AF_INET, 16},
        {"[2001:DB8:0:0:1:0:0:1]:65535", "[2001:db8::1:0:0:1]:65535", AF_INET6, 28},
        {"[fe80::1%lo]:0", "[fe80::1%lo]:0", AF_INET6, 28},
        {"[ff02::1%1]:0", "[ff02::1%lo]:0", AF_INET6, 28},
        {"unix:/run/a b", "/run/a b", AF_UNIX, 11},
        {"unix:./@", "./@", AF_UNIX, 6},
        {"unix:@name", "@name", AF_UNIX, 7},
        {"unix:80", "unix:80", AF_INET, 16},
    };
    for (const auto& c : CASES) {
        CCmInetAddr addr;
        EXPECT_EQ(CM_OK, CCmInetAddr::Parse(c.m_pTyped, addr)) << c.m_pTyped;
        EXPECT_EQ(c.m_pText, cm_address_text(addr));
        EXPECT_EQ(c.m_dwType, addr.GetType()) << c.m_pTyped;
        EXPECT_EQ(c.m_dwSize, addr.GetSize()) << c.m_pTyped;
        CCmInetAddr copy("[::2]:9");
        EXPECT_EQ(CM_OK, cm_from_sockaddr(reinterpret_cast<const sockaddr*>(addr.GetPtr()), addr.GetSize(), copy));
        EXPECT_TRUE(copy == addr) << c.m_pTyped;
        EXPECT_EQ(CM_ERROR_INVALID_ARG, cm_from_sockaddr(reinterpret_cast<const sockaddr*>(addr.GetPtr()), 1, copy));
        EXPECT_TRUE(copy == addr) << c.m_pTyped;
    }
    EXPECT_TRUE(CCmInetAddr("[::1]:80") == CCmInetAddr("::1", 80));
    EXPECT_TRUE(CCmInetAddr("[::1]") == CCmInetAddr("::1"));
    EXPECT_EQ("::1", CCmInetAddr("[::1]:80").GetIpDisplayName());
    CCmInetAddr addr;
    const sockaddr_storage full{AF_UNIX, "/a", 0};
    EXPECT_EQ(CM_OK, cm_from_sockaddr(reinterpret_cast<const sockaddr*>(&full), sizeof(sockaddr_un) + 1, addr));
    addr = CCmInetAddr("[::1]:80");
    const CCmInetAddr copy = addr;
    EXPECT_EQ(CM_OK, addr.SetPort(81));
    EXPECT_EQ("[::1]:80 [::1]:81", cm_address_text(copy) + " " + cm_address_text(addr));
    EXPECT_EQ(CM_OK, addr.SetIpAddrBy4Bytes(htonl(0x0A000001)));
    EXPECT_TRUE(addr == CCmInetAddr("10.0.0.1", 81));
}

TEST(InetAddr, FamiliesAreOrderedAndNeverEqual) {
    std::vector<CCmInetAddr> addrs = {CCmInetAddr("0.0.0.0", 80), CCmInetAddr("255.255.255.255", 1), CCmInetAddr("::", 80),
                                      CCmInetAddr("::1", 80),     CCmInetAddr("::1", 256),           CCmInetAddr("::2", 1)};
    for (const char* pPath : {"@a", "/a", "/a.b", "/b"}) {
        EXPECT_EQ(CM_OK, addrs.emplace_back("::1", 80).SetPath(pPath));
        EXPECT_EQ(CM_ERROR_NOT_AVAILABLE, addrs.back().SetPort(1));
    }
    for (size_t i = 0; i < addrs.size(); ++i) {
        for (size_t k = 0; k < addrs.size(); ++k) {
            EXPECT_EQ(i < k, addrs[i] < addrs[k]) << i << " " << k;
            EXPECT_EQ(i == k, addrs[i] == addrs[k]) << i << " " << k;
        }
    }
}

TEST(InetAddr, NamesWaitForTheResolversCache) {
    CCmInetAddr addr;
    EXPECT_EQ(addr.Set("known", 7), CM_ERROR_WOULD_BLOCK);  // nobody resolves
    EXPECT_TRUE(addr == CCmInetAddr("other", 7));

    const CResolver resolver;
    EXPECT_EQ(addr.TryResolve(), CM_OK);
    EXPECT_TRUE(addr == CCmInetAddr("10.0.0.1", 7));
}

TEST(InetAddr, AGivenNameOutlivesItsResolution) {
    const CResolver resolver;
    CCmInetAddr addr("known", 7);  // resolved at once
    const CCmInetAddr copy = addr;
    EXPECT_EQ("10.0.0.1", addr.GetIpDisplayName());
    EXPECT_TRUE(addr == CCmInetAddr("10.0.0.1", 7));
    EXPECT_EQ(CM_OK, addr.SetName(addr.GetGivenName(), 8));  // asks no resolver
    EXPECT_EQ("known", addr.GetHostName());
    EXPECT_EQ(CM_OK, addr.SetResolvedIpAddr(htonl(0x0A000002)));
    EXPECT_STREQ("known", addr.GetGivenName());
    EXPECT_TRUE(addr == CCmInetAddr("10.0.0.2:8"));
    EXPECT_EQ(CM_OK, addr.SetResolvedIpAddr(CCmInetAddr("::2").GetIpBytes()));
    EXPECT_EQ("known [::2]:8", addr.GetGivenName() + (" " + cm_address_text(addr)));
    EXPECT_EQ(CM_OK, addr.SetResolvedIpAddr(talvo::CIpBytes()));
    EXPECT_EQ("known:8", cm_address_text(addr));
    for (const auto& set :
         {+[](CCmInetAddr& a) { return a.SetIpAddrByString("10.0.0.3"); },
          +[](CCmInetAddr& a) { return a.SetIpAddrBy4Bytes(1); }, +[](CCmInetAddr& a) { return a.SetName("10.0.0.3", 7); },
          +[](CCmInetAddr& a) { return CCmInetAddr::Parse("10.0.0.3:7", a); }}) {
        addr = copy;
        EXPECT_EQ(CM_OK, set(addr));
        EXPECT_STREQ("", addr.GetGivenName());
    }
    EXPECT_STREQ("known", copy.GetGivenName());
}

TEST(AddressFunctions, TextsLongerThanTheirBuffers) {
    EXPECT_STREQ(id_2_ip(0xFFFFFFFF), "255.255.255.255");
    EXPECT_EQ(ip_2_id(("1.2.3." + std::string(1000, '0')).c_str()), 0x01020300u);
    EXPECT_EQ(ip_2_id("0.256.0.0"), 0x01000000u);
    const struct {
        std::string m_strUrl;
        const char* m_pIp;  // null: refused
        unsigned short m_wPort;
    } CASES[] = {
        {"protocol://123.123.123.123:65616", "123.123", 80},
        {"tcp://1.2.3.4:" + std::string(50, '0'), "1.2.3.4", 0},
        {"tcp://1.2.3.4:" + std::string(51, '0'), nullptr, 1},
        {"tcp://1.2.3.4:", nullptr, 1},
    };
    for (const auto& c : CASES) {
        char szProto[8] = "";
        char szIp[8] = "";
        unsigned short wPort = 1;
        EXPECT_EQ(transport_address_parse(c.m_strUrl.c_str(), szProto, 8, szIp, 8, &wPort), c.m_pIp != nullptr) << c.m_strUrl;
        EXPECT_TRUE(!c.m_pIp || c.m_pIp == std::string(szIp)) << c.m_strUrl;
        EXPECT_EQ(wPort, c.m_wPort) << c.m_strUrl;
    }
}

}  // namespace
