#include "tools/incoming_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>

#include "tools/file_name.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr int MAX_NAMES_TRIED = 100;
constexpr time_t LEFTOVER_SECONDS = 3600;
const std::string EXISTS = "a file of that name exists";

std::string Problem(const char* aWhat) { return std::string(aWhat) + ": " + SystemError(errno); }

// Its writer holds the lock. On file systems without locks only the age decides.
bool IsLeftover(int aDirectory, const char* aName) {
    const FileHandle file(openat(aDirectory, aName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;
    const bool bWritten = flock(file.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    return !bWritten && status.st_mtim.tv_sec + LEFTOVER_SECONDS <= std::time(nullptr);
}

}  // namespace

IncomingFile::~IncomingFile() {
    if (!m_strTemporary.empty())
        unlinkat(m_nDirectory, m_strTemporary.c_str(), 0);
}

std::string IncomingFile::CheckTarget(int aDirectory, const std::string& aName, bool aReplace) {
    struct stat status {};
    if (fstatat(aDirectory, aName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? "" : Problem("cannot check for a file of that name");
    if (!S_ISREG(status.st_mode))
        return S_ISDIR(status.st_mode) ? "a directory has that name" : "the file of that name is not a regular file";
    return aReplace ? "" : EXISTS;
}

std::vector<std::string> IncomingFile::RemoveLeftovers(int aDirectory) {
    std::vector<std::string> removed;
    FileHandle again(openat(aDirectory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const std::unique_ptr<DIR, int (*)(DIR*)> pDir(fdopendir(again.Get()), closedir);
    if (!pDir)
        return removed;
    again.Detach();  // the stream closes it
    while (const dirent* pEntry = readdir(pDir.get())) {
        if (IsTemporaryName(pEntry->d_name) && IsLeftover(aDirectory, pEntry->d_name) &&
            unlinkat(aDirectory, pEntry->d_name, 0) == 0)
            removed.emplace_back(pEntry->d_name);
    }
    return removed;
}

std::string IncomingFile::Create() {
    for (int i = 0; i < MAX_NAMES_TRIED && !m_File; ++i) {
        const std::string strName = MakeTemporaryName();
        m_File = FileHandle(openat(m_nDirectory, strName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666));
        if (m_File)
            m_strTemporary = strName;
        else if (errno != EEXIST)
            break;
    }
    if (!m_File)
        return Problem("cannot create a file");
    flock(m_File.Get(), LOCK_EX | LOCK_NB);
    return "";
}

std::string IncomingFile::Write(std::string_view aBytes) {
    return WriteAll(m_File.Get(), aBytes) ? "" : Problem("cannot write");
}

std::string IncomingFile::Publish(const std::string& aName, bool aReplace) {
    if (fsync(m_File.Get()) != 0)
        return Problem("cannot write to the disk");
    if (!m_File.Close())
        return Problem("cannot close the file");
    const std::string strTaken = CheckTarget(m_nDirectory, aName, aReplace);
    if (!strTaken.empty())
        return strTaken;
    if (!Rename_i(aName, aReplace))
        return errno == EEXIST ? EXISTS : Problem("cannot rename");
    m_strTemporary.clear();
    // Some file systems do not have this operation for a directory; the name cannot be made safer then.
    if (fsync(m_nDirectory) != 0 && errno != EINVAL)
        return Problem("cannot write the directory to the disk");
    return "";
}

bool IncomingFile::Rename_i(const std::string& aName, bool aReplace) {
    const char* pFrom = m_strTemporary.c_str();
    if (aReplace)
        return renameat(m_nDirectory, pFrom, m_nDirectory, aName.c_str()) == 0;
    if (renameat2(m_nDirectory, pFrom, m_nDirectory, aName.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    // File systems without that flag have links, which do not replace either.
    return linkat(m_nDirectory, pFrom, m_nDirectory, aName.c_str(), 0) == 0 && unlinkat(m_nDirectory, pFrom, 0) == 0;
}

}  // namespace tool
