#include "tools/gzip.h"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <new>

namespace tool {

namespace {

constexpr int GZIP = 15 + 16;  // the largest window, and a header of gzip instead of one of zlib
constexpr int MEMORY_LEVEL = 8;
// Text shrinks to within a tenth of the best level, in a third of its time.
constexpr int LEVEL = 5;
constexpr size_t PIECE = 64 * 1024;

void SetInput(z_stream& aStream, std::string_view aInput) {
    aStream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(aInput.data()));
    aStream.avail_in = static_cast<uInt>(std::min<size_t>(aInput.size(), UINT_MAX));
}

void SetOutput(z_stream& aStream, char* aOutput, size_t aRoom) {
    aStream.next_out = reinterpret_cast<Bytef*>(aOutput);
    aStream.avail_out = static_cast<uInt>(std::min<size_t>(aRoom, UINT_MAX));
}

void RequireZlib(int aResult) {
    if (aResult != Z_OK)
        throw std::bad_alloc();
}

}  // namespace

GzipEncoder::GzipEncoder() : m_pStream(std::make_unique<z_stream>()) {
    RequireZlib(deflateInit2(m_pStream.get(), LEVEL, Z_DEFLATED, GZIP, MEMORY_LEVEL, Z_DEFAULT_STRATEGY));
}

GzipEncoder::~GzipEncoder() { deflateEnd(m_pStream.get()); }

size_t GzipEncoder::Step(std::string_view& aInput, bool aLast, char* aOutput, size_t aRoom) {
    SetInput(*m_pStream, aInput);
    SetOutput(*m_pStream, aOutput, aRoom);
    const uInt uRoom = m_pStream->avail_out;
    m_bDone = deflate(m_pStream.get(), aLast ? Z_FINISH : Z_NO_FLUSH) == Z_STREAM_END;
    aInput.remove_prefix(aInput.size() - m_pStream->avail_in);
    return uRoom - m_pStream->avail_out;
}

GzipDecoder::GzipDecoder() : m_pStream(std::make_unique<z_stream>()), m_pPiece(new char[PIECE]) {
    RequireZlib(inflateInit2(m_pStream.get(), GZIP));
}

GzipDecoder::~GzipDecoder() { inflateEnd(m_pStream.get()); }

bool GzipDecoder::Decode(std::string_view aInput, const std::function<bool(std::string_view)>& aSink) {
    SetInput(*m_pStream, aInput);
    do {
        if (m_bAtEnd && m_pStream->avail_in > 0)  // another member follows
            inflateReset(m_pStream.get());
        SetOutput(*m_pStream, m_pPiece.get(), PIECE);
        const int nResult = inflate(m_pStream.get(), Z_NO_FLUSH);
        const std::string_view output(m_pPiece.get(), PIECE - m_pStream->avail_out);
        if ((nResult != Z_OK && nResult != Z_STREAM_END && nResult != Z_BUF_ERROR) || (!output.empty() && !aSink(output)))
            return false;
        m_bAtEnd = nResult == Z_STREAM_END;
    } while (m_pStream->avail_in > 0 || m_pStream->avail_out == 0);
    return true;
}

}  // namespace tool
