#include "tools/partial_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "tools/text.h"

namespace tool {

namespace {

std::string Problem(const std::string& aWhat) { return aWhat + ": " + SystemError(errno); }

}  // namespace

PartialFile::PartialFile(std::string aPath)
    : m_strPath(std::move(aPath)), m_strPart(m_strPath + ".part"), m_strTagPath(m_strPart + ".tag") {}

PartialFile::~PartialFile() {
    if (m_nFd >= 0)
        close(m_nFd);
}

// FILE itself is what somebody else has left behind; it becomes FILE.part as soon as there is something to add.
std::string PartialFile::OpenBeginning() {
    if (access(m_strPart.c_str(), F_OK) != 0) {
        unlink(m_strTagPath.c_str());
        if (rename(m_strPath.c_str(), m_strPart.c_str()) != 0 && errno != ENOENT)
            return Problem("cannot rename '" + m_strPath + "'");
    }
    const std::string strProblem = Open_i(O_CREAT);
    if (!strProblem.empty())
        return strProblem;
    struct stat status {};
    if (fstat(m_nFd, &status) != 0 || !S_ISREG(status.st_mode))
        return "'" + m_strPart + "' is not a regular file";
    m_ullSize = static_cast<uint64_t>(status.st_size);
    std::ifstream tag(m_strTagPath, std::ios::binary);
    m_strTag.assign(std::istreambuf_iterator<char>(tag), {});
    return "";
}

std::string PartialFile::Create(std::string_view aTag) {
    const std::string strProblem = Open_i(O_CREAT | O_TRUNC);
    if (!strProblem.empty())
        return strProblem;
    m_ullSize = 0;
    m_strTag = aTag;
    std::ofstream tag(m_strTagPath, std::ios::binary | std::ios::trunc);
    tag << m_strTag;
    return tag.flush() ? "" : Problem("cannot write '" + m_strTagPath + "'");
}

std::string PartialFile::Open_i(int aFlags) {
    if (m_nFd >= 0)
        close(m_nFd);
    m_nFd = open(m_strPart.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK | aFlags, 0666);
    return m_nFd >= 0 ? "" : Problem("cannot open '" + m_strPart + "'");
}

std::string PartialFile::Write(std::string_view aBytes) {
    while (!aBytes.empty()) {
        const ssize_t nDone = write(m_nFd, aBytes.data(), aBytes.size());
        if (nDone < 0 && errno == EINTR)
            continue;
        if (nDone <= 0)
            return Problem("cannot write '" + m_strPart + "'");
        aBytes.remove_prefix(static_cast<size_t>(nDone));
        m_ullSize += static_cast<uint64_t>(nDone);
    }
    return "";
}

std::string PartialFile::Publish() {
    if (fsync(m_nFd) != 0)
        return Problem("cannot write '" + m_strPart + "' to the disk");
    if (rename(m_strPart.c_str(), m_strPath.c_str()) != 0)
        return Problem("cannot rename '" + m_strPart + "'");
    unlink(m_strTagPath.c_str());
    return "";
}

}  // namespace tool
