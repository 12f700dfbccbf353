#include "talvo/base/inet_addr.h"

#include "talvo/base/address_functions.h"
#include "talvo/base/name_resolver.h"
#include "tests/support/test.h"

namespace {

class CResolver : public ICmNameResolver {
public:
    CResolver() { Set(this); }
    ~CResolver() override { Set(nullptr); }
    CmResult ResolveFromCache(const CCmString&, DWORD& aAddr) override {
        aAddr = htonl(0x0A000001);
        return CM_OK;
    }
};

TEST(InetAddr, TakesLiteralsWithPorts) {
    const CCmInetAddr addr("10.1.2.3:8080");
    EXPECT_EQ(addr.GetIpAddrIn4Bytes(), htonl(0x0A010203));
    EXPECT_EQ(addr.GetPtr()->sin_port, htons(8080));
    EXPECT_FALSE(CCmInetAddr("256.1.1.1", 1).IsResolved());
    CCmTraceCapture trace;
    EXPECT_TRUE(CCmInetAddr("10.1.2.3") == CCmInetAddr("10.1.2.3", 0));
    EXPECT_EQ(trace.Count("CCmInetAddr::Set, unknow aIpAddrAndPort=10.1.2.3"), 1u);
}

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
    for (const std::string& strBad : {std::string(),
                                      std::string("host"),
                                      std::string("host:"),
                                      std::string("host:notaport"),
                                      std::string("host:65536"),
                                      std::string("host:000080"),
                                      std::string("host:+1"),
                                      std::string("host: 1"),
                                      std::string(":1"),
                                      std::string("1.2:1"),
                                      std::string("0x7f.1:1"),
                                      std::string("a.0x1f:1"),
                                      std::string("256.1.1.1:1"),
                                      std::string("1.2.3.04:1"),
                                      std::string("1.2.3.4\0:1", 10),
                                      std::string("a..b:1"),
                                      std::string(".:1"),
                                      strLabel + "a:1",
                                      std::string("a b:1"),
                                      std::string("u@h:1"),
                                      std::string("::1:1"),
                                      std::string("[::1]:1"),
                                      std::string("unix:/a"),
                                      std::string("h:1/"),
                                      strLabel + "." + strLabel + "." + strLabel + "." + strLabel.substr(1) + ":1"}) {
        strReason.clear();
        EXPECT_EQ(CCmInetAddr::Parse(strBad, addr, &strReason), CM_ERROR_INVALID_ARG) << strBad;
        EXPECT_FALSE(strReason.empty()) << strBad;
        EXPECT_TRUE(addr == CCmInetAddr("10.1.2.3", 5)) << strBad;
    }
    EXPECT_EQ(CCmInetAddr::Parse("10.1.2.4:00080", addr), CM_OK);
    EXPECT_TRUE(addr.IsResolved() && addr == CCmInetAddr("10.1.2.4", 80));
    const CResolver resolver;  // is not asked
    const std::string strLongest = strLabel + "." + strLabel + "." + strLabel + "." + strLabel.substr(2);
    for (const std::string& strName : {std::string("a-1.b_2."), std::string("1.2.c"), std::string("0xyz"), strLongest}) {
        EXPECT_EQ(CCmInetAddr::Parse(strName + ":65535", addr, &strReason), CM_OK) << strName;
        EXPECT_EQ(addr.GetHostName(), strName);
        EXPECT_EQ(addr.GetPort(), 65535);
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
