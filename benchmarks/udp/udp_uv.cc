// Datagram echo server on libuv, with its batched receiving. Answers in the callback with uv_udp_try_send.
#include <uv.h>

#include <array>

#include "benchmarks/support/system.h"

namespace {

std::array<char, 32 * 65536> s_Buffer;

void OnDatagram(uv_udp_t* aSocket, ssize_t aRead, const uv_buf_t* aBuf, const sockaddr* aFrom, unsigned) {
    if (aRead < 0 || !aFrom)
        return;
    const uv_buf_t buf = uv_buf_init(aBuf->base, static_cast<unsigned>(aRead));
    uv_udp_try_send(aSocket, &buf, 1, aFrom);
}

}  // namespace

int main(int argc, char** argv) {
    const sockaddr_in addr = bench::LoopbackAddress(bench::PortArgument(argc, argv));
    uv_udp_t socket;
    uv_udp_init_ex(uv_default_loop(), &socket, AF_INET | UV_UDP_RECVMMSG);
    if (uv_udp_bind(&socket, reinterpret_cast<const sockaddr*>(&addr), 0) != 0)
        bench::Fail("bind");
    int nSize = 1 << 20;
    uv_recv_buffer_size(reinterpret_cast<uv_handle_t*>(&socket), &nSize);
    uv_udp_recv_start(
        &socket, [](uv_handle_t*, size_t, uv_buf_t* aBuf) { *aBuf = uv_buf_init(s_Buffer.data(), s_Buffer.size()); },
        OnDatagram);
    bench::PrintReady();
    return uv_run(uv_default_loop(), UV_RUN_DEFAULT);
}
