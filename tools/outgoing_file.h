// A file that is being sent: read once, in pieces, and hashed.
#pragma once

#include <cstdint>
#include <string>

#include "talvo/talvo.h"
#include "tools/sha256.h"

namespace tool {

// The operations return "" or an error text.
class OutgoingFile {
public:
    explicit OutgoingFile(std::string aPath) : m_strPath(std::move(aPath)) {}
    ~OutgoingFile();
    OutgoingFile(const OutgoingFile&) = delete;
    OutgoingFile& operator=(const OutgoingFile&) = delete;

    // Opens a regular file, whose size is known beforehand. aMaxPiece: the longest piece.
    std::string Open(DWORD aMaxPiece);

    // The length of the next piece, 0 at the end. The size is that at Open: bytes that are appended later are not sent.
    DWORD GetNextLength() const;
    // Appends the next GetNextLength() bytes to aBlock, which must have room for them.
    std::string ReadNext(CCmMessageBlock& aBlock);

    // The SHA-256 of all bytes that were read. Call it once.
    std::string FinishHash() { return m_Hash.Finish(); }

    const std::string& GetPath() const { return m_strPath; }
    uint64_t GetSize() const { return m_ullSize; }
    uint64_t GetSent() const { return m_ullSent; }

private:
    const std::string m_strPath;
    int m_nFd = -1;
    DWORD m_dwMaxPiece = 0;
    uint64_t m_ullSize = 0;
    uint64_t m_ullSent = 0;
    Sha256 m_Hash;
};

}  // namespace tool
