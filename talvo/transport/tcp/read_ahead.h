// Received bytes that a handshake has put back.
#pragma once

#include <algorithm>
#include <cstring>
#include <vector>

#include "talvo/base/types.h"

namespace talvo {

class CReadAhead {
public:
    CmDword GetSize() const { return static_cast<CmDword>(m_Bytes.size() - m_stRead); }

    // Inserts aData before the current bytes. Throws std::bad_alloc; nothing changes then.
    void Prepend(const char* aData, CmDword aLen) {
        std::vector<char> bytes(aData, aData + aLen);
        bytes.insert(bytes.end(), m_Bytes.begin() + static_cast<std::ptrdiff_t>(m_stRead), m_Bytes.end());
        m_Bytes.swap(bytes);
        m_stRead = 0;
    }

    // Copies and consumes at most aLen bytes; returns their count.
    CmDword Take(char* aBuf, CmDword aLen) {
        const CmDword dwTaken = std::min(aLen, GetSize());
        std::memcpy(aBuf, m_Bytes.data() + m_stRead, dwTaken);
        m_stRead += dwTaken;
        return dwTaken;
    }

private:
    std::vector<char> m_Bytes;
    size_t m_stRead = 0;
};

}  // namespace talvo
