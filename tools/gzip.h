// The content coding gzip (RFC 1952), over zlib.
#pragma once

#include <functional>
#include <memory>
#include <string_view>

struct z_stream_s;

namespace tool {

// Compresses a stream. Each object takes 256 KiB.
class GzipEncoder {
public:
    GzipEncoder();  // throws std::bad_alloc
    ~GzipEncoder();
    GzipEncoder(const GzipEncoder&) = delete;
    GzipEncoder& operator=(const GzipEncoder&) = delete;

    // Takes from the front of aInput and writes at most aRoom bytes to aOutput. aLast: nothing follows aInput. Returns the
    // number of bytes written, which may be 0.
    size_t Step(std::string_view& aInput, bool aLast, char* aOutput, size_t aRoom);
    // The whole stream has been written.
    bool IsDone() const { return m_bDone; }

private:
    const std::unique_ptr<z_stream_s> m_pStream;
    bool m_bDone = false;
};

// Decompresses a stream of one or more members. Its memory does not depend on the data: the output comes in pieces.
class GzipDecoder {
public:
    GzipDecoder();  // throws std::bad_alloc
    ~GzipDecoder();
    GzipDecoder(const GzipDecoder&) = delete;
    GzipDecoder& operator=(const GzipDecoder&) = delete;

    // Passes the output of aInput to aSink, at most 64 KiB at a time. false: the data is not gzip, or aSink returned false.
    bool Decode(std::string_view aInput, const std::function<bool(std::string_view)>& aSink);
    // The input so far ends where a member ends.
    bool IsComplete() const { return m_bAtEnd; }

private:
    const std::unique_ptr<z_stream_s> m_pStream;
    const std::unique_ptr<char[]> m_pPiece;
    bool m_bAtEnd = false;
};

}  // namespace tool
