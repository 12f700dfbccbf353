// Echo server on libev: answers in the read callback; only the rest that the socket does not take waits for a write watcher.
#include <ev.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

#include "benchmarks/support/system.h"

namespace {

struct CConnection {
    ev_io m_Read;
    ev_io m_Write;          // active while there is a rest; m_Read is inactive then
    std::string m_strRest;  // read and not yet taken by the peer
};

std::array<char, 65536> s_Buffer;

CConnection& ConnectionOf(ev_io* aWatcher) { return *static_cast<CConnection*>(aWatcher->data); }

void Close(struct ev_loop* aLoop, CConnection& aConnection) {
    ev_io_stop(aLoop, &aConnection.m_Read);
    ev_io_stop(aLoop, &aConnection.m_Write);
    close(aConnection.m_Read.fd);
    delete &aConnection;
}

void CloseUnlessBlocked(struct ev_loop* aLoop, CConnection& aConnection, ssize_t aResult) {
    if (aResult == 0 || errno != EAGAIN)
        Close(aLoop, aConnection);
}

void OnWritable(struct ev_loop* aLoop, ev_io* aWatcher, int) {
    CConnection& connection = ConnectionOf(aWatcher);
    const ssize_t nSent = send(aWatcher->fd, connection.m_strRest.data(), connection.m_strRest.size(), MSG_NOSIGNAL);
    if (nSent == -1)
        return CloseUnlessBlocked(aLoop, connection, nSent);
    connection.m_strRest.erase(0, static_cast<size_t>(nSent));
    if (!connection.m_strRest.empty())
        return;
    ev_io_stop(aLoop, aWatcher);
    ev_io_start(aLoop, &connection.m_Read);
}

void OnReadable(struct ev_loop* aLoop, ev_io* aWatcher, int) {
    CConnection& connection = ConnectionOf(aWatcher);
    const ssize_t nRead = recv(aWatcher->fd, s_Buffer.data(), s_Buffer.size(), 0);
    if (nRead <= 0)
        return CloseUnlessBlocked(aLoop, connection, nRead);
    const ssize_t nSent = send(aWatcher->fd, s_Buffer.data(), static_cast<size_t>(nRead), MSG_NOSIGNAL);
    if (nSent == nRead)
        return;
    if (nSent == -1 && errno != EAGAIN)
        return Close(aLoop, connection);
    const ssize_t nTaken = std::max<ssize_t>(nSent, 0);
    connection.m_strRest.assign(s_Buffer.data() + nTaken, static_cast<size_t>(nRead - nTaken));
    ev_io_stop(aLoop, aWatcher);
    ev_io_start(aLoop, &connection.m_Write);
}

void OnConnection(struct ev_loop* aLoop, ev_io* aWatcher, int) {
    for (int fd; (fd = accept4(aWatcher->fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) != -1;) {
        bench::SetNoDelay(fd);
        CConnection* pConnection = new CConnection;
        ev_io_init(&pConnection->m_Read, OnReadable, fd, EV_READ);
        ev_io_init(&pConnection->m_Write, OnWritable, fd, EV_WRITE);
        pConnection->m_Read.data = pConnection->m_Write.data = pConnection;
        ev_io_start(aLoop, &pConnection->m_Read);
    }
}

}  // namespace

int main(int argc, char** argv) {
    bench::RaiseDescriptorLimit();
    struct ev_loop* pLoop = ev_default_loop(EVFLAG_AUTO);
    ev_io listener;
    ev_io_init(&listener, OnConnection, bench::ListenLoopback(bench::PortArgument(argc, argv)), EV_READ);
    ev_io_start(pLoop, &listener);
    bench::PrintReady();
    ev_run(pLoop, 0);
    return 0;
}
