// Datagram echo server on Asio, without its locks. Answers in the receive handler with a direct send.
#include <array>
#include <asio.hpp>

#include "benchmarks/support/system.h"

namespace {

using asio::ip::udp;

class CEcho {
public:
    CEcho(asio::io_context& aIo, uint16_t aPort) : m_Socket(aIo, udp::endpoint(asio::ip::address_v4::loopback(), aPort)) {
        m_Socket.non_blocking(true);
        m_Socket.set_option(asio::socket_base::receive_buffer_size(1 << 20));
        Receive();
    }

private:
    void Receive() {
        m_Socket.async_receive_from(asio::buffer(m_Buffer), m_From, [this](std::error_code aError, size_t aSize) {
            std::error_code ignored;
            if (!aError)
                m_Socket.send_to(asio::buffer(m_Buffer, aSize), m_From, 0, ignored);
            Receive();
        });
    }

    udp::socket m_Socket;
    udp::endpoint m_From;
    std::array<char, 65536> m_Buffer;
};

}  // namespace

int main(int argc, char** argv) {
    asio::io_context io(ASIO_CONCURRENCY_HINT_UNSAFE);
    const CEcho echo(io, bench::PortArgument(argc, argv));
    bench::PrintReady();
    io.run();
    return 0;
}
