#include "talvo/transport/unix_path.h"

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
        CM_WARNING_TRACE("CUnixPath::Bind, the mode is not an octal number up to 777. UnixMode=" << strMode);
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

}  // namespace

int CUnixPath::Bind(const CCmSocketBase& aSocket, const CCmInetAddr& aAddr) {
    const auto bindIt = [&] {
        return bind(aSocket.GetHandle(), reinterpret_cast<const sockaddr*>(aAddr.GetPtr()), aAddr.GetSize());
    };
    const char* pPath = reinterpret_cast<const sockaddr_un*>(aAddr.GetPtr())->sun_path;
    const BOOL bAbstract = *pPath == '\0';
    int nRv = bindIt();
    if (nRv == -1 && errno == EADDRINUSE && !bAbstract) {
        if (IsStale(aAddr, pPath) && (unlink(pPath) == 0 || errno == ENOENT))
            nRv = bindIt();
        else
            errno = EADDRINUSE;
    }
    return nRv == 0 && !bAbstract ? Own_i(pPath) : nRv;
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
