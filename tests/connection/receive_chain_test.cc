#include "talvo/connection/protocol/receive_chain.h"

#include "tests/support/network_fixture.h"

using talvo::CReceiveChain;

TEST(ReceiveChainTest, BehavesLikeAString) {
    std::minstd_rand random(4711);
    const auto below = [&](size_t aLimit) { return static_cast<DWORD>(random() % aLimit); };
    CReceiveChain chain;
    std::string strModel;
    std::string strLent;
    std::vector<std::pair<CCmMessageBlock*, std::string>> kept;  // payloads that somebody holds on to
    for (int i = 0; i < 20000; ++i) {
        const size_t stCount = below(strModel.size() + 1);
        const DWORD dwCount = static_cast<DWORD>(stCount);
        switch (below(5)) {
        case 0:
        case 1: {
            std::string strPiece = Pattern(below(8) ? 1 + below(3) : 1 + below(3000), random());
            strModel += strPiece;
            if (below(2) == 0) {
                ASSERT_EQ(CM_OK, chain.Append(ViewOf(strPiece), below(2) * below(5000)));
                strPiece.assign(strPiece.size(), '#');
                break;
            }
            ASSERT_EQ(CM_OK, chain.Keep(below(2) * below(5000)));
            strLent.assign(strLent.size(), '#');
            strLent = strPiece;
            ASSERT_EQ(CM_OK, chain.Borrow(ViewOf(strLent)));
            break;
        }
        case 2: {
            std::string strRead(stCount, '\0');
            ASSERT_TRUE(chain.Peek(strRead.data(), dwCount));
            ASSERT_EQ(strModel.substr(0, stCount), strRead);
            ASSERT_FALSE(chain.Peek(nullptr, chain.GetLength() + 1));
            break;
        }
        case 3:
            chain.Skip(dwCount);
            strModel.erase(0, stCount);
            break;
        default:
            ASSERT_EQ(CM_OK, chain.Take(dwCount, [&](CCmMessageBlock& aBlock) {
                kept.emplace_back(aBlock.DuplicateChained(), strModel.substr(0, stCount));
                for (CCmMessageBlock* pMb = &aBlock; pMb; pMb = pMb->GetNext())
                    pMb->Write("scribble", 8);  // reaches no other holder's bytes
            }));
            strModel.erase(0, stCount);
        }
        ASSERT_EQ(strModel.size(), chain.GetLength());
    }
    for (const auto& [pBlock, strText] : kept) {
        EXPECT_EQ(strText, pBlock->FlattenChained());
        pBlock->DestroyChained();
    }
}
