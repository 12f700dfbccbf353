// A file that is being sent: read once, in pieces, and hashed.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "talvo/talvo.h"
#include "tools/file_handle.h"
#include "tools/frame.h"
#include "tools/sha256.h"

namespace tool {

// The operations return "" or an error text.
class OutgoingFile {
public:
    enum EStep { PIECE, AT_END, WAIT, FAILED };

    // aSize: UNKNOWN_SIZE for a pipe or a terminal. aMaxPiece: the longest piece.
    OutgoingFile(FileHandle aFile, uint64_t aSize, DWORD aMaxPiece);

    // PIECE: a DATA frame for aId with the next bytes was appended to aBlock, which has GetRoom() bytes of room. WAIT: a pipe
    // or a terminal has no data yet. FAILED: see GetProblem. A file ends at aSize: bytes that are appended later are not sent.
    EStep ReadNext(DWORD aId, CCmMessageBlock& aBlock);
    DWORD GetRoom() const { return DATA_HEADER + m_dwMaxPiece; }
    const std::string& GetProblem() const { return m_strProblem; }

    // Hashes a piece of the first aBytes without sending it. AT_END: all of them are hashed.
    EStep Skip(uint64_t aBytes);
    // Begins again at the first byte. Not for a pipe.
    void Rewind();

    // The SHA-256 of all bytes that were read.
    std::string GetHash() const { return m_Hash.GetSoFar(); }

    // TRUE: the file has another size or time than before the first read. Not for a pipe.
    bool HasChanged() const;

    int GetFd() const { return m_File.Get(); }
    uint64_t GetSize() const { return m_ullSize; }  // UNKNOWN_SIZE: see GetDone at the end
    uint64_t GetDone() const { return m_ullDone; }

private:
    EStep Read(char* aTo, DWORD aLength, DWORD& aDone);
    EStep Fail(const std::string& aProblem);

    const FileHandle m_File;
    const uint64_t m_ullSize;
    const DWORD m_dwMaxPiece;
    struct stat m_Status {};  // before the first read
    uint64_t m_ullDone = 0;
    std::string m_strProblem;
    Sha256 m_Hash;
};

}  // namespace tool
