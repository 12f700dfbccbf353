// The data of a send, record by record.
#pragma once

#include <sys/uio.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "talvo/base/types.h"

namespace talvo {

class CTlsPieces {
public:
    // Smaller pieces in a row share a record. A copy of so many bytes costs as much as another record.
    static constexpr size_t SMALL = 4096;

    CTlsPieces(const iovec* aPieces, DWORD aCount) : m_pPiece(aPieces), m_pEnd(aPieces + aCount) { Skip_i(); }

    BOOL IsEmpty() const { return m_pPiece == m_pEnd; }

    // The next record's data, at most aMost bytes; not empty unless IsEmpty. It lies in its piece, or in aRoom (of aMost
    // bytes).
    std::string_view Take(char* aRoom, size_t aMost) {
        if (IsEmpty() || Left_i() >= SMALL || m_pPiece + 1 == m_pEnd || m_pPiece[1].iov_len >= SMALL)
            return TakeOne_i(aMost);
        size_t stTaken = 0;
        while (!IsEmpty() && Left_i() < SMALL && stTaken < aMost) {
            const std::string_view data = TakeOne_i(aMost - stTaken);
            std::memcpy(aRoom + stTaken, data.data(), data.size());
            stTaken += data.size();
        }
        return {aRoom, stTaken};
    }

private:
    size_t Left_i() const { return m_pPiece->iov_len - m_stOffset; }

    std::string_view TakeOne_i(size_t aMost) {
        if (IsEmpty())
            return {};
        const std::string_view data(static_cast<const char*>(m_pPiece->iov_base) + m_stOffset, std::min(Left_i(), aMost));
        m_stOffset += data.size();
        Skip_i();
        return data;
    }

    void Skip_i() {
        while (m_pPiece != m_pEnd && m_stOffset == m_pPiece->iov_len) {
            ++m_pPiece;
            m_stOffset = 0;
        }
    }

    const iovec* m_pPiece;
    const iovec* const m_pEnd;
    size_t m_stOffset = 0;
};

}  // namespace talvo
