#include "tools/incoming_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <vector>

#include "tools/file_name.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr int MAX_NAMES_TRIED = 100;
constexpr time_t LEFTOVER_SECONDS = 86400;
constexpr size_t HASH_PIECE = 1 << 20;
const Failure EXISTS{CAUSE_REFUSED, "a file of that name exists"};

Failure Problem(const char* aWhat) { return {CAUSE_LOCAL, std::string(aWhat) + ": " + SystemError(errno)}; }

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

IncomingFile::IncomingFile(std::shared_ptr<IncomingFolder> aFolder, FrameEntry aEntry, bool aReplace)
    : m_pFolder(std::move(aFolder)), m_Entry(std::move(aEntry)), m_bReplace(aReplace) {}

IncomingFile::~IncomingFile() {
    if (!m_strTemporary.empty() && !m_bKeep)
        unlinkat(m_pFolder->GetFd(), m_strTemporary.c_str(), 0);
}

void IncomingFile::KeepPart() {
    struct stat status {};
    m_bKeep = m_bResumable && fstat(m_File.Get(), &status) == 0 && status.st_size > 0;
}

// Only regular files are replaced, never links, pipes and devices, whatever their target.
Failure IncomingFile::CheckTarget(bool aReplace) const {
    struct stat status {};
    if (fstatat(m_pFolder->GetFd(), m_Entry.m_strName.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? Failure() : Problem("cannot check for a file of that name");
    if (!S_ISREG(status.st_mode))
        return {CAUSE_REFUSED,
                S_ISDIR(status.st_mode) ? "a directory has that name" : "the file of that name is not a regular file"};
    return aReplace ? Failure() : EXISTS;
}

Failure IncomingFile::Open() {
    const Failure taken = CheckTarget(true);
    if (taken)
        return taken;
    if (IsSameSize()) {
        m_ullBeginning = m_Entry.m_ullSize;
        m_bWhole = m_ullBeginning == 0;
        return {};
    }
    const Failure exists = CheckTarget(m_bReplace);
    return exists ? exists : OpenNew();
}

bool IncomingFile::IsSameSize() {
    m_Existing = FileHandle(
        openat(m_pFolder->GetFd(), m_Entry.m_strName.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (m_Existing && fstat(m_Existing.Get(), &status) == 0 && S_ISREG(status.st_mode) &&
        static_cast<uint64_t>(status.st_size) == m_Entry.m_ullSize)
        return true;
    m_Existing = FileHandle();
    return false;
}

// A part of another user, of another session or with a second name is left alone.
bool IncomingFile::OpenPart() {
    const std::string strName = MakePartName(m_Entry.m_strName);
    constexpr int PART_FLAGS = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    FileHandle file(openat(m_pFolder->GetFd(), strName.c_str(), PART_FLAGS, 0600));
    struct stat opened {};
    struct stat named {};
    if (!file || flock(file.Get(), LOCK_EX | LOCK_NB) != 0 || fstat(file.Get(), &opened) != 0 ||
        fstatat(m_pFolder->GetFd(), strName.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    if (!S_ISREG(opened.st_mode) || opened.st_nlink != 1 || opened.st_uid != geteuid() || opened.st_ino != named.st_ino ||
        opened.st_dev != named.st_dev)
        return false;
    m_ullBeginning = static_cast<uint64_t>(opened.st_size);
    m_File = std::move(file);
    m_strTemporary = strName;
    m_bResumable = true;
    return m_ullBeginning <= m_Entry.m_ullSize || !Restart();
}

Failure IncomingFile::OpenNew() {
    if (m_Entry.m_ullSize != UNKNOWN_SIZE && OpenPart())
        return {};
    for (int i = 0; i < MAX_NAMES_TRIED && !m_File; ++i) {
        const std::string strName = MakeTemporaryName();
        m_File =
            FileHandle(openat(m_pFolder->GetFd(), strName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (m_File)
            m_strTemporary = strName;
        else if (errno != EEXIST)
            break;
    }
    if (!m_File)
        return Problem("cannot create a file");
    flock(m_File.Get(), LOCK_EX | LOCK_NB);
    return {};
}

bool IncomingFile::HashBeginning() {
    std::vector<char> piece(std::min<uint64_t>(HASH_PIECE, m_ullBeginning - m_ullHashed));
    const int nFd = m_Existing ? m_Existing.Get() : m_File.Get();
    const ssize_t nRead = pread(nFd, piece.data(), piece.size(), static_cast<off_t>(m_ullHashed));
    if (nRead <= 0) {
        m_Hash.Reset();  // no hash of a sender is that of less
        return true;
    }
    m_Hash.Update({piece.data(), static_cast<size_t>(nRead)});
    m_ullHashed += static_cast<uint64_t>(nRead);
    if (m_ullHashed == m_ullBeginning)
        lseek(nFd, 0, SEEK_END);
    return m_ullHashed == m_ullBeginning;
}

Failure IncomingFile::Restart() {
    m_Hash.Reset();
    m_ullBeginning = m_ullHashed = 0;
    m_bWhole = false;
    if (m_Existing) {
        m_Existing = FileHandle();
        const Failure exists = CheckTarget(m_bReplace);
        const Failure failure = exists ? exists : OpenNew();
        return !failure && m_ullBeginning > 0 ? Restart() : failure;
    }
    const bool bEmpty = ftruncate(m_File.Get(), 0) == 0 && lseek(m_File.Get(), 0, SEEK_SET) == 0;
    return bEmpty ? Failure() : Problem("cannot begin the file again");
}

Failure IncomingFile::Write(std::string_view aBytes) {
    m_Hash.Update(aBytes);
    return WriteAll(m_File.Get(), aBytes) ? Failure() : Problem("cannot write");
}

// A file system that does not have the time or the mode keeps its own.
Failure IncomingFile::Publish() {
    if (m_bWhole)
        return {};
    const timespec times[] = {{0, UTIME_OMIT}, {m_Entry.m_llSeconds, static_cast<long>(m_Entry.m_dwNanoseconds)}};
    futimens(m_File.Get(), times);
    if (fchmod(m_File.Get(), m_Entry.m_dwMode & 0777) != 0)
        return Problem("cannot set the mode");
    if (fsync(m_File.Get()) != 0)
        return Problem("cannot write to the disk");
    const Failure taken = CheckTarget(m_bReplace);
    if (taken)
        return taken;
    if (!Rename_i())
        return errno == EEXIST ? EXISTS : Problem("cannot rename");
    m_strTemporary.clear();
    return m_pFolder->OnNewName();
}

bool IncomingFile::Rename_i() {
    const int nFd = m_pFolder->GetFd();
    const char* pFrom = m_strTemporary.c_str();
    const char* pTo = m_Entry.m_strName.c_str();
    if (m_bReplace)
        return renameat(nFd, pFrom, nFd, pTo) == 0;
    if (renameat2(nFd, pFrom, nFd, pTo, RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    // File systems without that flag have links, which do not replace either.
    return linkat(nFd, pFrom, nFd, pTo, 0) == 0 && unlinkat(nFd, pFrom, 0) == 0;
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

}  // namespace tool
