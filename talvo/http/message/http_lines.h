// The lines of a head, found in one pass over its bytes.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <string_view>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "talvo/base/types.h"

namespace talvo {

struct CHttpLine {
    std::string_view m_Text;  // without its line feed
    size_t m_stColon = 0;     // the position of its first colon; npos: none
};

// Looks at 64 bytes at a time and marks line feeds and colons in a word each, because most lines are shorter than the
// preparation of two searches.
class CHttpLines {
public:
    // The bytes must outlive the object.
    explicit CHttpLines(std::string_view aBytes)
        : m_pBegin(aBytes.data()),
          m_pEnd(m_pBegin + aBytes.size()),
          m_pLine(m_pBegin),
          m_pWindow(m_pBegin),
          m_pNext(m_pBegin) {}

    // The next line that has its line feed. FALSE: there is none.
    BOOL Next(CHttpLine& aLine) {
        const char* pColon = nullptr;
        for (;;) {
            const uint64_t ullBeforeEnd = (m_ullEnds & -m_ullEnds) - 1;  // all bits if the window has no end of a line
            if (!pColon && (m_ullColons & ullBeforeEnd))
                pColon = m_pWindow + std::countr_zero(m_ullColons);
            if (m_ullEnds)
                break;
            if (!Advance())
                return FALSE;
        }
        const char* pEnd = m_pWindow + std::countr_zero(m_ullEnds);
        m_ullColons &= ~(m_ullEnds ^ (m_ullEnds - 1));
        m_ullEnds &= m_ullEnds - 1;
        aLine.m_Text = {m_pLine, static_cast<size_t>(pEnd - m_pLine)};
        aLine.m_stColon = pColon ? static_cast<size_t>(pColon - m_pLine) : std::string_view::npos;
        m_pLine = pEnd + 1;
        return TRUE;
    }

    // The number of bytes in the lines so far, with their line feeds.
    DWORD GetUsed() const { return static_cast<DWORD>(m_pLine - m_pBegin); }
    // The bytes behind these lines.
    std::string_view GetRest() const { return {m_pLine, static_cast<size_t>(m_pEnd - m_pLine)}; }

private:
    static constexpr std::ptrdiff_t WINDOW = 64;

    // Bit i: aBytes[i] is aByte.
    static uint64_t Mark(const char* aBytes, char aByte) {
        uint64_t ullMarks = 0;
#ifdef __SSE2__
        const __m128i wanted = _mm_set1_epi8(aByte);
        for (std::ptrdiff_t i = 0; i < WINDOW; i += std::ptrdiff_t{sizeof wanted}) {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(aBytes + i));
            ullMarks |= uint64_t{static_cast<WORD>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, wanted)))} << i;
        }
#else
        for (std::ptrdiff_t i = 0; i < WINDOW; ++i)
            ullMarks |= uint64_t{aBytes[i] == aByte} << i;
#endif
        return ullMarks;
    }

    BOOL Advance() {
        const std::ptrdiff_t nLeft = m_pEnd - m_pNext;
        if (nLeft <= 0)
            return FALSE;
        m_pWindow = m_pNext;
        m_pNext += std::min(nLeft, WINDOW);
        const char* pBytes = m_pWindow;
        char rest[WINDOW];
        if (nLeft < WINDOW) {
            std::memset(rest, 0, sizeof rest);
            pBytes = static_cast<const char*>(std::memcpy(rest, pBytes, static_cast<size_t>(nLeft)));
        }
        m_ullEnds = Mark(pBytes, '\n');
        m_ullColons = Mark(pBytes, ':');
        return TRUE;
    }

    const char* const m_pBegin;
    const char* const m_pEnd;
    const char* m_pLine;       // the begin of the next line
    const char* m_pWindow;     // the begin of the marked bytes
    const char* m_pNext;       // their end
    uint64_t m_ullEnds = 0;    // marks of line feeds that are not passed yet
    uint64_t m_ullColons = 0;  // and of colons
};

}  // namespace talvo
