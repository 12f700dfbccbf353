#include "benchmarks/msg/message.h"

#include <endian.h>

#include <cstring>

#include "benchmarks/support/talvo_messages.h"

namespace msg {
namespace {

char LastOf(DWORD aSize) { return static_cast<char>('a' + aSize % 26); }

uint64_t NumberAt(const char* aBytes) {
    uint64_t ullNumber = 0;
    std::memcpy(&ullNumber, aBytes, sizeof(ullNumber));
    return le64toh(ullNumber);
}

void PutNumber(char* aBytes, uint64_t aNumber) {
    const uint64_t ullNumber = htole64(aNumber);
    std::memcpy(aBytes, &ullNumber, sizeof(ullNumber));
}

}  // namespace

CSeen::CSeen(CCmMessageBlock& aMessage) : m_dwSize(aMessage.GetChainedLength()), m_cLast(bench::LastByteOf(aMessage)) {
    char head[HEAD_SIZE] = {};
    aMessage.Read(head, HEAD_SIZE, nullptr, FALSE);
    m_cKind = head[0];
    m_ullNumber = NumberAt(head + 1);
}

bool CSeen::IsWhole() const { return m_dwSize >= SHORTEST && m_cLast == LastOf(m_dwSize); }

void Fill(CCmMessageBlock& aMessage, EKind aKind, uint64_t aNumber, DWORD aSize) {
    char* pBytes = aMessage.GetTopLevelWritePtr();
    std::memset(pBytes, LastOf(aSize), aSize);
    pBytes[0] = aKind;
    PutNumber(pBytes + 1, aNumber);
    aMessage.AdvanceTopLevelWritePtr(aSize);
}

void FillAnswer(CCmMessageBlock& aMessage, const CCounts& aCounts) {
    char* pBytes = aMessage.GetTopLevelWritePtr();
    pBytes[0] = END;
    PutNumber(pBytes + 1, aCounts.m_ullData);
    PutNumber(pBytes + HEAD_SIZE, aCounts.m_ullFaults);
    aMessage.AdvanceTopLevelWritePtr(ANSWER_SIZE);
}

CCounts ReadAnswer(CCmMessageBlock& aMessage) {
    char answer[ANSWER_SIZE] = {};
    aMessage.Read(answer, ANSWER_SIZE, nullptr, FALSE);
    return {NumberAt(answer + 1), NumberAt(answer + HEAD_SIZE)};
}

}  // namespace msg
