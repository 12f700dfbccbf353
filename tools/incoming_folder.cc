#include "tools/incoming_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tools/file_name.h"
#include "tools/text.h"

namespace tool {

namespace {

FileHandle OpenFolder(int aParent, const std::string& aName) {
    return FileHandle(openat(aParent, aName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

Failure Problem(const char* aWhat) { return {CAUSE_LOCAL, std::string(aWhat) + ": " + SystemError(errno)}; }

// A file system without that flag replaces an empty folder, but no other.
bool Rename(int aParent, const std::string& aFrom, const std::string& aTo) {
    return renameat2(aParent, aFrom.c_str(), aParent, aTo.c_str(), RENAME_NOREPLACE) == 0 ||
           ((errno == EINVAL || errno == ENOSYS) && renameat(aParent, aFrom.c_str(), aParent, aTo.c_str()) == 0);
}

}  // namespace

Failure IncomingFolder::Open(const IncomingFolder& aParent, const FrameEntry& aEntry) {
    m_Entry = aEntry;
    m_Directory = OpenFolder(aParent.GetFd(), aEntry.m_strName);
    if (!m_Directory && errno == ENOENT) {
        const Failure failure = Make(aParent);
        if (failure)
            return failure;
        m_Directory = OpenFolder(aParent.GetFd(), aEntry.m_strName);
    }
    if (!m_Directory && (errno == ENOTDIR || errno == ELOOP))
        return {CAUSE_REFUSED, "a file of that name exists"};
    if (!m_Directory)
        return Problem("cannot open the folder");
    m_bMade = IsMarked();
    return {};
}

// The folder gets its name when it has its mark. A killed process leaves the other name, which the next one finds; the slash in
// it keeps it apart from that of a file's part. Another process may be first, so that both names exist, or only the last one.
Failure IncomingFolder::Make(const IncomingFolder& aParent) const {
    const std::string strName = MakePartName(m_Entry.m_strName + "/");
    const bool bMade = mkdirat(aParent.GetFd(), strName.c_str(), S_IRWXU) == 0 || errno == EEXIST;
    const FileHandle folder = bMade ? OpenFolder(aParent.GetFd(), strName) : FileHandle();
    constexpr int MARK_FLAGS = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    const FileHandle mark(folder ? openat(folder.Get(), MakeMarkName().c_str(), MARK_FLAGS, 0600) : -1);
    if (mark && Rename(aParent.GetFd(), strName, m_Entry.m_strName))
        return {};
    const bool bBoth = mark && errno == EEXIST;
    const Failure failure = Problem("cannot make the folder");
    if (bBoth && unlinkat(folder.Get(), MakeMarkName().c_str(), 0) == 0)
        unlinkat(aParent.GetFd(), strName.c_str(), AT_REMOVEDIR);
    return OpenFolder(aParent.GetFd(), m_Entry.m_strName) ? Failure() : failure;
}

// A sender cannot make the mark: its name is reserved.
bool IncomingFolder::IsMarked() const {
    struct stat status {};
    return fstatat(m_Directory.Get(), MakeMarkName().c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode);
}

// Some file systems do not have this operation for a directory; the names cannot be made safer then.
Failure IncomingFolder::Flush() const {
    const bool bFlushed = fsync(m_Directory.Get()) == 0 || errno == EINVAL;
    return bFlushed ? Failure() : Problem("cannot write the directory to the disk");
}

// The mark goes before the time is set, since its removal changes that. A file system that does not have the time or the mode
// keeps its own.
Failure IncomingFolder::Finish() {
    const Failure failure = Flush();
    if (failure || !m_bMade)
        return failure;
    unlinkat(m_Directory.Get(), MakeMarkName().c_str(), 0);
    const timespec times[] = {{0, UTIME_OMIT}, {m_Entry.m_llSeconds, static_cast<long>(m_Entry.m_dwNanoseconds)}};
    futimens(m_Directory.Get(), times);
    return fchmod(m_Directory.Get(), m_Entry.m_dwMode & 0777) == 0 ? Failure() : Problem("cannot set the mode");
}

}  // namespace tool
