#include "tools/partial_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <sstream>

#include "tools/text.h"

namespace tool {

namespace {

constexpr size_t MAX_TAG = 8192;
constexpr int OPEN_FLAGS = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW;
constexpr int CREATE_FLAGS = OPEN_FLAGS | O_CREAT | O_EXCL;

std::string Problem(const std::string& aWhat) { return aWhat + ": " + SystemError(errno); }

// aThere (out): a regular file has that name. Links are not followed.
std::string LookFor(const std::string& aPath, bool& aThere, uint64_t& aSize) {
    struct stat status {};
    aThere = lstat(aPath.c_str(), &status) == 0;
    if (!aThere)
        return errno == ENOENT ? "" : Problem("'" + aPath + "'");
    aSize = static_cast<uint64_t>(status.st_size);
    return S_ISREG(status.st_mode) ? "" : "'" + aPath + "' exists and is not a regular file";
}

// Without a tag if the file does not exist or was not written by Begin.
FileEdition ReadEdition(const std::string& aPath) {
    const FileHandle file(open(aPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode))
        return {};
    std::string strText(MAX_TAG, '\0');
    const ssize_t nDone = read(file.Get(), strText.data(), strText.size());
    strText.resize(nDone > 0 ? static_cast<size_t>(nDone) : 0);
    FileEdition edition;
    std::istringstream lines(strText);
    std::string strSize;
    std::getline(lines, edition.m_strTag);
    std::getline(lines, strSize);
    std::getline(lines, edition.m_strSource);
    std::from_chars(strSize.data(), strSize.data() + strSize.size(), edition.m_ullSize);
    return edition;
}

}  // namespace

PartialFile::PartialFile(std::string aPath)
    : m_strPath(std::move(aPath)),
      m_strPart(m_strPath + std::string(SUFFIX)),
      m_strTagPath(m_strPath + std::string(LONGEST_SUFFIX)) {}

std::string PartialFile::LookForBeginning() {
    m_Part = FileHandle();
    bool bThere = false;
    uint64_t ullSize = 0;
    const std::string strProblem = LookFor(m_strPart, bThere, ullSize);
    m_Edition = bThere ? ReadEdition(m_strTagPath) : FileEdition();
    m_ullSize = m_Edition.m_strTag.empty() ? 0 : ullSize;
    return strProblem;
}

std::string PartialFile::Continue() {
    const std::string strProblem = OpenPart();
    if (!strProblem.empty())
        return strProblem;
    struct stat status {};
    const bool bSame = m_Part && fstat(m_Part.Get(), &status) == 0 && static_cast<uint64_t>(status.st_size) == m_ullSize;
    return bSame ? "" : "'" + m_strPart + "' has changed";
}

std::string PartialFile::Begin(const FileEdition& aEdition) {
    std::string strProblem = OpenPart();
    if (!strProblem.empty())
        return strProblem;
    if (m_Part && unlink(m_strPart.c_str()) != 0)
        return Problem("cannot remove '" + m_strPart + "'");
    m_Part = FileHandle(open(m_strPart.c_str(), CREATE_FLAGS, 0666));
    if (!m_Part)
        return Problem("cannot create '" + m_strPart + "'");
    struct stat status {};
    if (stat(m_strPath.c_str(), &status) == 0)  // a private file stays private
        fchmod(m_Part.Get(), status.st_mode & 0777);
    strProblem = Lock();
    return strProblem.empty() ? WriteEdition(aEdition) : strProblem;
}

// m_Part stays empty if there is no part.
std::string PartialFile::OpenPart() {
    bool bThere = false;
    uint64_t ullSize = 0;
    std::string strProblem = LookFor(m_strPart, bThere, ullSize);
    if (!bThere || !strProblem.empty())
        return strProblem;
    m_Part = FileHandle(open(m_strPart.c_str(), OPEN_FLAGS | O_NONBLOCK));
    return m_Part ? Lock() : Problem("cannot open '" + m_strPart + "'");
}

// If another process has renamed or removed the open file, it is no longer FILE.part.
std::string PartialFile::Lock() const {
    struct stat opened {};
    struct stat named {};
    const bool bBusy = flock(m_Part.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    const bool bSame = fstat(m_Part.Get(), &opened) == 0 && lstat(m_strPart.c_str(), &named) == 0 &&
                       opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
    return !bBusy && bSame ? "" : "another process is writing '" + m_strPart + "'";
}

std::string PartialFile::WriteEdition(const FileEdition& aEdition) const {
    if (unlink(m_strTagPath.c_str()) != 0 && errno != ENOENT)
        return Problem("cannot replace '" + m_strTagPath + "'");
    if (aEdition.m_strTag.empty())
        return "";
    const bool bSized = aEdition.m_ullSize != FileEdition::NO_SIZE;
    const std::string strText =
        aEdition.m_strTag + "\n" + (bSized ? std::to_string(aEdition.m_ullSize) : "") + "\n" + aEdition.m_strSource;
    FileHandle tag(open(m_strTagPath.c_str(), CREATE_FLAGS, 0666));
    return tag && WriteAll(tag.Get(), strText) && tag.Close() ? "" : Problem("cannot write '" + m_strTagPath + "'");
}

std::string PartialFile::Write(std::string_view aBytes) {
    return WriteAll(m_Part.Get(), aBytes) ? "" : Problem("cannot write '" + m_strPart + "'");
}

std::string PartialFile::Publish() {
    if (fsync(m_Part.Get()) != 0)
        return Problem("cannot write '" + m_strPart + "' to the disk");
    if (rename(m_strPart.c_str(), m_strPath.c_str()) != 0)
        return Problem("cannot rename '" + m_strPart + "'");
    unlink(m_strTagPath.c_str());
    return "";
}

}  // namespace tool
