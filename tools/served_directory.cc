#include "tools/served_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>

#include "tools/text.h"

namespace tool {

namespace {

constexpr int READ_FLAGS = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// If the system cannot confine links to the directory, none are followed.
int OpenWithoutLinks(int aDirectory, std::string_view aPath, int aFlags) {
    FileHandle current(openat(aDirectory, ".", READ_FLAGS | O_DIRECTORY));
    while (current && !aPath.empty()) {
        const size_t stEnd = std::min(aPath.find('/'), aPath.size());
        const std::string strPart(aPath.substr(0, stEnd));
        aPath.remove_prefix(std::min(stEnd + 1, aPath.size()));
        const int nFlags = aPath.empty() ? aFlags : READ_FLAGS | O_DIRECTORY;
        current = FileHandle(openat(current.Get(), strPart.c_str(), nFlags | O_NOFOLLOW));
    }
    return current.Detach();
}

// false: a request could not get the entry.
bool LookAt(const ServedDirectory& aRoot, const std::string& aPath, DirectoryEntry& aEntry) {
    const FileHandle file = aRoot.OpenAt(aPath.empty() ? aEntry.m_strName : aPath + "/" + aEntry.m_strName);
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0)
        return false;
    aEntry.m_bDirectory = S_ISDIR(status.st_mode);
    aEntry.m_ullSize = aEntry.m_bDirectory ? 0 : static_cast<uint64_t>(status.st_size);
    aEntry.m_llModified = status.st_mtim.tv_sec;
    return true;
}

}  // namespace

std::string ServedDirectory::Open(const std::string& aPath) {
    m_Directory = FileHandle(open(aPath.c_str(), READ_FLAGS | O_DIRECTORY));
    return m_Directory ? "" : "cannot open '" + aPath + "': " + SystemError(errno);
}

// Even a non-blocking open of a pipe for reading releases its writer, and opening a device may have any effect. So check the
// kind of file first.
FileHandle ServedDirectory::OpenAt(const std::string& aPath) const {
    const FileHandle look(OpenInside(aPath, O_PATH | O_CLOEXEC));
    struct stat status {};
    if (!look || fstat(look.Get(), &status) != 0)
        return FileHandle();
    if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))
        return FileHandle(OpenInside(aPath, READ_FLAGS));
    errno = S_ISLNK(status.st_mode) ? ELOOP : EPERM;
    return FileHandle();
}

int ServedDirectory::OpenInside(const std::string& aPath, int aFlags) const {
    open_how how{};
    how.flags = static_cast<unsigned>(aFlags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    const char* pPath = aPath.empty() ? "." : aPath.c_str();
    const long lFd = syscall(SYS_openat2, m_Directory.Get(), pPath, &how, sizeof how);
    if (lFd == -1 && (errno == ENOSYS || errno == EPERM))
        return OpenWithoutLinks(m_Directory.Get(), aPath, aFlags);
    return static_cast<int>(lFd);
}

bool ListDirectory(const ServedDirectory& aRoot, FileHandle aDirectory, const std::string& aPath, DirectoryListing& aListing) {
    const std::unique_ptr<DIR, int (*)(DIR*)> pDir(fdopendir(aDirectory.Get()), closedir);
    if (!pDir)
        return false;
    aDirectory.Detach();  // the stream closes it
    size_t stSeen = 0;
    while (const dirent* pEntry = readdir(pDir.get())) {
        DirectoryEntry entry{pEntry->d_name};
        if (entry.m_strName == "." || entry.m_strName == "..")
            continue;
        aListing.m_bIncomplete = stSeen++ == DirectoryListing::MAX_ENTRIES;
        if (aListing.m_bIncomplete)
            break;
        if (LookAt(aRoot, aPath, entry))
            aListing.m_Entries.push_back(std::move(entry));
    }
    aListing.m_bHasParent = !aPath.empty() && aRoot.OpenAt(aPath.substr(0, aPath.find_last_of('/') + 1));
    return true;
}

}  // namespace tool
