#include "tools/outgoing_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tools/text.h"

namespace tool {

namespace {

constexpr DWORD PIECE = 128 * 1024;

}  // namespace

OutgoingFile::~OutgoingFile() {
    if (m_nFd >= 0)
        close(m_nFd);
}

std::string OutgoingFile::Open(DWORD aMaxPiece) {
    m_dwMaxPiece = std::min(PIECE, aMaxPiece);
    // Without O_NONBLOCK, a pipe instead of a file would block until it has a writer.
    m_nFd = open(m_strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    struct stat status {};
    if (m_nFd < 0 || fstat(m_nFd, &status) != 0)
        return "cannot open: " + SystemError(errno);
    if (!S_ISREG(status.st_mode))
        return "not a regular file";
    m_ullSize = static_cast<uint64_t>(status.st_size);
    posix_fadvise(m_nFd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return "";
}

DWORD OutgoingFile::GetNextLength() const {
    return static_cast<DWORD>(std::min<uint64_t>(m_dwMaxPiece, m_ullSize - m_ullSent));
}

std::string OutgoingFile::ReadNext(CCmMessageBlock& aBlock) {
    const char* pBegin = aBlock.GetTopLevelWritePtr();
    const DWORD dwLength = GetNextLength();
    if (aBlock.GetTopLevelSpace() < dwLength)
        return "cannot read: out of memory";
    for (DWORD dwDone = 0; dwDone < dwLength;) {
        const ssize_t nRead = read(m_nFd, aBlock.GetTopLevelWritePtr(), dwLength - dwDone);
        if (nRead < 0 && errno == EINTR)
            continue;
        if (nRead < 0)
            return "cannot read: " + SystemError(errno);
        if (nRead == 0)
            return "the file became shorter while it was read";
        dwDone += static_cast<DWORD>(nRead);
        aBlock.AdvanceTopLevelWritePtr(static_cast<DWORD>(nRead));
    }
    m_Hash.Update({pBegin, dwLength});
    m_ullSent += dwLength;
    return "";
}

}  // namespace tool
