#include "talvo/session/forward_batch.h"

#include <cstring>

#include "talvo/base/with_memory.h"

namespace talvo {

BOOL CForwardBatch::Prepare(const CForwardLog& aLog, uint64_t aNumber, EForwardFraming aFraming) {
    if (aNumber == m_ullNumber && aLog.GetEnd() == m_ullEnd)
        return bool{m_pBlock};
    Clear();
    m_ullNumber = aNumber;
    m_ullEnd = aLog.GetEnd();
    const DWORD dwSkip = static_cast<DWORD>(aFraming);
    DWORD dwBytes = 0;
    if (!WithMemory([&] { dwBytes = Measure_i(aLog, CForwardMessage::HEADER_LENGTH - dwSkip); }) || dwBytes == 0)
        return FALSE;
    if (CCmDataBlock::CreateInstance(m_pBlock.ParaOut(), dwBytes, nullptr) != CM_OK)
        return FALSE;
    char* pTo = m_pBlock->GetBasePtr();
    for (DWORD i = 0; i < GetCount(); ++i) {
        const CForwardMessage& message = aLog.At(aNumber + i).m_Message;
        std::memcpy(pTo, message.m_pBlock->GetBasePtr() + message.m_dwOffset + dwSkip, m_Lengths[i]);
        pTo += m_Lengths[i];
    }
    return TRUE;
}

// The bytes of the batch; 0: it is not worth it.
DWORD CForwardBatch::Measure_i(const CForwardLog& aLog, DWORD aHeader) {
    DWORD dwPayload = 0;
    for (uint64_t n = m_ullNumber; n < m_ullEnd && GetCount() < MAX_MESSAGES; ++n) {
        const CForwardMessage& message = aLog.At(n).m_Message;
        if (message.m_pPayload || dwPayload + message.m_dwLength > MAX_PAYLOAD)
            break;
        m_Lengths.push_back(aHeader + message.m_dwLength);
        dwPayload += message.m_dwLength;
    }
    return GetCount() >= LEAST_MESSAGES ? dwPayload + GetCount() * aHeader : 0;
}

void CForwardBatch::Clear() {
    m_ullNumber = CForwardLog::NONE;
    m_Lengths.clear();
    m_pBlock.Reset();
}

}  // namespace talvo
