#include "talvo/connection/protocol/cs_send_buf.h"

#include <malloc.h>

#include "talvo/connection/protocol/gather_chain.h"
#include "tests/support/test.h"

namespace {

using namespace std::string_literals;

class CSendBuf : public CCsSendBuf {
public:
    explicit CSendBuf(DWORD aMaxBufLen, DWORD aFirstSeq = 1) : CCsSendBuf(aMaxBufLen, aFirstSeq) {}
    // All blocks but the last hold one byte.
    DWORD AddText(const std::string& aText, DWORD aBlocks = 1, BOOL aNeedACK = TRUE) {
        CCmMessageBlock mb(DWORD{0});
        for (DWORD n = 0; n < aBlocks; ++n) {
            const auto dwLength = n + 1 < aBlocks ? 1 : static_cast<DWORD>(aText.size()) - n;
            mb.Append(CCmMessageBlock(dwLength, &aText[n], 0, dwLength).DuplicateTopLevel());
        }
        const DWORD dwTaken = AddDataPDU(&mb, aNeedACK);
        EXPECT_EQ(mb.GetChainedLength(), aText.size() - dwTaken);
        mb.GetNext()->DestroyChained();
        return dwTaken;
    }
    std::string Waiting() {
        CCmMessageBlock* pMb = nullptr;
        return GetData(pMb) == NOTHING ? "" : pMb->FlattenChained();
    }
};

using CItem = std::pair<std::string, DWORD>;  // what it looks like, and its last sequence number

size_t LengthOf(const std::deque<CItem>& aItems) {
    size_t stLength = 0;
    for (const CItem& item : aItems)
        stLength += item.first.size();
    return stLength;
}

// Random operations on a buffer and on deques, until some time after the numbers have started again. ACK fields hold four times
// the same byte, so that one that is exchanged half-way is seen.
class CWalk {
public:
    explicit CWalk(unsigned aSeed) : m_Random(aSeed) {}
    void Step() {
        const DWORD dwChoice = Below(16);
        if (dwChoice < 5)
            AddData(3 + Below(90));
        else if (dwChoice < 10)
            Send();
        else if (dwChoice < 13)
            Acknowledge(dwChoice == 12);
        else if (dwChoice == 13)
            Add("\4????"s, m_Buf.AddKeepAlivePDU(), 5, m_Waiting.empty() && LengthOf(m_Sent) + 5 <= CAPACITY);
        else if (dwChoice == 14 && Below(4) == 0)
            Add("\3\x12\x34"s, m_Buf.AddDisconnPDU(0x51234), 3, TRUE);
        m_Buf.SetSeq4ACK(Below(256) * 0x01010101);
        ASSERT_EQ(m_Buf.GetUsed(), LengthOf(m_Sent) + LengthOf(m_Waiting));
        ASSERT_EQ(m_Buf.GetUnsent() + m_strBegun.size(), LengthOf(m_Waiting));
    }

private:
    static constexpr DWORD LIMIT = 0xFFF00000, CAPACITY = 600;

