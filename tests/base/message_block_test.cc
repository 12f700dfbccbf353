#include "talvo/base/message_block.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "talvo/base/data_block_no_malloc.h"
#include "tests/support/trace_capture.h"

namespace {

struct CDestroy {
    void operator()(CCmMessageBlock* aMb) const { aMb->DestroyChained(); }
};
using CChain = std::unique_ptr<CCmMessageBlock, CDestroy>;

// A DUPLICATED block with storage of its own that holds aText and has aSpace bytes left.
CCmMessageBlock* MakeBlock(const std::string& aText, DWORD aSpace = 0) {
    CCmMessageBlock mb(static_cast<DWORD>(aText.size()) + aSpace);
    mb.Write(aText.data(), static_cast<DWORD>(aText.size()));
    return mb.DuplicateTopLevel();
}

CChain MakeChain(std::initializer_list<const char*> aTexts) {
    CChain pHead;
    for (const char* pText : aTexts) {
        CCmMessageBlock* pMb = MakeBlock(pText);
        if (pHead)
            pHead->Append(pMb);
        else
            pHead.reset(pMb);
    }
    return pHead;
}

TEST(DataBlock, IsMadeWithOneReference) {
    CCmDataBlock* const pNobody = reinterpret_cast<CCmDataBlock*>(8);
    CCmDataBlock* pDb = pNobody;
    EXPECT_EQ(CCmDataBlock::CreateInstance(pDb, 0, "x"), CM_ERROR_INVALID_ARG);
    EXPECT_EQ(pDb, pNobody);
    ASSERT_EQ(CCmDataBlock::CreateInstance(pDb, 4, "abcd"), CM_OK);
    EXPECT_EQ(std::string(pDb->GetBasePtr(), pDb->GetLength()), "abcd");
    EXPECT_EQ(pDb->AddReference(), 2u);
    EXPECT_EQ(pDb->ReleaseReference(), 1u);
    EXPECT_EQ(pDb->ReleaseReference(), 0u);
}

TEST(MessageBlock, ConstructorsChooseTheStorage) {
    const char szData[] = "0123456789";
    const CCmMessageBlock wrap(10, szData, CCmMessageBlock::READ_LOCKED | 0x40000, 4);
    EXPECT_EQ(wrap.GetTopLevelReadPtr(), szData);
    EXPECT_EQ(wrap.GetTopLevelLength(), 4u);
    EXPECT_EQ(wrap.GetTopLevelSpace(), 6u);
    EXPECT_EQ(wrap.GetFlag(), 0x40000 | CCmMessageBlock::DONT_DELETE);
    const CCmMessageBlock own(10, szData, CCmMessageBlock::MALLOC_AND_COPY, 11);
    EXPECT_NE(own.GetTopLevelReadPtr(), szData);
    EXPECT_EQ(own.GetTopLevelLength(), 0u);
    EXPECT_EQ(own.GetFlag(), 0u);
    const CCmMessageBlock none(0u);
    EXPECT_EQ(none.GetTopLevelSpace(), 0u);
    EXPECT_TRUE(CChain(none.DuplicateChained()));
}

TEST(MessageBlock, PositionsStopAtTheirLimits) {
    const CChain pMb(MakeBlock("abc", 2));
    EXPECT_EQ(pMb->AdvanceTopLevelReadPtr(4), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(pMb->AdvanceTopLevelReadPtr(0xFFFFFFFF), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(pMb->AdvanceTopLevelWritePtr(3), CM_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(pMb->AdvanceTopLevelReadPtr(2), CM_OK);
    DWORD dwDone = 9;
    EXPECT_EQ(pMb->Write("defg", 4, &dwDone), CM_ERROR_PARTIAL_DATA);
    EXPECT_EQ(dwDone, 2u);
    EXPECT_EQ(pMb->FlattenChained(), "cde");
    pMb->RewindChained();
    EXPECT_EQ(pMb->GetTopLevelLength(), 0u);
    EXPECT_EQ(pMb->GetTopLevelSpace(), 5u);
}

TEST(MessageBlock, ReadsAcrossTheChain) {
    const CChain pMb = MakeChain({"abcd", "", "efg"});
    char szOut[11] = "";
    DWORD dwDone = 0;
    EXPECT_EQ(pMb->Read(szOut, 6, &dwDone, FALSE), CM_OK);
    EXPECT_STREQ(szOut, "abcdef");
    EXPECT_EQ(pMb->Read(szOut, 10, &dwDone, TRUE), CM_ERROR_PARTIAL_DATA);
    EXPECT_STREQ(szOut, "abcdefg");
    EXPECT_EQ(dwDone, 7u);
    EXPECT_EQ(pMb->GetChainedLength(), 0u);
}

TEST(MessageBlock, FilledInPlaceItAdvancesAcrossTheChain) {
    const CChain pMb(MakeBlock("", 3));
    pMb->Append(MakeBlock("", 4));
    DWORD dwDone = 0;
    EXPECT_EQ(pMb->AdvanceChainedWritePtr(5, &dwDone), CM_OK);
    EXPECT_EQ(pMb->GetTopLevelLength(), 3u);
    EXPECT_EQ(pMb->GetChainedSpace(), 2u);
    EXPECT_EQ(pMb->AdvanceChainedWritePtr(9, &dwDone), CM_ERROR_PARTIAL_DATA);
    EXPECT_EQ(dwDone, 2u);

    CCmTraceCapture trace;
    pMb->AdvanceTopLevelReadPtr(1);
    EXPECT_EQ(pMb->AdvanceChainedWritePtr(1, &dwDone), CM_ERROR_PARTIAL_DATA);
    EXPECT_EQ(dwDone, 0u);
    EXPECT_TRUE(trace.Contains("CCmMessageBlock::AdvanceChainedWritePtr, can't advance. m_pBeginPtr=0x"));
}

TEST(MessageBlock, DuplicatesShareStorageUnlessItIsForeign) {
    char szData[] = "abcdef";
    CCmMessageBlock foreign(6, szData, CCmMessageBlock::WRITE_LOCKED, 5);
    foreign.AdvanceTopLevelReadPtr(2);
    const CChain pCopy(foreign.DuplicateTopLevel());
    EXPECT_NE(pCopy->GetTopLevelReadPtr(), foreign.GetTopLevelReadPtr());
    szData[2] = 'X';
    EXPECT_EQ(pCopy->FlattenChained(), "cde");
    EXPECT_EQ(pCopy->GetTopLevelSpace(), 1u);
    EXPECT_EQ(pCopy->GetFlag(), CCmMessageBlock::DUPLICATED);

    const CChain pShared(pCopy->DuplicateChained());
    EXPECT_EQ(pShared->GetTopLevelReadPtr(), pCopy->GetTopLevelReadPtr());
    pShared->AdvanceTopLevelReadPtr(1);
    EXPECT_EQ(pCopy->FlattenChained(), "cde");
}

TEST(MessageBlock, DisjointCutsAtEveryByte) {
    for (DWORD dwCut = 0; dwCut <= 7; ++dwCut) {
        const CChain pMb = MakeChain({"", "abcd", "", "efg"});
        const CCmMessageBlock* pLast = pMb->GetNext()->GetNext()->GetNext();
        CCmMessageBlock* pSecond = pMb->Disjoint(dwCut);
        EXPECT_EQ(pMb->FlattenChained(), std::string("abcdefg").substr(0, dwCut));
        if (dwCut == 7) {
            EXPECT_EQ(pSecond, nullptr);
            continue;
        }
        const CChain pHolder(pSecond);
        EXPECT_EQ(pSecond->FlattenChained(), std::string("abcdefg").substr(dwCut));
        EXPECT_TRUE(dwCut != 4 || pSecond->GetNext() == pLast);
    }
    const CChain pMb = MakeChain({"abc"});
    EXPECT_EQ(pMb->Disjoint(99), nullptr);
    EXPECT_EQ(MakeChain({"", ""})->Disjoint(0), nullptr);
    EXPECT_EQ(pMb->FlattenChained(), "abc");
}

TEST(MessageBlock, DisjointReplacesBlocksOfOthers) {
    CCmTraceCapture trace;
    CCmMessageBlock first(4, "abcd", 0, 4);
    CCmMessageBlock second(3, "efg", 0, 3);
    first.Append(&second);
    first.Append(&second);  // already there
    const CChain pRest(first.Disjoint(2));
    ASSERT_TRUE(pRest);
    EXPECT_EQ(pRest->FlattenChained(), "cdefg");
    EXPECT_EQ(first.FlattenChained(), "ab");
    EXPECT_NE(pRest->GetNext(), &second);
    EXPECT_EQ(trace.Count("CCmMessageBlock::Disjoint, there are not DUPLICATED blocks behind the disjointed block."), 1u);
}

TEST(MessageBlock, FreesOnlyDuplicatedBlocks) {
    CCmTraceCapture trace;
    CCmMessageBlock own(3, "abc", 0, 3);
    CCmMessageBlock* pHead = MakeBlock("xyz");
    pHead->Append(&own);
    pHead->DestroyChained();
    EXPECT_EQ(trace.Count("CCmMessageBlock::DestroyChained, block is not DUPLICATED."), 1u);

    own.Append(MakeBlock(""));
    own.Append(MakeBlock("tail"));
    own.AdvanceTopLevelReadPtr(3);
    CCmMessageBlock* pRest = own.ReclaimGarbage();
    ASSERT_NE(pRest, nullptr);
    EXPECT_EQ(own.GetNext(), pRest);
    pRest->AdvanceTopLevelReadPtr(4);
    EXPECT_EQ(own.ReclaimGarbage(), nullptr);
    EXPECT_EQ(own.GetNext(), nullptr);
}

TEST(MessageBlock, RewindGivesAllTheFirstBegin) {
    const CChain pMb = MakeChain({"abc", "def"});
    const char* pBegin = pMb->GetTopLevelReadPtr();
    const char* pSecond = pMb->GetNext()->GetTopLevelReadPtr();
    pMb->RewindChained();
    EXPECT_EQ(pMb->GetNext()->GetTopLevelWritePtr(), pBegin);
    EXPECT_EQ(pMb->GetNext()->GetTopLevelReadPtr(), pSecond);
}

TEST(MessageBlock, IovHoldsTheUnreadParts) {
    const CChain pMb = MakeChain({"abc", "", "def", "g"});
    pMb->AdvanceTopLevelReadPtr(1);
    iovec iov[8];
    ASSERT_EQ(pMb->FillIov(iov, 8), 3u);
    EXPECT_EQ(std::string(static_cast<char*>(iov[0].iov_base), iov[0].iov_len), "bc");
    EXPECT_EQ(iov[1].iov_len, 3u);
    EXPECT_EQ(pMb->FillIov(iov, 2), 2u);
}

TEST(MessageBlock, StorageIsSharedBetweenThreads) {
    const CChain pMb = MakeChain({"abc", "def"});
    std::vector<std::thread> threads;
    for (int n = 0; n < 4; ++n) {
        CCmMessageBlock* pMine = pMb->DuplicateChained();
        threads.emplace_back([pMine] {
            for (int i = 0; i < 1000; ++i)
                CChain(pMine->DuplicateChained())->AdvanceChainedReadPtr(4);
            EXPECT_EQ(pMine->FlattenChained(), "abcdef");
            pMine->DestroyChained();
        });
    }
    for (auto& thread : threads)
        thread.join();
}

// The same random operations on a chain and on a string.
class CWalk {
public:
    void Step() {
        switch (m_Random() % 6) {
        case 0:
        case 1:
            return AppendText();
        case 2:
            return ReadSome();
        case 3:
            return CutAndJoin();
        case 4:
            m_pChain.reset(m_pChain->DuplicateChained());
            return;
        case 5:
            return Reclaim();
        }
    }
    void Check() const {
        ASSERT_EQ(m_pChain->FlattenChained(), m_strModel);
        ASSERT_EQ(m_pChain->GetChainedLength(), m_strModel.size());
    }

private:
    DWORD Below(size_t aLimit) { return static_cast<DWORD>(m_Random() % aLimit); }

    void AppendText() {
        std::string strText(Below(9), '\0');
        for (char& c : strText)
            c = static_cast<char>('a' + Below(26));
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
    void Reclaim() {
        m_pChain.reset(m_pChain.release()->ReclaimGarbage());
        if (!m_pChain)
            m_pChain.reset(MakeBlock(""));
    }

    std::mt19937 m_Random{42};
    std::string m_strModel;
    CChain m_pChain{MakeBlock("")};
};

TEST(MessageBlock, RandomWalkAgreesWithAString) {
    CWalk walk;
    for (int n = 0; n < 20000; ++n) {
        walk.Step();
        walk.Check();
        if (testing::Test::HasFatalFailure())
            return;
    }
}

TEST(DataBlockNoMalloc, ReadKnowsTheEndOnlyWhenItStandsThere) {
    char szBuffer[9] = "01234567";
    char szOut[9] = "";
    DWORD dwDone = 9;
    CCmDataBlockNoMalloc block(szBuffer, 4);
    EXPECT_EQ(block.Read(szOut, 3, &dwDone), CM_OK);
    EXPECT_EQ(block.Read(szOut, 1, &dwDone), CM_OK);
    EXPECT_EQ(block.Read(szOut, 1, &dwDone), CM_ERROR_PARTIAL_DATA);
    EXPECT_EQ(dwDone, 0u);
    CCmDataBlockNoMalloc beyond(szBuffer, 4);
    EXPECT_EQ(beyond.Read(szOut, 6, &dwDone), CM_OK);
    EXPECT_EQ(std::string(szOut, dwDone), "012345");
    EXPECT_EQ(block.Read(nullptr, 1), CM_ERROR_INVALID_ARG);
    EXPECT_EQ(CCmDataBlockNoMalloc(nullptr, 4).Read(szOut, 1), CM_ERROR_NOT_INITIALIZED);
}

TEST(DataBlockNoMalloc, WriteStopsAtTheEnd) {
    char szBuffer[5] = "....";
    DWORD dwDone = 9;
    CCmDataBlockNoMalloc block(szBuffer, 3);
    EXPECT_EQ(block.Write("ab", 2, &dwDone), CM_OK);
    EXPECT_EQ(block.Write("cd", 2, &dwDone), CM_ERROR_PARTIAL_DATA);
    EXPECT_EQ(dwDone, 1u);
    EXPECT_STREQ(szBuffer, "abc.");
    EXPECT_EQ(block.Write(nullptr, 1), CM_ERROR_INVALID_ARG);
    EXPECT_EQ(CCmDataBlockNoMalloc(nullptr, 4).Write("a", 1), CM_ERROR_NOT_INITIALIZED);
}

}  // namespace
