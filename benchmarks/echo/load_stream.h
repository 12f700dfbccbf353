// The byte stream below a connection of the load program: TCP, or a layer over it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

class CLoadStream {
public:
    CLoadStream() = default;
    virtual ~CLoadStream();
    CLoadStream(const CLoadStream&) = delete;
    CLoadStream& operator=(const CLoadStream&) = delete;

    // Closes the socket, and opens a connection to aPort of 127.0.0.1, which does not block afterwards. aFrom selects the local
    // address among 200, so that recently closed connections do not exhaust the ports.
    virtual bool Connect(uint16_t aPort, uint64_t aFrom);

    // As send(2) and recv(2), with errno.
    virtual ssize_t Send(const char* aData, size_t aSize);
    virtual ssize_t Recv(char* aBuffer, size_t aSize);

    int GetHandle() const { return m_Fd; }

private:
    int m_Fd = -1;
};