    DWORD Below(size_t aLimit) { return static_cast<DWORD>(m_Random() % aLimit); }
    void Add(const std::string& aBytes, DWORD aTaken, DWORD aLength, BOOL aExpected, DWORD aEnd = 0) {
        ASSERT_EQ(aTaken, aExpected ? aLength : 0);
        if (aExpected)
            m_Waiting.emplace_back(aBytes, aEnd);
    }
    void AddData(DWORD aLength) {
        const std::string strText(aLength, static_cast<char>('a' + Below(26)));
        const BOOL bFits = LengthOf(m_Sent) + LengthOf(m_Waiting) + 9 + aLength <= CAPACITY;
        const BOOL bRestart = m_dwSeq + 9 + aLength > LIMIT;
        if (bFits)
            m_dwSeq = (bRestart ? 1 : m_dwSeq) + 9 + aLength;
        Add((bRestart ? "\5"s : "\6"s) + "????\0\0\0"s + static_cast<char>(aLength) + strText,
            m_Buf.AddText(strText, 1 + Below(3)), aLength, bFits, m_dwSeq - 1);
    }
    void Send() {
        talvo::CGatherChain chain;
        CCmMessageBlock* pMb = nullptr;
        if (Below(3) == 0)
            m_Buf.GetData(pMb);
        else if (m_Buf.Gather(chain))
            pMb = chain.GetHead();
        ASSERT_EQ(pMb == nullptr, m_Waiting.empty());
        const std::string strGiven = pMb ? pMb->FlattenChained() : "";
        const DWORD dwSent = Below(2) ? Below(strGiven.size() + 1) : static_cast<DWORD>(strGiven.size());
        if (pMb && Below(2))
            pMb->AdvanceChainedReadPtr(dwSent);
        m_Buf.SetSeq4ACK(Below(256) * 0x01010101);
        m_Buf.DataSentLen(dwSent);
        m_strBegun += strGiven.substr(0, dwSent);
        for (; !m_Waiting.empty() && m_strBegun.size() >= m_Waiting[0].first.size(); m_Waiting.pop_front()) {
            const CItem& item = m_Sent.emplace_back(m_Waiting[0]);
            if (item.first[1] == '?' && m_strBegun.substr(1, 4) == std::string(4, m_strBegun[1]))
                m_strBegun.replace(1, 4, "????");
            ASSERT_EQ(m_strBegun.substr(0, item.first.size()), item.first);
            m_strBegun.erase(0, item.first.size());
        }
    }
    // A part of what was sent, perhaps with a number inside of a PDU; behind a reconnection the rest is sent again.
    void Acknowledge(BOOL aReconnect) {
        DWORD dwACK = m_dwACKed, dwLast = m_dwACKed;
        for (size_t n = 0, stAsked = Below(m_Sent.size() + 1); n < stAsked; ++n) {
            if (m_Sent[n].second > 0)
                dwLast = std::exchange(dwACK, m_Sent[n].second);
        }
        const BOOL bInside = dwACK != m_dwACKed && Below(3) == 0, bEmpty = m_Sent.empty() && m_Waiting.empty();
        const size_t stBefore = m_Sent.size();
        for (; !m_Sent.empty() && (m_Sent[0].second == 0 || m_dwACKed != (bInside ? dwLast : dwACK)); m_Sent.pop_front())
            m_dwACKed = m_Sent[0].second > 0 ? m_Sent[0].second : m_dwACKed;
        const int nExpected = bInside && m_Sent.size() == stBefore ? -1 : bEmpty && !aReconnect ? -2 : 0;
        dwACK -= bInside ? 1 + Below(11) : 0;
        ASSERT_EQ(aReconnect ? m_Buf.DoReconnACK(dwACK) : m_Buf.DoACK(dwACK), nExpected);
        if (aReconnect && nExpected == 0) {
            m_Waiting.insert(m_Waiting.begin(), m_Sent.begin(), m_Sent.end());
            m_Sent.clear();
            m_strBegun.clear();
        }
    }

