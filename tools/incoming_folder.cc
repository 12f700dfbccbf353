#include "tools/incoming_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tools/file_name.h"
#include "tools/text.h"

namespace tool {

std::string IncomingFolder::Open(const IncomingFolder& aParent, const FrameEntry& aEntry) {
    const char* pName = aEntry.m_strName.c_str();
    const bool bNew = mkdirat(aParent.GetFd(), pName, S_IRWXU) == 0;
    if (!bNew && errno != EEXIST)
        return "cannot make the folder: " + SystemError(errno);
    m_Directory = FileHandle(openat(aParent.GetFd(), pName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!m_Directory)
        return errno == ENOTDIR || errno == ELOOP ? "a file of that name exists"
                                                  : "cannot open the folder: " + SystemError(errno);
    m_Entry = aEntry;
    m_bMade = bNew || IsMarked();
    return bNew ? Mark() : "";
}

std::string IncomingFolder::Mark() {
    const FileHandle mark(
        openat(m_Directory.Get(), MakeMarkName().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return mark ? "" : "cannot create a file in the folder: " + SystemError(errno);
}

// A sender cannot make the mark: its name is reserved.
bool IncomingFolder::IsMarked() const {
    struct stat status {};
    return fstatat(m_Directory.Get(), MakeMarkName().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode);
}

// Some file systems do not have this operation for a directory; the names cannot be made safer then.
std::string IncomingFolder::Flush() const {
    return fsync(m_Directory.Get()) == 0 || errno == EINVAL ? ""
                                                            : "cannot write the directory to the disk: " + SystemError(errno);
}

// The mark goes before the time is set, since its removal changes that. A file system that does not have the time or the mode
// keeps its own.
std::string IncomingFolder::Finish() {
    const std::string strFlush = Flush();
    if (!strFlush.empty() || !m_bMade)
        return strFlush;
    unlinkat(m_Directory.Get(), MakeMarkName().c_str(), 0);
    const timespec times[] = {{0, UTIME_OMIT}, {m_Entry.m_llSeconds, static_cast<long>(m_Entry.m_dwNanoseconds)}};
    futimens(m_Directory.Get(), times);
    return fchmod(m_Directory.Get(), m_Entry.m_dwMode & 0777) == 0 ? "" : "cannot set the mode: " + SystemError(errno);
}

}  // namespace tool
