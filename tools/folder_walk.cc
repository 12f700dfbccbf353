#include "tools/folder_walk.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "tools/file_name.h"
#include "tools/frame.h"
#include "tools/text.h"

namespace tool {

namespace {

// Without O_NONBLOCK, a pipe in the place of a file would block until it has a writer.
constexpr int FLAGS = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

bool IsDots(std::string_view aName) { return aName == "." || aName == ".."; }

}  // namespace

FolderWalk::FolderWalk(std::vector<std::string> aPaths, std::string aInputName)
    : m_vecPaths(std::move(aPaths)), m_strInputName(std::move(aInputName)) {}

FolderWalk::~FolderWalk() = default;

std::string FolderWalk::GetName(const std::string& aPath) {
    const size_t stEnd = aPath.find_last_not_of('/');
    const std::string strName(GetBaseName(aPath.substr(0, stEnd == std::string::npos ? 0 : stEnd + 1)));
    char szPath[PATH_MAX];
    if (IsDots(strName) && realpath(aPath.c_str(), szPath))
        return std::string(GetBaseName(szPath));
    return strName;
}

bool FolderWalk::Next(Entry& aEntry) {
    aEntry = Entry();
    if (m_vecLevels.empty() && GetLeft() == 0)
        return false;
    if (m_vecLevels.empty())
        NextPath(aEntry);
    else
        NextInFolder(aEntry);
    return true;
}

void FolderWalk::NextPath(Entry& aEntry) {
    const std::string& strPath = m_vecPaths[m_stNext++];
    aEntry.m_strPath = strPath;
    aEntry.m_strName = GetName(strPath);
    if (strPath != INPUT) {
        Judge(AT_FDCWD, strPath.c_str(), 0, aEntry);
        return;
    }
    aEntry.m_Kind = FILE;
    aEntry.m_strName = m_strInputName;
    aEntry.m_bInput = true;
    aEntry.m_File = FileHandle(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    aEntry.m_Status.st_mode = 0644;
    clock_gettime(CLOCK_REALTIME, &aEntry.m_Status.st_mtim);
}

void FolderWalk::NextInFolder(Entry& aEntry) {
    const Level& level = m_vecLevels.back();
    errno = 0;
    const dirent* pEntry = readdir(level.m_pDirectory.get());
    while (pEntry && IsDots(pEntry->d_name))
        pEntry = readdir(level.m_pDirectory.get());
    if (!pEntry) {
        aEntry.m_Kind = LEAVE;
        aEntry.m_strPath = level.m_strPath;
        aEntry.m_strProblem = errno == 0 ? "" : "cannot read the folder further: " + SystemError(errno);
        m_vecLevels.pop_back();
        return;
    }
    aEntry.m_strName = pEntry->d_name;
    aEntry.m_strPath = level.m_strPath + "/" + aEntry.m_strName;
    Judge(dirfd(level.m_pDirectory.get()), pEntry->d_name, AT_SYMLINK_NOFOLLOW, aEntry);
}

// Looks before it opens, because to open a device can have effects, and again at the opened one.
void FolderWalk::Judge(int aDirectory, const char* aName, int aFlags, Entry& aEntry) {
    struct stat& status = aEntry.m_Status;
    if (fstatat(aDirectory, aName, &status, aFlags) != 0) {
        aEntry.m_strProblem = SystemError(errno);
        return;
    }
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        aEntry.m_Kind = SKIPPED;
        aEntry.m_strProblem = S_ISLNK(status.st_mode) ? "a symbolic link" : "neither a regular file nor a folder";
        return;
    }
    aEntry.m_File = FileHandle(openat(aDirectory, aName, FLAGS | (aFlags == 0 ? 0 : O_NOFOLLOW)));
    if (!aEntry.m_File || fstat(aEntry.m_File.Get(), &status) != 0)
        aEntry.m_strProblem = "cannot open: " + SystemError(errno);
    else if (S_ISDIR(status.st_mode))
        Enter(aEntry);
    else if (S_ISREG(status.st_mode))
        aEntry.m_Kind = FILE;
    else
        aEntry.m_strProblem = "no longer a regular file";
}

void FolderWalk::Enter(Entry& aEntry) {
    if (m_vecLevels.size() == MOST_FOLDERS) {
        aEntry.m_strProblem = "more than " + std::to_string(MOST_FOLDERS) + " folders are within each other";
        return;
    }
    std::unique_ptr<DIR, int (*)(DIR*)> pDirectory(fdopendir(aEntry.m_File.Get()), closedir);
    if (!pDirectory) {
        aEntry.m_strProblem = "cannot read the folder: " + SystemError(errno);
        return;
    }
    aEntry.m_File.Detach();  // the stream closes it
    aEntry.m_Kind = FOLDER;
    std::string strPath = aEntry.m_strPath;
    while (strPath.size() > 1 && strPath.ends_with('/'))
        strPath.pop_back();
    m_vecLevels.push_back({std::move(pDirectory), std::move(strPath)});
}

}  // namespace tool
