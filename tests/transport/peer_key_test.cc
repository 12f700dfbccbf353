#include "talvo/transport/udp/peer_key.h"

#include <arpa/inet.h>

#include "talvo/base/inet_addr.h"
#include "tests/support/test.h"

TEST(PeerKeyTest, BothFormsOfAnIpv4AddressAreOneKey) {
    const auto key = [](const CCmInetAddr& aAddr) {
        return talvo::CPeerKey::Of(*reinterpret_cast<const sockaddr*>(aAddr.GetPtr()));
    };
    sockaddr_in6 mapped{AF_INET6, htons(5), 0, {}, 0};
    ASSERT_EQ(1, inet_pton(AF_INET6, "::ffff:10.1.2.3", &mapped.sin6_addr));
    EXPECT_EQ(key(CCmInetAddr("10.1.2.3:5")), talvo::CPeerKey::Of(reinterpret_cast<const sockaddr&>(mapped)));
    EXPECT_NE(key(CCmInetAddr("[fe80::1%1]:5")), key(CCmInetAddr("[fe80::1]:5")));
    const std::array<uint64_t, 3> words = {0x0706050403020100, 0x0F0E0D0C0B0A0908, 0x1716151413121110};
    EXPECT_EQ(0xF464AEB267349C8C, talvo::CKeyedHash(words[0], words[1])(words));  // as OpenSSL's, with 1 and 3 rounds
}
