#include "talvo/transport/udp/peer_table.h"

#include "tests/support/test.h"

using Table = talvo::CPeerTableT<int>;

TEST(PeerTableTest, TheOneSilentForLongestIsFoundAfterAnyHistory) {
    Table table;
    EXPECT_EQ(nullptr, table.GetSilent());
    std::map<uint64_t, int64_t> model;  // address -> last heard of, all times different
    std::mt19937 random(7);
    int objects[50] = {};
    for (int64_t llNow = 1; llNow < 20000; ++llNow) {
        const size_t stPeer = random() % 50;
        const uint64_t ullKey = Table::KeyOf(static_cast<uint32_t>(stPeer % 5), static_cast<uint16_t>(stPeer / 5));
        Table::CPeer* pPeer = table.Find(ullKey);
        ASSERT_EQ(model.contains(ullKey), pPeer != nullptr);
        if (random() % 3 == 0) {
            table.Remove(ullKey);
            model.erase(ullKey);
        } else if (pPeer) {
            EXPECT_EQ(&objects[stPeer], pPeer->Get());
            table.Hear(*pPeer, llNow);
            model[ullKey] = llNow;
        } else {
            table.Add(ullKey, &objects[stPeer], llNow);
            model[ullKey] = llNow;
        }
        ASSERT_EQ(model.size(), table.GetCount());
        if (model.empty())
            continue;
        int64_t llOldest = INT64_MAX;
        for (const auto& [key, heard] : model)
            llOldest = std::min(llOldest, heard);
        ASSERT_EQ(llOldest, Table::GetHeardUsec(*table.GetSilent()));
    }
}
