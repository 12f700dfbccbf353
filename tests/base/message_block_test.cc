#include "talvo/base/message_block.h"

#include "talvo/base/data_block_no_malloc.h"
#include "tests/support/blocks.h"
#include "tests/support/test.h"

namespace {

TEST(MessageBlock, PositionsStopAtTheirLimits) {
    EXPECT_EQ(0u, CCmMessageBlock(0).GetTopLevelSpace());  // a size, and no null pointer
    DWORD dwDone = 9;
    const CCmChainPtr pMb(MakeBlock("abc", 2));
    EXPECT_EQ(pMb->AdvanceTopLevelReadPtr(4), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(pMb->AdvanceTopLevelReadPtr(0xFFFFFFFF), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(pMb->AdvanceTopLevelWritePtr(3), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(pMb->AdvanceTopLevelReadPtr(2), CM_OK);
    EXPECT_EQ(pMb->Write("defg", 4, &dwDone), CM_ERROR_PARTIAL_DATA);
    EXPECT_EQ(dwDone, 2u);
    EXPECT_EQ(pMb->FlattenChained(), "cde");
    const CCmChainPtr pFilled(MakeBlock("", 3));
    pFilled->Append(MakeBlock("", 4));
    EXPECT_EQ(pFilled->AdvanceChainedWritePtr(9, &dwDone), CM_ERROR_PARTIAL_DATA);
    EXPECT_EQ(dwDone, 7u);
}

TEST(MessageBlock, RewindGivesAllTheFirstBegin) {
    const CCmChainPtr pFirst(MakeBlock("ab", 2));
    pFirst->Append(MakeBlock("cd"));
    CCmMessageBlock& second = *pFirst->GetNext();
    const char* pSecond = second.GetTopLevelReadPtr();
    second.AdvanceTopLevelReadPtr(1);
    pFirst->RewindChained();
    EXPECT_EQ(pFirst->GetTopLevelLength(), 0u);
    EXPECT_EQ(second.GetTopLevelReadPtr(), pSecond);
    EXPECT_EQ(second.GetTopLevelWritePtr(), pFirst->GetTopLevelReadPtr());
}

TEST(DataBlockNoMalloc, ReadKnowsTheEndOnlyWhenItStandsThere) {
    char szData[] = "abcdef";
    char szRead[8] = {};
    DWORD dwRead = 9;
    CCmDataBlockNoMalloc block(szData, 4);
    EXPECT_EQ(block.Read(szRead, 3), CM_OK);
    EXPECT_EQ(block.Read(szRead + 3, 1), CM_OK);
    EXPECT_EQ(block.Read(szRead, 1, &dwRead), CM_ERROR_PARTIAL_DATA);
    EXPECT_EQ(dwRead, 0u);
    CCmDataBlockNoMalloc beyond(szData, 4);
    EXPECT_EQ(beyond.Read(szRead, 6, &dwRead), CM_OK);
    EXPECT_EQ(std::string(szRead, dwRead), "abcdef");
}

TEST(MessageBlock, ForeignStorageIsCopiedWhereItMightOutliveItsOwner) {
    CCmTraceCapture trace;
    char szData[] = "abcd";
    CCmMessageBlock first(4, szData, 0, 4);
    CCmMessageBlock second(3, "efg", 0, 3);
    const CCmChainPtr pCopy(first.DuplicateTopLevel());
    first.Append(&second);
    first.Append(&second);  // already there
    const CCmChainPtr pRest(first.Disjoint(2));
    szData[3] = 'X';
    EXPECT_EQ(pCopy->FlattenChained(), "abcd");
    EXPECT_EQ(pRest->FlattenChained(), "cdefg");
    EXPECT_EQ(first.FlattenChained(), "ab");
    CCmMessageBlock large(0xFFFFFFF0, szData, CCmMessageBlock::DONT_DELETE, 0xFFFFFFF0);  // nothing reads it
    CCmMessageBlock more(0x20, szData, CCmMessageBlock::DONT_DELETE, 0x20);
    large.Append(&more);
    EXPECT_EQ(large.GetChainedLength(), 0xFFFFFFFF);
    EXPECT_EQ(trace.Count("CCmMessageBlock::Disjoint, there are not DUPLICATED blocks behind the disjointed block."), 1u);

    CCmMessageBlock* pHead = MakeBlock("xyz");
    pHead->Append(&second);
    pHead->DestroyChained();  // but not the one on the stack
    EXPECT_EQ(trace.Count("CCmMessageBlock::DestroyChained, block is not DUPLICATED."), 1u);
}

// The same random operations on a chain and on a string.
class CWalk {
public:
    void Step() {
        switch (Below(5)) {
        case 0:
            return AppendText();
        case 1:
            return ReadSome();
        case 2:
            return CutAndJoin();
        case 3:
            return m_pChain.reset(m_pChain->DuplicateChained());
        default:
            m_pChain.reset(m_pChain.release()->ReclaimGarbage());
            if (!m_pChain)
                m_pChain.reset(MakeBlock(""));
        }
    }
    void Check() const {
        ASSERT_EQ(m_pChain->FlattenChained(), m_strModel);
        iovec pieces[4];
        std::string strPieces;
        for (DWORD n = 0, dwCount = m_pChain->FillIov(pieces, 4); n < dwCount; ++n)
            strPieces.append(static_cast<char*>(pieces[n].iov_base), pieces[n].iov_len);
        ASSERT_TRUE(m_strModel.starts_with(strPieces) && strPieces.empty() == m_strModel.empty()) << strPieces;
    }

private:
    DWORD Below(size_t aLimit) { return static_cast<DWORD>(m_Random() % aLimit); }

    void AppendText() {
        const std::string strText(Below(9), static_cast<char>('a' + Below(26)));
        m_pChain->Append(MakeBlock(strText, Below(3)));
        m_strModel += strText;
    }
    void ReadSome() {
        std::string strOut(Below(12), '\0');
        DWORD dwDone = 0;
        const CmResult rv = m_pChain->Read(strOut.data(), static_cast<DWORD>(strOut.size()), &dwDone, TRUE);
        ASSERT_EQ(rv == CM_OK, strOut.size() <= m_strModel.size());
        ASSERT_EQ(strOut.substr(0, dwDone), m_strModel.substr(0, strOut.size()));
        m_strModel.erase(0, dwDone);
    }
    void CutAndJoin() {
        const DWORD dwCut = Below(m_strModel.size() + 2);
        CCmMessageBlock* pSecond = m_pChain->Disjoint(dwCut);
        ASSERT_EQ(m_pChain->FlattenChained(), m_strModel.substr(0, dwCut));
        ASSERT_EQ(pSecond ? pSecond->FlattenChained() : "", m_strModel.substr(std::min<size_t>(dwCut, m_strModel.size())));
        m_pChain->Append(pSecond);
    }

    std::mt19937 m_Random{42};
    std::string m_strModel;
    CCmChainPtr m_pChain{MakeBlock("")};
};

TEST(MessageBlock, RandomWalkAgreesWithAString) {
    CWalk walk;
    for (int n = 0; n < 20000 && !testing::Test::HasFatalFailure(); ++n) {
        walk.Step();
        walk.Check();
    }
}

}  // namespace
