#include "benchmarks/echo/load_stream.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "benchmarks/support/system.h"

CLoadStream::~CLoadStream() {
    if (m_Fd != -1)
        close(m_Fd);
}

bool CLoadStream::Connect(uint16_t aPort, uint64_t aFrom) {
    if (m_Fd != -1)
        close(m_Fd);
    m_Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int nOn = 1;
    setsockopt(m_Fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &nOn, sizeof(nOn));
    sockaddr_in local = bench::LoopbackAddress(0);
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1 + static_cast<uint32_t>(aFrom % 200));
    const sockaddr_in peer = bench::LoopbackAddress(aPort);
    if (bind(m_Fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == -1 ||
        connect(m_Fd, reinterpret_cast<const sockaddr*>(&peer), sizeof(peer)) == -1)
        return false;
    bench::SetNoDelay(m_Fd);
    return fcntl(m_Fd, F_SETFL, O_NONBLOCK) != -1;
}

ssize_t CLoadStream::Send(const char* aData, size_t aSize) { return send(m_Fd, aData, aSize, MSG_NOSIGNAL); }

ssize_t CLoadStream::Recv(char* aBuffer, size_t aSize) { return recv(m_Fd, aBuffer, aSize, 0); }