    std::mt19937 m_Random;
    DWORD m_dwSeq = LIMIT - 200 - Below(2000), m_dwACKed = m_dwSeq - 1;
    std::deque<CItem> m_Sent, m_Waiting;
    std::string m_strBegun;  // what is sent of the first that is waiting
    CSendBuf m_Buf{CAPACITY, m_dwSeq};
};

TEST(CsSendBuf, RandomWalkAgreesWithADeque) {
    for (unsigned uSeed = 0; uSeed < 100; ++uSeed) {
        CWalk walk(uSeed);
        for (int n = 0; n < 500 && !HasFatalFailure(); ++n)
            walk.Step();
    }
}

TEST(CsSendBuf, AcknowledgementsOfWhatWasNeverSentAreJudged) {
    CSendBuf buf(36);
    EXPECT_EQ(buf.DoACK(5), -2);
    EXPECT_EQ(buf.AddText("abc") + buf.AddText("def"), 6u);
    EXPECT_EQ(buf.DoACK(24), 0);  // not sent yet
    buf.DataSentLen(24);
    EXPECT_EQ(buf.DoACK(5), -1);
    EXPECT_EQ(buf.GetUsed(), 24u);
    EXPECT_EQ(buf.DoACK(12), 0);
    EXPECT_EQ(buf.DoReconnACK(3), -1);  // goes back, but no numbering started again
    EXPECT_EQ(buf.GetUsed(), 12u);
}

TEST(CsSendBuf, OnlyABegunPduKeepsItsAckAndSurvivesCapacityZero) {
    CSendBuf buf(1000);
    buf.SetSeq4ACK(1);
    for (const char* szText : {"abc", "def", "ghi"})
        buf.AddText(szText);
    buf.SetSeq4ACK(2);
    EXPECT_EQ(buf.Waiting(), "\6\0\0\0\1\0\0\0\3abc"s);
    buf.DataSentLen(12);
    EXPECT_EQ(buf.Waiting(), "\6\0\0\0\2\0\0\0\3def"s);
    buf.DataSentLen(2);
    buf.SetSeq4ACK(3);
    EXPECT_EQ(buf.Waiting(), "\0\0\2\0\0\0\3def"s);
    EXPECT_EQ(buf.DoReconnACK(0), 0);
    EXPECT_EQ(buf.Waiting(), "\6\0\0\0\3\0\0\0\3abc"s);
    buf.DataSentLen(12 + 10);
    buf.SetMaxBufLen(0);
    EXPECT_EQ(buf.GetUsed(), 12u);
    EXPECT_EQ(buf.Waiting(), "ef");
    buf.DataSentLen(2);
    EXPECT_EQ(buf.GetUsed(), 0u);
}

TEST(CsSendBuf, SmallPiecesAreJoinedAndLargeOnesCounted) {
    CSendBuf buf(100000);
    for (int i = 0; i < 100; ++i)
        buf.AddText("abc", 3, FALSE);
    buf.AddText(std::string(600, 'x'), 1, FALSE);
    talvo::CGatherChain chain;
    EXPECT_TRUE(buf.Gather(chain));
    EXPECT_EQ(chain.GetCount(), 2u);
    EXPECT_EQ(chain.GetLength(), 100u * 8 + 5 + 600);
    EXPECT_TRUE(chain.GetHead()->FlattenChained().ends_with("\6\0\0\0\3abc\6\0\0\2\x58"s + std::string(600, 'x')));
    const std::string strLarge(600, 'y');
    const CCmMessageBlock large(600, strLarge.data(), 0, 600);
    while (chain.GetCount() < talvo::CGatherChain::MAX_PIECES)
        EXPECT_TRUE(chain.Add(large));
    EXPECT_FALSE(chain.Add(large));
    EXPECT_EQ(chain.GetLength(), 805u + 600 * 63);
}

size_t AllocatedBytes() { return mallinfo2().uordblks + mallinfo2().hblkhd; }

}  // namespace

// The limit counts these bytes; what lies before them in the user's buffer would come on top.
TEST(CsSendBuf, OfForeignMemoryOnlyTheUnreadBytesAreCopied) {
    const std::string strAll(1 << 20, 'x');
    CCsSendBuf buf(1 << 20);
    CCmMessageBlock part(1 << 20, strAll.data(), 0, 1 << 20);
    part.AdvanceTopLevelReadPtr((1 << 20) - 2000);
    const size_t stBefore = AllocatedBytes();
    EXPECT_EQ(2000u, buf.AddDataPDU(&part, TRUE));
    EXPECT_LE(AllocatedBytes(), stBefore + 4000);
}

TEST(CsSendBuf, APayloadOfManyConnectionsIsSharedBeyondASmallCopy) {
    for (const auto& [dwLength, bOfMany] : {std::pair(500u, TRUE), std::pair(500u, FALSE), std::pair(128u, TRUE)}) {
        CCsSendBuf buf(1024);
        CCmMessageBlock payload(dwLength, nullptr, 0, dwLength);
        const char* pBytes = payload.GetTopLevelReadPtr();
        if (bOfMany)
            payload.LockWriting();
        CCmMessageBlock* pUnsent = nullptr;
        EXPECT_EQ(dwLength, buf.AddDataPDU(&payload, TRUE));
        EXPECT_EQ(CS_PDU_TYPE_DATA_NORMAL, buf.GetData(pUnsent));
        EXPECT_EQ(dwLength == 500 && bOfMany, pUnsent->GetNext()->GetTopLevelReadPtr() == pBytes) << dwLength << bOfMany;
    }
}
