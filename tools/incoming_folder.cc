#include "tools/incoming_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tools/text.h"

namespace tool {

namespace {

// The sticky bit marks a folder that is not finished.
constexpr mode_t UNFINISHED = S_ISVTX | S_IRWXU;
constexpr mode_t MODE_BITS = 07777;

}  // namespace

std::string IncomingFolder::Open(const IncomingFolder& aParent, const FrameEntry& aEntry) {
    const char* pName = aEntry.m_strName.c_str();
    const bool bNew = mkdirat(aParent.GetFd(), pName, S_IRWXU) == 0;
    if (!bNew && errno != EEXIST)
        return "cannot make the folder: " + SystemError(errno);
    m_Directory = FileHandle(openat(aParent.GetFd(), pName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!m_Directory || fstat(m_Directory.Get(), &status) != 0)
        return errno == ENOTDIR || errno == ELOOP ? "a file of that name exists"
                                                  : "cannot open the folder: " + SystemError(errno);
    m_Entry = aEntry;
    m_bMade = bNew || (status.st_mode & MODE_BITS) == UNFINISHED;
    return bNew && fchmod(m_Directory.Get(), UNFINISHED) != 0 ? "cannot make the folder: " + SystemError(errno) : "";
}

// Some file systems do not have this operation for a directory; the names cannot be made safer then.
std::string IncomingFolder::Flush() const {
    return fsync(m_Directory.Get()) == 0 || errno == EINVAL ? ""
                                                            : "cannot write the directory to the disk: " + SystemError(errno);
}

// A file system that does not have the time or the mode keeps its own.
std::string IncomingFolder::Finish() {
    const std::string strFlush = Flush();
    if (!strFlush.empty() || !m_bMade)
        return strFlush;
    const timespec times[] = {{0, UTIME_OMIT}, {m_Entry.m_llSeconds, static_cast<long>(m_Entry.m_dwNanoseconds)}};
    futimens(m_Directory.Get(), times);
    return fchmod(m_Directory.Get(), m_Entry.m_dwMode & 0777) == 0 ? "" : "cannot set the mode: " + SystemError(errno);
}

}  // namespace tool
