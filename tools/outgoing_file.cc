#include "tools/outgoing_file.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "tools/text.h"

namespace tool {

namespace {

constexpr DWORD PIECE_BYTES = 128 * 1024;

}  // namespace

OutgoingFile::OutgoingFile(FileHandle aFile, uint64_t aSize, DWORD aMaxPiece)
    : m_File(std::move(aFile)), m_ullSize(aSize), m_dwMaxPiece(std::min(PIECE_BYTES, aMaxPiece)) {
    fstat(m_File.Get(), &m_Status);
    posix_fadvise(m_File.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

OutgoingFile::EStep OutgoingFile::ReadNext(DWORD aId, CCmMessageBlock& aBlock) {
    if (aBlock.GetTopLevelSpace() < GetRoom())
        return Fail("cannot read: out of memory");
    char* pFrame = aBlock.GetTopLevelWritePtr();
    DWORD dwDone = 0;
    const EStep step = Read(pFrame + DATA_HEADER, m_dwMaxPiece, dwDone);
    if (step != PIECE)
        return step;
    const std::string strHeader = EncodeDataHeader(aId, dwDone);
    std::memcpy(pFrame, strHeader.data(), strHeader.size());
    aBlock.AdvanceTopLevelWritePtr(DATA_HEADER + dwDone);
    return PIECE;
}

OutgoingFile::EStep OutgoingFile::Skip(uint64_t aBytes) {
    if (m_ullDone == aBytes)
        return AT_END;
    std::vector<char> piece(PIECE_BYTES);
    DWORD dwDone = 0;
    return Read(piece.data(), static_cast<DWORD>(std::min<uint64_t>(PIECE_BYTES, aBytes - m_ullDone)), dwDone);
}

void OutgoingFile::Rewind() {
    lseek(m_File.Get(), 0, SEEK_SET);
    m_Hash.Reset();
    m_ullDone = 0;
}

bool OutgoingFile::HasChanged() const {
    struct stat now {};
    if (m_ullSize == UNKNOWN_SIZE || fstat(m_File.Get(), &now) != 0)
        return false;
    const timespec &before = m_Status.st_mtim, &after = now.st_mtim;
    return static_cast<uint64_t>(now.st_size) != m_ullSize || before.tv_sec != after.tv_sec || before.tv_nsec != after.tv_nsec;
}

// Never waits for a pipe or a terminal.
OutgoingFile::EStep OutgoingFile::Read(char* aTo, DWORD aLength, DWORD& aDone) {
    const auto dwLength = static_cast<DWORD>(std::min<uint64_t>(aLength, m_ullSize - m_ullDone));
    pollfd entry{m_File.Get(), POLLIN, 0};
    if (dwLength == 0)
        return AT_END;
    if (m_ullSize == UNKNOWN_SIZE && poll(&entry, 1, 0) <= 0)
        return WAIT;
    const ssize_t nRead = read(m_File.Get(), aTo, dwLength);
    if (nRead < 0 && (errno == EINTR || errno == EAGAIN))
        return WAIT;
    if (nRead < 0)
        return Fail("cannot read: " + SystemError(errno));
    if (nRead == 0)
        return m_ullSize == UNKNOWN_SIZE ? AT_END : Fail("the file became shorter while it was read");
    aDone = static_cast<DWORD>(nRead);
    m_Hash.Update({aTo, aDone});
    m_ullDone += aDone;
    return PIECE;
}

OutgoingFile::EStep OutgoingFile::Fail(const std::string& aProblem) {
    m_strProblem = aProblem;
    return FAILED;
}

}  // namespace tool
