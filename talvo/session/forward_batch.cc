#include "talvo/session/forward_batch.h"

#include <cstring>

namespace talvo {

BOOL CForwardBatch::Prepare(const CForwardLog& aLog, uint64_t aNumber, EForwardFraming aFraming) {
    if (aNumber == m_ullNumber && aLog.GetEnd() == m_ullEnd)
        return bool{m_pBlock};
    Clear();
    m_ullNumber = aNumber;
    m_ullEnd = aLog.GetEnd();
    const DWORD dwPayload = Measure_i(aLog);
    const DWORD dwBytes = dwPayload + m_dwCount * HeaderLengthOf(aFraming);
    const DWORD dwLeast = aLog.At(aNumber).m_Message.m_Framing < aFraming ? 1 : LEAST_MESSAGES;
    if (m_dwCount < dwLeast || CCmDataBlock::CreateInstance(m_pBlock.ParaOut(), dwBytes, nullptr) != CM_OK)
        return FALSE;
    char* pTo = m_pBlock->GetBasePtr();
    for (DWORD i = 0; i < m_dwCount; ++i) {
        const CForwardMessage& message = aLog.At(aNumber + i).m_Message;
        pTo = WriteForwardHeader(pTo, aFraming, message.m_dwLength);
        std::memcpy(pTo, message.GetStorage() + message.GetHeaderLength(), message.m_dwLength);
        pTo += message.m_dwLength;
    }
    return TRUE;
}

// Counts its messages, and returns the bytes of their payload.
DWORD CForwardBatch::Measure_i(const CForwardLog& aLog) {
    DWORD dwPayload = 0;
    for (uint64_t n = m_ullNumber; n < m_ullEnd && m_dwCount < MAX_MESSAGES; ++n) {
        const CForwardMessage& message = aLog.At(n).m_Message;
        if (message.m_pPayload || dwPayload + message.m_dwLength > MAX_PAYLOAD)
            break;
        ++m_dwCount;
        dwPayload += message.m_dwLength;
    }
    return dwPayload;
}

void CForwardBatch::Clear() {
    m_ullNumber = CForwardLog::NONE;
    m_dwCount = 0;
    m_pBlock.Reset();
}

}  // namespace talvo
