// The same small messages for many receivers.
#pragma once

#include "talvo/session/forward_log.h"

namespace talvo {

// The frames of consecutive small messages, for receivers whose framing is not that of the log. Encoded once, in one block, for
// all receivers that are at the same place of the log. One thread.
class TALVO_API CForwardBatch {
public:
    // Makes it the batch of the messages from aNumber on, unless it is that already. FALSE: these are large, or too few that
    // can be sent as they are stored, or memory ran out.
    BOOL Prepare(const CForwardLog& aLog, uint64_t aNumber, EForwardFraming aFraming);
    void Clear();

    const CCmRefPtrT<CCmDataBlock>& GetBlock() const { return m_pBlock; }
    DWORD GetCount() const { return m_dwCount; }  // of its messages

private:
    static constexpr DWORD LEAST_MESSAGES = 4;  // fewer are not worth a block
    static constexpr DWORD MAX_MESSAGES = 1024;
    static constexpr DWORD MAX_PAYLOAD = 65536;  // as much as makes Forward send

    DWORD Measure_i(const CForwardLog& aLog);

    uint64_t m_ullNumber = CForwardLog::NONE;
    uint64_t m_ullEnd = 0;  // of the log when it was made
    DWORD m_dwCount = 0;
    CCmRefPtrT<CCmDataBlock> m_pBlock;  // null: there are none
};

}  // namespace talvo
