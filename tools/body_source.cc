#include "tools/body_source.h"

#include <unistd.h>

#include <algorithm>
#include <new>

namespace tool {

namespace {

constexpr DWORD INPUT = 16 * 1024;  // half a millisecond of compression

}  // namespace

BodySource::EResult FileSource::Read(CCmMessageBlock& aPiece) {
    if (m_ullLeft == 0)
        return END;
    const auto stLength = static_cast<size_t>(std::min<uint64_t>(m_ullLeft, aPiece.GetTopLevelSpace()));
    const ssize_t lRead = pread(m_File.Get(), aPiece.GetTopLevelWritePtr(), stLength, static_cast<off_t>(m_ullOffset));
    if (lRead <= 0)
        return FAILED;
    aPiece.AdvanceTopLevelWritePtr(static_cast<DWORD>(lRead));
    m_ullOffset += static_cast<uint64_t>(lRead);
    m_ullLeft -= static_cast<uint64_t>(lRead);
    return DATA;
}

BodySource::EResult TextSource::Read(CCmMessageBlock& aPiece) {
    const std::string_view left = std::string_view(m_strText).substr(m_stDone, aPiece.GetTopLevelSpace());
    if (left.empty())
        return END;
    aPiece.Write(left.data(), static_cast<DWORD>(left.size()));
    m_stDone += left.size();
    return DATA;
}

GzipSource::GzipSource(std::unique_ptr<BodySource> aPlain) : m_pPlain(std::move(aPlain)), m_Input(INPUT) {
    if (m_Input.GetTopLevelSpace() == 0)
        throw std::bad_alloc();
    ++s_uCount;
}

BodySource::EResult GzipSource::Read(CCmMessageBlock& aPiece) {
    if (m_Encoder.IsDone())
        return END;
    if (m_Input.GetTopLevelLength() == 0 && !m_bLast) {
        m_Input.RewindChained();
        const EResult result = m_pPlain->Read(m_Input);
        if (result == FAILED)
            return FAILED;
        m_bLast = result == END;
    }
    const DWORD dwLength = m_Input.GetTopLevelLength();
    std::string_view input(m_Input.GetTopLevelReadPtr(), dwLength);
    const size_t stWritten = m_Encoder.Step(input, m_bLast, aPiece.GetTopLevelWritePtr(), aPiece.GetTopLevelSpace());
    m_Input.AdvanceTopLevelReadPtr(dwLength - static_cast<DWORD>(input.size()));
    aPiece.AdvanceTopLevelWritePtr(static_cast<DWORD>(stWritten));
    return DATA;
}

}  // namespace tool
