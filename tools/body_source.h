// The bodies of answers, read piece by piece.
#pragma once

#include <memory>
#include <string>

#include "talvo/talvo.h"
#include "tools/file_handle.h"
#include "tools/gzip.h"

namespace tool {

class BodySource {
public:
    enum EResult { DATA, END, FAILED };

    virtual ~BodySource() = default;

    // Appends the next bytes to aPiece, which is empty and has room for PIECE bytes. DATA: call it again for more; the piece
    // may still be empty, if the source has done its share of work without a result.
    virtual EResult Read(CCmMessageBlock& aPiece) = 0;

    // The number of pieces that one turn of the thread may read, so that other connections do not wait for long.
    virtual int GetPiecesPerTurn() const { return 16; }

    static constexpr DWORD PIECE = 64 * 1024;
};

// aLength bytes of a file from aOffset on. FAILED if the file is shorter.
class FileSource : public BodySource {
public:
    FileSource(FileHandle aFile, uint64_t aOffset, uint64_t aLength)
        : m_File(std::move(aFile)), m_ullOffset(aOffset), m_ullLeft(aLength) {}

    EResult Read(CCmMessageBlock& aPiece) override;

private:
    const FileHandle m_File;
    uint64_t m_ullOffset;
    uint64_t m_ullLeft;
};

class TextSource : public BodySource {
public:
    explicit TextSource(std::string aText) : m_strText(std::move(aText)) {}

    EResult Read(CCmMessageBlock& aPiece) override;

private:
    const std::string m_strText;
    size_t m_stDone = 0;
};

// Another source, compressed. Memory and work are bounded: few of these exist at a time, and each compresses a small piece in a
// turn of the thread.
class GzipSource : public BodySource {
public:
    explicit GzipSource(std::unique_ptr<BodySource> aPlain);  // throws std::bad_alloc
    ~GzipSource() override { --s_uCount; }

    // false: as many sources exist as are allowed.
    static bool IsAvailable() { return s_uCount < MOST_SOURCES; }

    EResult Read(CCmMessageBlock& aPiece) override;
    int GetPiecesPerTurn() const override { return 1; }

private:
    static constexpr unsigned MOST_SOURCES = 64;
    inline static unsigned s_uCount = 0;

    const std::unique_ptr<BodySource> m_pPlain;
    GzipEncoder m_Encoder;
    CCmMessageBlock m_Input;
    bool m_bLast = false;
};

}  // namespace tool
