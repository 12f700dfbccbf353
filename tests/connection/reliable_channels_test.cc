#include "talvo/connection/protocol/reliable_channels.h"

#include <malloc.h>

#include <set>

#include "talvo/base/config.h"
#include "talvo/connection/protocol/rlb_conn_tcp_server.h"
#include "tests/support/test.h"

// The number of a forgotten reason rests like any other, and comes last. Numbers that rest long do not add up to more memory.
TEST(ReliableChannelsTest, NumbersRest) {
    const CCmTempDir dir;
    EXPECT_EQ(CM_OK, load_config_file(dir.Write("talvo.cfg", "[Reliable]\nMaxLost=1\n").c_str()));
    const auto pChannels = std::make_shared<talvo::CReliableChannels>();
    EXPECT_EQ(CM_ERROR_NOT_FOUND, load_config_file("/nonexistent"));
    const CCmRefPtrT<CRlbConnTCPServer> pConn(new CRlbConnTCPServer);
    const auto open = [&] { return pChannels->Open(*pConn, {}, {}); };
    const WORD wFirst = open(), wSecond = open();
    pChannels->Remember(wFirst, 1, 86400);
    pChannels->Remember(wSecond, 1, 86400);  // instead of the first one's
    std::set<WORD> others;
    for (int i = 0; i < 65533; ++i)
        others.insert(open());
    EXPECT_EQ(65533u, others.size());
    EXPECT_FALSE(others.contains(0) || others.contains(wFirst) || others.contains(wSecond));
    EXPECT_EQ(wFirst, open());
    EXPECT_EQ(0, open());
    const size_t stBytes = mallinfo2().uordblks;
    for (int i = 0; i < 20000; ++i) {
        pChannels->Forget(wFirst, 86400);
        EXPECT_EQ(wFirst, open());
    }
    EXPECT_LT(mallinfo2().uordblks, stBytes + 500000);
}
