#include "talvo/transport/unix_path.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>

#include "talvo/base/config.h"
#include "talvo/base/trace.h"
#include "talvo/base/with_memory.h"

namespace talvo {

namespace {

constexpr mode_t DEFAULT_MODE = 0660;

// Octal digits, as of chmod.
mode_t GetMode() {
    mode_t mode = DEFAULT_MODE;
    WithMemory([&] {
        const CCmString strMode = get_string_param("Transport", "UnixMode", "0660");
        const char* pEnd = strMode.data() + strMode.size();
        const auto [pRead, error] = std::from_chars(strMode.data(), pEnd, mode, 8);
        if (error == std::errc() && pRead == pEnd && mode <= 0777)
            return;
        mode = DEFAULT_MODE;
        CM_WARNING_TRACE("CUnixPath::Listen, the mode is not an octal number up to 777. UnixMode=" << strMode);
    });
    return mode;
}

// TRUE: a socket that no process listens on, or nothing any more.
BOOL IsStale(const CCmInetAddr& aAddr, const char* aPath) {
    struct stat file {};
    if (lstat(aPath, &file) == -1)
        return errno == ENOENT;
    if (!S_ISSOCK(file.st_mode))
        return FALSE;
    CCmSocketTcp probe;
    if (probe.OpenFor(aAddr, SOCK_STREAM | SOCK_NONBLOCK, FALSE) == -1)
        return FALSE;
    return connect(probe.GetHandle(), reinterpret_cast<const sockaddr*>(aAddr.GetPtr()), aAddr.GetSize()) == -1 &&
           errno == ECONNREFUSED;
}

// Bind makes a path visible before its socket listens, so only one process at a time starts on a path.
class CStartLock {
public:
    explicit CStartLock(const char* aPath) {
        std::snprintf(m_szPath, sizeof m_szPath, "%s.starting", aPath);
        m_Handle = open(m_szPath, O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    }
    CStartLock(const CStartLock&) = delete;
    CStartLock& operator=(const CStartLock&) = delete;
    ~CStartLock() {
        const int nErr = errno;
        if (m_bHeld)
            unlink(m_szPath);
        if (m_Handle != CM_INVALID_HANDLE)
            close(m_Handle);
        errno = nErr;
    }

    // Does not wait. FALSE with errno, EADDRINUSE if another start is under way. A file without a link belongs to one that has
    // just ended.
    BOOL Take() {
        if (m_Handle == CM_INVALID_HANDLE)
            return FALSE;
        struct stat file {};
        m_bHeld = flock(m_Handle, LOCK_EX | LOCK_NB) == 0 && fstat(m_Handle, &file) == 0 && file.st_nlink > 0;
        if (!m_bHeld)
            errno = EADDRINUSE;
        return m_bHeld;
    }

private:
    char m_szPath[sizeof(sockaddr_un::sun_path) + sizeof ".starting"];
    HANDLE m_Handle = CM_INVALID_HANDLE;
    BOOL m_bHeld = FALSE;
};

int BindTo(const CCmSocketBase& aSocket, const CCmInetAddr& aAddr) {
    return bind(aSocket.GetHandle(), reinterpret_cast<const sockaddr*>(aAddr.GetPtr()), aAddr.GetSize());
}

// Under the lock.
int BindOrReplace(const CCmSocketBase& aSocket, const CCmInetAddr& aAddr, const char* aPath) {
    if (BindTo(aSocket, aAddr) == 0)
        return 0;
    if (errno != EADDRINUSE)
        return -1;
    if (IsStale(aAddr, aPath) && (unlink(aPath) == 0 || errno == ENOENT))
        return BindTo(aSocket, aAddr);
    errno = EADDRINUSE;
    return -1;
}

}  // namespace

int CUnixPath::Listen(const CCmSocketBase& aSocket, const CCmInetAddr& aAddr, int aBacklog) {
    const auto& path = reinterpret_cast<const sockaddr_un*>(aAddr.GetPtr())->sun_path;
    char szPath[sizeof m_szPath];
    std::snprintf(szPath, sizeof szPath, "%.*s", static_cast<int>(sizeof path), path);  // a full one has no terminator
    if (!*szPath)
        return BindTo(aSocket, aAddr) == 0 ? listen(aSocket.GetHandle(), aBacklog) : -1;
    CStartLock lock(szPath);
    if (!lock.Take() || BindOrReplace(aSocket, aAddr, szPath) == -1 || Own_i(szPath) == -1)
        return -1;
    return listen(aSocket.GetHandle(), aBacklog);
}

int CUnixPath::Own_i(const char* aPath) {
    struct stat file {};
    if (chmod(aPath, GetMode()) == -1 || lstat(aPath, &file) == -1) {
        const int nErr = errno;
        unlink(aPath);
        errno = nErr;
        return -1;
    }
    std::snprintf(m_szPath, sizeof m_szPath, "%s", aPath);
    m_Device = file.st_dev;
    m_File = file.st_ino;
    return 0;
}

void CUnixPath::Remove() {
    struct stat file {};
    if (*m_szPath && lstat(m_szPath, &file) == 0 && file.st_dev == m_Device && file.st_ino == m_File)
        unlink(m_szPath);
    *m_szPath = '\0';
}

}  // namespace talvo
