#include "tools/incoming_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tools/file_name.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr int MAX_NAMES_TRIED = 100;
const std::string EXISTS = "a file of that name exists";

std::string Problem(const char* aWhat) { return std::string(aWhat) + ": " + SystemError(errno); }

}  // namespace

IncomingFile::~IncomingFile() {
    Close_i();
    if (!m_strTemporary.empty())
        unlinkat(m_nDirectory, m_strTemporary.c_str(), 0);
}

std::string IncomingFile::CheckTarget(int aDirectory, const std::string& aName, bool aReplace) {
    struct stat status {};
    if (fstatat(aDirectory, aName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? "" : Problem("cannot look for a file of that name");
    if (S_ISDIR(status.st_mode))
        return "a directory has that name";
    return aReplace ? "" : EXISTS;
}

std::string IncomingFile::Create() {
    for (int i = 0; i < MAX_NAMES_TRIED && m_nFd < 0; ++i) {
        const std::string strName = MakeTemporaryName();
        m_nFd = openat(m_nDirectory, strName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
        if (m_nFd >= 0)
            m_strTemporary = strName;
        else if (errno != EEXIST)
            break;
    }
    return m_nFd >= 0 ? "" : Problem("cannot create a file");
}

std::string IncomingFile::Write(std::string_view aBytes) {
    while (!aBytes.empty()) {
        const ssize_t nDone = write(m_nFd, aBytes.data(), aBytes.size());
        if (nDone < 0 && errno == EINTR)
            continue;
        if (nDone <= 0)
            return Problem("cannot write");
        aBytes.remove_prefix(static_cast<size_t>(nDone));
    }
    return "";
}

std::string IncomingFile::Publish(const std::string& aName, bool aReplace) {
    if (fsync(m_nFd) != 0)
        return Problem("cannot write to the disk");
    const std::string strClosed = Close_i();
    if (!strClosed.empty())
        return strClosed;
    if (!Rename_i(aName, aReplace))
        return errno == EEXIST ? EXISTS : Problem("cannot rename");
    m_strTemporary.clear();
    // Some file systems have no such operation on a directory; the name is then as safe as it gets.
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

// Some file systems report a failed write only here.
std::string IncomingFile::Close_i() {
    const int nFd = m_nFd;
    m_nFd = -1;
    return nFd < 0 || close(nFd) == 0 ? "" : Problem("cannot close the file");
}

}  // namespace tool
