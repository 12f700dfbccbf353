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
    // Two smaller pieces share a record. A copy of so many bytes takes 0.1 us; another record takes 0.5 us to seal, and as much
    // to open.
    static constexpr size_t SMALL = 8192;

    CTlsPieces(const iovec* aPieces, DWORD aCount) : m_pPiece(aPieces), m_pEnd(aPieces + aCount) { Skip_i(); }

    BOOL IsEmpty() const { return m_pPiece == m_pEnd; }

    // The next record's data, at most aMost bytes; not empty unless IsEmpty. It lies in its piece, or in aRoom (of aMost
    // bytes).
    std::string_view Take(char* aRoom, size_t aMost) {
        const std::string_view first = TakeOne_i(aMost);
        size_t stTaken = first.size();
        if (stTaken >= SMALL || !IsShared_i(aMost - stTaken))
            return first;
        std::memcpy(aRoom, first.data(), stTaken);
        while (IsShared_i(aMost - stTaken)) {
            const std::string_view next = TakeOne_i(aMost - stTaken);
            std::memcpy(aRoom + stTaken, next.data(), next.size());
            stTaken += next.size();
        }
        return {aRoom, stTaken};
    }

private:
    size_t Left_i() const { return m_pPiece->iov_len - m_stOffset; }

    // The next piece begins in a record that has room for aRoom bytes more.
    BOOL IsShared_i(size_t aRoom) const { return aRoom > 0 && !IsEmpty() && (Left_i() < SMALL || Left_i() <= aRoom); }

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
