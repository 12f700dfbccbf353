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
#include <vector>

#include "tools/request_path.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr int READ_FLAGS = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr size_t MAX_ENTRIES = 10000;

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

std::string MakeLink(const std::string& aName) {
    // "./" keeps a name with a colon from being read as a scheme.
    return "<li><a href=\"./" + EncodePath(aName) + "\">" + EscapeHtml(Printable(aName)) + "</a></li>\n";
}

// "" for an entry that a request could not get.
std::string MakeEntry(const ServedDirectory& aRoot, const std::string& aPath, const std::string& aName) {
    const FileHandle file = aRoot.OpenAt(aPath.empty() ? aName : aPath + "/" + aName);
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0)
        return "";
    return MakeLink(S_ISDIR(status.st_mode) ? aName + "/" : aName);
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

std::string MakeDirectoryPage(const ServedDirectory& aRoot, FileHandle aDirectory, const std::string& aPath) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> pDir(fdopendir(aDirectory.Get()), closedir);
    if (!pDir)
        return "";
    aDirectory.Detach();  // the stream closes it
    while (const dirent* pEntry = readdir(pDir.get())) {
        const std::string strName = pEntry->d_name;
        if (strName != "." && strName != ".." && names.size() < MAX_ENTRIES)
            names.push_back(strName);
    }
    std::sort(names.begin(), names.end());
    const std::string strTitle = EscapeHtml(Printable(aPath.empty() ? "/" : "/" + aPath + "/"));
    std::string strPage = "<!DOCTYPE html>\n<html><head><meta charset=\"utf-8\"><title>" + strTitle +
                          "</title></head>\n<body><h1>" + strTitle + "</h1>\n<ul>\n";
    if (!aPath.empty() && aRoot.OpenAt(aPath.substr(0, aPath.find_last_of('/') + 1)))
        strPage += "<li><a href=\"../\">../</a></li>\n";
    for (const std::string& strName : names)
        strPage += MakeEntry(aRoot, aPath, strName);
    return strPage + "</ul></body></html>\n";
}

}  // namespace tool
