// The same small messages for many receivers.
#pragma once

#include <vector>

#include "talvo/session/forward_log.h"

namespace talvo {

// The frames of consecutive small messages in one block, copied once for all receivers that are at the same place of the log: a
// receiver then costs the same whatever the number of messages. One thread.
class TALVO_API CForwardBatch {
public:
    // Makes it the batch of the messages from aNumber on, unless it is that already. FALSE: these are too few or too large, or
    // memory ran out; send them one by one.
    BOOL Prepare(const CForwardLog& aLog, uint64_t aNumber, EForwardFraming aFraming);
    void Clear();

    const CCmRefPtrT<CCmDataBlock>& GetBlock() const { return m_pBlock; }
    // The length of each message, with its framing.
    const DWORD* GetLengths() const { return m_Lengths.data(); }
    DWORD GetCount() const { return static_cast<DWORD>(m_Lengths.size()); }

private:
    static constexpr DWORD LEAST_MESSAGES = 4;  // fewer are not worth a block
    static constexpr DWORD MAX_MESSAGES = 1024;
    static constexpr DWORD MAX_PAYLOAD = 65536;  // as much as makes Forward send

    DWORD Measure_i(const CForwardLog& aLog, DWORD aHeader);

    uint64_t m_ullNumber = CForwardLog::NONE;
    uint64_t m_ullEnd = 0;  // of the log when it was made
    std::vector<DWORD> m_Lengths;
    CCmRefPtrT<CCmDataBlock> m_pBlock;  // null: not worth it
};

}  // namespace talvo
