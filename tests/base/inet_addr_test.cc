#include "talvo/base/inet_addr.h"

#include <gtest/gtest.h>

#include <cstring>

#include "talvo/base/address_functions.h"
#include "talvo/base/name_resolver.h"
#include "tests/support/trace_capture.h"

namespace {

// Runs as a static object's constructor, while the library's statics have to be there already.
const bool s_bAnyWasReady = CCmInetAddr::s_InetAddrAny == CCmInetAddr() && CCmInetAddr::s_InetAddrAny.GetType() == AF_INET;

class CResolver : public ICmNameResolver {
public:
    CResolver() { Set(this); }
    ~CResolver() override { Set(nullptr); }
    CmResult ResolveFromCache(const CCmString& aName, DWORD& aAddr) override {
        if (aName == "known")
            aAddr = htonl(0x0A000001);
        if (aName == "nowhere")
            aAddr = 0xFFFFFFFF;
        return aName == "later" ? CM_ERROR_WOULD_BLOCK : CM_OK;
    }
};

TEST(InetAddr, TakesLiteralsWithPorts) {
    EXPECT_TRUE(s_bAnyWasReady);
    const CCmInetAddr addr("10.1.2.3:8080");
    EXPECT_EQ(addr.GetIpAddrIn4Bytes(), htonl(0x0A010203));
    EXPECT_EQ(addr.GetPort(), 8080);
    EXPECT_EQ(addr.GetPtr()->sin_port, htons(8080));
    EXPECT_TRUE(addr.IsResolved());
    EXPECT_EQ(addr.GetIpDisplayName(), "10.1.2.3");
    EXPECT_EQ(CCmInetAddr("255.255.255.255", 1).GetIpAddrIn4Bytes(), 0xFFFFFFFF);
    EXPECT_TRUE(CCmInetAddr(nullptr, 80) == CCmInetAddr("", 80));
    EXPECT_EQ(CCmInetAddr("0x7f.1", 1).GetIpDisplayName(), "127.0.0.1");
    EXPECT_FALSE(CCmInetAddr("256.1.1.1", 1).IsResolved());
}

TEST(InetAddr, AMissingPortIsTraced) {
    CCmTraceCapture trace;
    const CCmInetAddr addr("10.1.2.3");
    EXPECT_EQ(addr.GetPort(), 0);
    EXPECT_EQ(addr.GetIpDisplayName(), "10.1.2.3");
    ASSERT_EQ(trace.Count("CCmInetAddr::Set, unknow aIpAddrAndPort=10.1.2.3"), 1u);
    EXPECT_EQ(trace.Lines()[0].m_dwLevel, CM_TRACE_WARNING);
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

TEST(InetAddr, NamesWaitForTheResolversCache) {
    CCmInetAddr addr;
    EXPECT_EQ(addr.Set("known", 7), CM_ERROR_WOULD_BLOCK);  // nobody resolves
    EXPECT_EQ(addr.GetHostName(), "known");
    EXPECT_EQ(addr.GetIpDisplayName(), "known");
    EXPECT_TRUE(addr == CCmInetAddr("other", 7));

    const CResolver resolver;
    EXPECT_EQ(addr.TryResolve(), CM_OK);
    EXPECT_TRUE(addr == CCmInetAddr("10.0.0.1", 7));
    EXPECT_EQ(addr.GetHostName(), "");
    EXPECT_EQ(addr.Set("later:7"), CM_ERROR_WOULD_BLOCK);
    EXPECT_FALSE(addr.IsResolved());
    EXPECT_EQ(addr.Set("nowhere:7"), CM_OK);
    EXPECT_EQ(addr.GetIpDisplayName(), "255.255.255.255");
}

TEST(InetAddr, OrdersByStoredWordsThenPorts) {
    const bool bLittle = htonl(1) != 1;
    EXPECT_EQ(CCmInetAddr("11.0.0.1", 0) < CCmInetAddr("10.0.0.2", 0), bLittle);
    EXPECT_EQ(CCmInetAddr("10.0.0.2", 0x0001) < CCmInetAddr("10.0.0.2", 0x0100), !bLittle);
    EXPECT_FALSE(CCmInetAddr("10.0.0.2", 1) < CCmInetAddr("10.0.0.2", 1));
}

TEST(AddressFunctions, IdsAndDottedTexts) {
    const auto id = [](const char* aText) { return ip_2_id(aText); };
    EXPECT_EQ(id("1.2.3.4"), 0x01020304u);
    EXPECT_STREQ(id_2_ip(0x01020304), "1.2.3.4");
    EXPECT_STREQ(id_2_ip(0xFFFFFFFF), "255.255.255.255");
    EXPECT_EQ(id(""), 0u);
    EXPECT_EQ(id("   "), 0u);
    EXPECT_EQ(id("1.2"), 0x01020000u);
    EXPECT_EQ(id("0.256.0.0"), 0x01000000u);
    EXPECT_EQ(id(("1.2.3." + std::string(1000, '0')).c_str()), 0x01020300u);
    EXPECT_EQ(id("localhost"), 0x7F000001u);
    EXPECT_TRUE(is_ip_address(" 1.2.3.4.5\t"));
    EXPECT_FALSE(is_ip_address("1.2.3.x"));

    CCmTraceCapture trace;
    EXPECT_EQ(id(nullptr), 0u);
    EXPECT_TRUE(trace.Contains("is_ip_address: ip string is null"));
    EXPECT_TRUE(trace.Contains("resolve_2_ip: No host_name: (null); or ip_address: "));
    char szIp[16] = "untouched";
    resolve_2_ip("not a name", szIp);
    EXPECT_STREQ(szIp, "untouched");
    EXPECT_TRUE(trace.Contains("resolve_2_ip: can't resolve host_name: not a name"));
    EXPECT_NE(std::strlen(get_local_ip()), 0u);
    EXPECT_TRUE(is_ip_address(get_local_ip_address()));
}

TEST(AddressFunctions, TransportAddressParse) {
    struct {
        std::string m_strUrl;
        bool m_bGood;
        const char* m_pProto;
        const char* m_pIp;
        unsigned short m_wPort;
    } const cases[] = {
        {"tcp://1.2.3.4:80", true, "tcp", "1.2.3.4", 80},
        {"protocol://123.123.123.123:65616", true, "protoco", "123.123", 80},
        {"tcp://localhost:9", true, "tcp", "127.0.0", 9},
        {"tcp://1.2.3.4:" + std::string(50, '0'), true, "tcp", "1.2.3.4", 0},
        {"tcp://1.2.3.4:" + std::string(51, '0'), false, "", "", 1},
        {"tcp:1.2.3.4:80", false, "", "", 1},
        {"tcp://1.2.3.4", false, "tcp", "", 1},
        {"tcp://1.2.3.4:", false, "tcp", "1.2.3.4", 1},
    };
    for (const auto& c : cases) {
        char szProto[8] = "";
        char szIp[8] = "";
        unsigned short wPort = 1;
        EXPECT_EQ(transport_address_parse(c.m_strUrl.c_str(), szProto, 8, szIp, 8, &wPort), c.m_bGood) << c.m_strUrl;
        EXPECT_STREQ(szProto, c.m_pProto) << c.m_strUrl;
        EXPECT_STREQ(szIp, c.m_pIp) << c.m_strUrl;
        EXPECT_EQ(wPort, c.m_wPort) << c.m_strUrl;
        EXPECT_FALSE(transport_address_parse(c.m_strUrl.c_str(), szProto, 0, szIp, 8, &wPort));
    }
}

}  // namespace
