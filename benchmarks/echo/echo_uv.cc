// Echo server on libuv: answers in the read callback with uv_try_write; only the rest that the socket does not take is queued.
#include <uv.h>

#include <array>
#include <csignal>
#include <string>

#include "benchmarks/support/system.h"

namespace {

struct CConnection {
    uv_tcp_t m_Tcp;
    uv_write_t m_Write;
    std::string m_strRest;  // being written; reading is off meanwhile
};

std::array<char, 65536> s_Buffer;  // one is enough: it keeps nothing between two callbacks

CConnection* ConnectionOf(uv_stream_t* aStream) { return static_cast<CConnection*>(aStream->data); }
uv_stream_t* StreamOf(CConnection* aConnection) { return reinterpret_cast<uv_stream_t*>(&aConnection->m_Tcp); }

void Close(CConnection* aConnection) {
    uv_handle_t* pHandle = reinterpret_cast<uv_handle_t*>(&aConnection->m_Tcp);
    if (!uv_is_closing(pHandle))
        uv_close(pHandle, [](uv_handle_t* aHandle) { delete static_cast<CConnection*>(aHandle->data); });
}

void StartReading(CConnection* aConnection);

void OnRestWritten(uv_write_t* aWrite, int aStatus) {
    CConnection* pConnection = ConnectionOf(aWrite->handle);
    if (aStatus < 0)
        return Close(pConnection);
    StartReading(pConnection);
}

void Echo(CConnection* aConnection, const char* aData, size_t aSize) {
    uv_buf_t buf = uv_buf_init(const_cast<char*>(aData), static_cast<unsigned>(aSize));
    int nSent = uv_try_write(StreamOf(aConnection), &buf, 1);
    if (nSent == UV_EAGAIN)
        nSent = 0;
    if (nSent < 0)
        return Close(aConnection);
    if (static_cast<size_t>(nSent) == aSize)
        return;
    aConnection->m_strRest.assign(aData + nSent, aSize - static_cast<size_t>(nSent));
    buf = uv_buf_init(aConnection->m_strRest.data(), static_cast<unsigned>(aConnection->m_strRest.size()));
    uv_read_stop(StreamOf(aConnection));
    uv_write(&aConnection->m_Write, StreamOf(aConnection), &buf, 1, OnRestWritten);
}

void StartReading(CConnection* aConnection) {
    uv_read_start(
        StreamOf(aConnection),
        [](uv_handle_t*, size_t, uv_buf_t* aBuf) { *aBuf = uv_buf_init(s_Buffer.data(), s_Buffer.size()); },
        [](uv_stream_t* aStream, ssize_t aRead, const uv_buf_t* aBuf) {
            if (aRead < 0)
                Close(ConnectionOf(aStream));
            else if (aRead > 0)
                Echo(ConnectionOf(aStream), aBuf->base, static_cast<size_t>(aRead));
        });
}

void OnConnection(uv_stream_t* aServer, int aStatus) {
    if (aStatus < 0)
        return;
    CConnection* pConnection = new CConnection;
    uv_tcp_init(aServer->loop, &pConnection->m_Tcp);
    pConnection->m_Tcp.data = pConnection;
    if (uv_accept(aServer, StreamOf(pConnection)) != 0)
        return Close(pConnection);
    uv_tcp_nodelay(&pConnection->m_Tcp, 1);
    StartReading(pConnection);
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);  // libuv writes to connections that clients have closed
    bench::RaiseDescriptorLimit();
    const sockaddr_in addr = bench::LoopbackAddress(bench::PortArgument(argc, argv));
    uv_tcp_t server;
    uv_tcp_init(uv_default_loop(), &server);
    if (uv_tcp_bind(&server, reinterpret_cast<const sockaddr*>(&addr), 0) != 0 ||
        uv_listen(reinterpret_cast<uv_stream_t*>(&server), bench::BACKLOG, OnConnection) != 0)
        bench::Fail("listen");
    bench::PrintReady();
    return uv_run(uv_default_loop(), UV_RUN_DEFAULT);
}
