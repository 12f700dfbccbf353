// The file of a listening Unix socket.
#pragma once

#include <sys/types.h>

#include "talvo/transport/socket.h"

namespace talvo {

// Lets a socket listen on a path and removes the path at the end. An abstract name has no file. In one thread.
class TALVO_API CUnixPath {
public:
    CUnixPath() = default;
    CUnixPath(const CUnixPath&) = delete;
    CUnixPath& operator=(const CUnixPath&) = delete;

    // aAddr: of type AF_UNIX. No peer can connect before the mode of key "UnixMode" in section "Transport" is set. An existing
    // path is replaced if it is a socket on which no process answers. Until the socket listens, the locked file PATH.starting
    // keeps other starts off. 0; -1 with errno, EADDRINUSE if a process answers or starts, or the path is another file.
    int Listen(const CCmSocketBase& aSocket, const CCmInetAddr& aAddr, int aBacklog);

    // Unlinks the path unless another file has taken its place. Call it before the socket closes: until then the system gives
    // the number of the file to no other.
    void Remove();

private:
    int Own_i(const char* aPath);

    char m_szPath[sizeof(sockaddr_un::sun_path) + 1] = {};  // "": nothing to remove
    dev_t m_Device = 0;
    ino_t m_File = 0;
};

}  // namespace talvo
