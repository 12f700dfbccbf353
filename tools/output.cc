#include "tools/output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "tools/application.h"
#include "tools/file_handle.h"
#include "tools/file_name.h"
#include "tools/partial_file.h"
#include "tools/text.h"

namespace tool {

namespace {

constexpr int MAX_LINKS = 40;
constexpr int RETRY_MS = 20;

// "dir/" of "dir/name", "./" of "name".
std::string GetDirectory(const std::string& aPath) {
    const size_t stSlash = aPath.rfind('/');
    return stSlash == std::string::npos ? "./" : aPath.substr(0, stSlash + 1);
}

std::string Canonical(const std::string& aPath) {
    const std::unique_ptr<char, decltype(&std::free)> pPath(canonicalize_file_name(aPath.c_str()), &std::free);
    return pPath ? pPath.get() : "";
}

// Resolves the links at the end of aPath. aIsDescriptor (out): one of them names a descriptor of a process, such as /dev/stderr
// and /dev/fd/3. Another writer uses that file at the same time, so it must not be replaced.
std::string FollowLinks(std::string aPath, bool& aIsDescriptor) {
    for (int i = 0; i < MAX_LINKS; ++i) {
        const std::string strDirectory = Canonical(GetDirectory(aPath) + ".");
        aIsDescriptor = strDirectory.starts_with("/proc/") && strDirectory.ends_with("/fd");
        char szLink[PATH_MAX];
        const ssize_t nLength = aIsDescriptor ? -1 : readlink(aPath.c_str(), szLink, sizeof szLink);
        if (nLength <= 0)
            return aPath;
        const std::string strLink(szLink, static_cast<size_t>(nLength));
        aPath = strLink.front() == '/' ? strLink : GetDirectory(aPath) + strLink;
    }
    return aPath;
}

// The open of a pipe for writing fails while there is no reader. A blocking open could not be interrupted.
int OpenWithReader(const std::string& aPath) {
    for (;;) {
        const int nFd = open(aPath.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        struct stat status {};
        if (nFd >= 0 || errno != ENXIO || stat(aPath.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode))
            return nFd;
        poll(nullptr, 0, RETRY_MS);
        if (Application::GetPendingSignal() != 0) {
            errno = EINTR;
            return -1;
        }
    }
}

// Returns "" if a file of this name and the files beside it can be created.
std::string CheckNamesBeside(std::string_view aName) {
    if (aName.empty())
        return " is not the name of a file";
    const size_t stMost = MAX_FILE_NAME - PartialFile::LONGEST_SUFFIX.size();
    return aName.size() <= stMost ? "" : ": the name is longer than " + std::to_string(stMost) + " bytes";
}

}  // namespace

std::string JudgeTarget(const std::string& aPath, OutputTarget& aTarget) {
    aTarget = {};
    if (aPath.empty() || aPath == "-" || aPath == "/dev/stdout")
        return "";
    const std::string strQuoted = "'" + aPath + "'";
    struct stat status {};
    const bool bThere = stat(aPath.c_str(), &status) == 0;
    if (bThere ? access(aPath.c_str(), W_OK) != 0 : errno != ENOENT)
        return "cannot write to " + strQuoted + ": " + SystemError(errno);
    if (bThere && S_ISDIR(status.st_mode))
        return strQuoted + " is a directory";
    if (bThere && !S_ISREG(status.st_mode)) {
        aTarget = {OutputTarget::SPECIAL, aPath};
        return "";
    }
    bool bDescriptor = false;
    aTarget = {OutputTarget::REGULAR, FollowLinks(aPath, bDescriptor)};
    if (bDescriptor)
        return strQuoted + " is a descriptor that is open already; use '-' for stdout";
    const std::string strDirectory = GetDirectory(aTarget.m_strPath);
    const std::string strBeside = CheckNamesBeside(GetBaseName(aTarget.m_strPath));
    if (!strBeside.empty())
        return strQuoted + strBeside;
    if (access(strDirectory.c_str(), W_OK | X_OK) != 0)
        return "cannot create a file in '" + strDirectory + "': " + SystemError(errno);
    return "";
}

DirectOutput::~DirectOutput() {
    if (m_nFd > STDERR_FILENO)
        close(m_nFd);
}

std::string DirectOutput::Begin(const FileEdition& aEdition) {
    m_Edition = aEdition;
    if (m_nFd >= 0)
        return "";
    m_nFd = m_strPath.empty() ? STDOUT_FILENO : OpenWithReader(m_strPath);
    struct stat status {};
    if (m_nFd < 0 || fstat(m_nFd, &status) != 0)
        return Problem();
    m_stPiece = S_ISREG(status.st_mode) ? SIZE_MAX : PIPE_BUF;
    if (m_strPath.empty())
        return "";
    if (S_ISREG(status.st_mode))
        return "'" + m_strPath + "' has become a regular file";
    const int nFlags = fcntl(m_nFd, F_GETFL);
    fcntl(m_nFd, F_SETFL, nFlags & ~O_NONBLOCK);
    return "";
}

// Writes pieces that a pipe with room takes whole. So only WaitFor waits, and a signal can end that.
std::string DirectOutput::Write(std::string_view aBytes) {
    while (!aBytes.empty()) {
        const std::string_view piece = aBytes.substr(0, m_stPiece);
        if (!Application::WaitFor(m_nFd, POLLOUT) || !WriteAll(m_nFd, piece))
            return Problem();
        aBytes.remove_prefix(piece.size());
        m_ullSize += piece.size();
    }
    return "";
}

std::string DirectOutput::Publish() {
    const int nFd = m_strPath.empty() ? -1 : m_nFd;
    m_nFd = -1;
    return nFd < 0 || close(nFd) == 0 ? "" : Problem();
}

std::string DirectOutput::Problem() const {
    return "cannot write to " + (m_strPath.empty() ? "stdout" : "'" + m_strPath + "'") + ": " + SystemError(errno);
}

}  // namespace tool
