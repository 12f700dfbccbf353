#include "talvo/event/signal_blocks.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "talvo/base/trace.h"

namespace talvo {

namespace {

constexpr int REFUSED[] = {SIGKILL, SIGSTOP, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT, SIGCHLD};
constexpr int MOST_SIGNAL = 64;

struct CCloseDirectory {
    void operator()(DIR* aDirectory) const { closedir(aDirectory); }
};

// The signals that a thread of this process blocks. FALSE: it has ended.
BOOL ReadBlocked(const char* aThread, uint64_t& aBlocked) {
    char szPath[64];
    std::snprintf(szPath, sizeof szPath, "/proc/self/task/%.20s/status", aThread);
    const int nFd = open(szPath, O_RDONLY | O_CLOEXEC);
    if (nFd == -1)
        return FALSE;
    char szStatus[4096];
    const ssize_t nRead = read(nFd, szStatus, sizeof szStatus - 1);
    close(nFd);
    if (nRead <= 0)
        return FALSE;
    szStatus[nRead] = '\0';
    const char* pBlocked = std::strstr(szStatus, "\nSigBlk:");
    if (!pBlocked)
        return FALSE;
    aBlocked = std::strtoull(pBlocked + std::strlen("\nSigBlk:"), nullptr, 16);
    return TRUE;
}

}  // namespace

BOOL CSignalSet::Set(std::span<const int> aSignals) {
    for (const int nSignal : aSignals) {
        if (nSignal < 1 || nSignal > MOST_SIGNAL || std::ranges::find(REFUSED, nSignal) != std::end(REFUSED) ||
            sigaddset(&m_Set, nSignal) != 0)
            return FALSE;
        m_ullBits |= uint64_t{1} << (nSignal - 1);
    }
    return m_ullBits != 0;
}

BOOL EveryThreadBlocks(const CSignalSet& aSignals) {
    const std::unique_ptr<DIR, CCloseDirectory> pThreads(opendir("/proc/self/task"));
    if (!pThreads) {
        CM_WARNING_TRACE("EveryThreadBlocks, opendir() failed, the threads are not checked. err=" << errno);
        return TRUE;
    }
    while (const dirent* pThread = readdir(pThreads.get())) {
        uint64_t ullBlocked = 0;
        if (pThread->d_name[0] == '.' || !ReadBlocked(pThread->d_name, ullBlocked))
            continue;
        if ((aSignals.GetBits() & ~ullBlocked) != 0) {
            CM_ERROR_TRACE("EveryThreadBlocks, refused: a thread does not block the signals. tid=" << pThread->d_name);
            return FALSE;
        }
    }
    return TRUE;
}

}  // namespace talvo
